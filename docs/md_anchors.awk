# Gives each "## " heading of a Markdown page the anchor GitHub gives it ("## The tools" is #the-tools), so
# that the page's table of contents links work in the API reference as they do on GitHub.
/^```/ { fenced = !fenced }
!fenced && /^## / {
  slug = tolower(substr($0, 4))
  gsub(/[^a-z0-9 -]/, "", slug)
  gsub(/ /, "-", slug)
  print $0 " {#" slug "}"
  next
}
{ print }
