#!/usr/bin/env bash
# The kiosk example as a user runs it: the first content with its beacon, then Ctrl-C, which uploads the
# visit in progress and exits 0.
#   kiosk_ctrl_c.sh PYTHON KIOSK.py
set -euo pipefail
set -m  # a job of its own: a background job of a script would otherwise ignore SIGINT
out=$(mktemp)
trap 'rm -f "$out"' EXIT
"$1" "$2" >"$out" 2>&1 &
kiosk=$!
for _ in $(seq 300); do
  grep -q "Willkommen  (beacon 1/1)" "$out" && break
  kill -0 "$kiosk" 2>/dev/null || break
  sleep 0.1
done
kill -INT "$kiosk"
status=0
wait "$kiosk" || status=$?
cat "$out"
grep -q "^Willkommen  (beacon 1/1)$" "$out" || { echo "FAIL: no content with its beacon"; exit 1; }
grep -q "^visit in progress at stop: uploaded$" "$out" || { echo "FAIL: the visit was not uploaded at Ctrl-C"; exit 1; }
[ "$status" -eq 0 ] || { echo "FAIL: exit $status after Ctrl-C"; exit 1; }
echo "kiosk: content, then Ctrl-C uploaded the visit"
