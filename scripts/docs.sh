#!/usr/bin/env bash
# Builds the API reference of the public headers into build/docs/html. A warning (a broken reference, a
# malformed command, a parameter that does not exist) fails the build.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
out=build/docs
rm -rf "$out/html"
mkdir -p "$out/include/pelm"
# version.hpp is made by CMake from its template; the reference shows it with this tree's version.
read -r major minor patch < <(sed -n 's/^project(pelm VERSION \([0-9]*\)\.\([0-9]*\)\.\([0-9]*\).*/\1 \2 \3/p' CMakeLists.txt)
sed -e "s/@PROJECT_VERSION_MAJOR@/$major/" -e "s/@PROJECT_VERSION_MINOR@/$minor/" -e "s/@PROJECT_VERSION_PATCH@/$patch/" \
  cmake/version.hpp.in >"$out/include/pelm/version.hpp"
# Doxygen takes the output folder from the configuration; it is added here so the file stays relative.
if ! (cat docs/Doxyfile; echo "OUTPUT_DIRECTORY = $out"; echo "WARN_LOGFILE = $out/warnings.txt"
      echo "INPUT += $out/include"; echo "STRIP_FROM_PATH += $out/include"
      echo "STRIP_FROM_INC_PATH += $out/include") | doxygen - >/dev/null; then
  cat "$out/warnings.txt" >&2
  echo "docs: doxygen found problems in the public headers (above)" >&2
  exit 1
fi
if [ -s "$out/warnings.txt" ]; then
  cat "$out/warnings.txt" >&2
  echo "docs: doxygen found problems in the public headers (above)" >&2
  exit 1
fi
# The main page's own links (to the examples, the README, the events) must lead somewhere.
for link in $(grep -o 'href="[^"#:]*\.html' "$out/html/index.html" | sed 's/^href="//' | sort -u); do
  [ -e "$out/html/$link" ] || { echo "docs: the main page links to $link, which was not made" >&2; exit 1; }
done
echo "API reference: $out/html/index.html"
