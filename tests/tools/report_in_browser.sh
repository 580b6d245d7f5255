#!/usr/bin/env bash
# The demo's visit report, loaded in headless Chromium: the page must load without a script error, and as
# rendered (each element laid out with a size) it must show the summary, one row per beacon with its signal
# line, and every mark its legend names. A copy of the page gets two scripts of the test's own: one first,
# catching errors, one last, writing its findings into the page, which --dump-dom then prints.
# Leaves visit.html, visit.png (a screenshot) and checks.txt in the work folder.
#   report_in_browser.sh PELM WORK_DIR
set -euo pipefail
pelm=$1
work=$2
rm -rf "$work"
mkdir -p "$work/profile"

browser=$(command -v chromium || true)
if [ -z "$browser" ]; then
  if [ -n "${CI:-}" ]; then
    echo "chromium is not installed (scripts/install-deps.sh installs it)"
    exit 1
  fi
  echo "chromium is not installed: skipped"
  exit 77
fi

"$pelm" simulate --report "$work/visit.html" > "$work/simulate.txt"
beacons=$(sed -n 's/.*": \([0-9]*\) beacons, .*/\1/p' "$work/simulate.txt")

catcher="<script>window.pageErrors = []; addEventListener('error', e => pageErrors.push(e.message));</script>"
checker=$(cat <<EOF
<script>
(function () {
  const lines = [];
  const check = (good, what) => lines.push((good ? 'ok ' : 'FAIL ') + what);
  const shown = element => { const box = element.getBoundingClientRect(); return box.width > 0 && box.height > 0; };
  const anyShown = selector => [...document.querySelectorAll(selector)].some(shown);
  check(pageErrors.length === 0, 'no script error ' + pageErrors.join('; '));
  const summary = document.querySelector('section.summary');
  check(summary && shown(summary) && /Upload/.test(summary.textContent) && /Contents handed over/.test(summary.textContent),
        'the summary is shown');
  const rows = [...document.querySelectorAll('svg.timeline .beacon-row')];
  check(rows.length === $beacons, 'one row per beacon: ' + rows.length + ' of $beacons');
  rows.forEach(row => check([...row.querySelectorAll('.mark-signal')].some(shown),
                            'a signal line in row ' + row.dataset.beacon));
  const marks = [...document.querySelectorAll('.legend .legend-item')].map(item => item.dataset.mark);
  check(marks.length === 7, 'the demo shows all seven kinds of mark: ' + marks.join(', '));
  marks.forEach(mark => check(anyShown('svg.timeline .mark-' + mark), 'the legend mark ' + mark + ' is drawn'));
  check(anyShown('svg.timeline .mark-name'), 'content names are written beside their marks');
  check(anyShown('table.devices .low-battery'), 'a low battery is flagged');
  const out = document.createElement('pre');
  out.id = 'checks';
  out.textContent = lines.join('\n');
  document.body.appendChild(out);
})();
</script>
EOF
)
# The test's scripts go around the page's own: the catcher before anything runs, the checker after all.
sed -e "s|<head>|<head>${catcher//|/\\|}|" "$work/visit.html" > "$work/checked.html"
printf '%s\n' "$checker" >> "$work/checked.html"

flags=(--headless --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking
  --disable-component-update --disable-sync --user-data-dir="$work/profile" --window-size=1280,1600)
timeout 120 "$browser" "${flags[@]}" --virtual-time-budget=5000 --dump-dom "file://$work/checked.html" \
  > "$work/dom.html" 2> "$work/chromium.log" || { echo "chromium failed:"; tail -5 "$work/chromium.log"; exit 1; }
timeout 120 "$browser" "${flags[@]}" --screenshot="$work/visit.png" "file://$work/visit.html" \
  >> "$work/chromium.log" 2>&1 || { echo "chromium could not take the screenshot"; exit 1; }

sed -n '/<pre id="checks">/,/<\/pre>/p' "$work/dom.html" | sed -e 's/<[^>]*>//g' > "$work/checks.txt"
cat "$work/checks.txt"
if ! grep -q '^ok ' "$work/checks.txt"; then
  echo "the checks did not run: the page never finished loading"
  exit 1
fi
if grep -q '^FAIL ' "$work/checks.txt"; then
  exit 1
fi
echo "screenshot: $work/visit.png"
