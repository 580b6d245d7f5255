#!/usr/bin/env bash
# `pip install .` as the README tells a user: a virtual environment that sees Debian's packages, the
# repository installed into it offline, then the visits of a recording as `pelm replay` prints them.
#   tests/python/pip_install.sh PELM [WORK_DIR]      PELM: the pelm command to compare with
set -euo pipefail
root="$(cd "$(dirname "$0")/../.." && pwd)"
pelm=$1
work=${2:-$(mktemp -d)}
rm -rf "$work/venv"
mkdir -p "$work"
/usr/bin/python3 -m venv --system-site-packages "$work/venv"
started=$SECONDS
# No index: nothing may be downloaded, as on a machine that reaches no package index.
(cd "$work" && PIP_NO_INDEX=1 "$work/venv/bin/pip" install --quiet "$root")
echo "pip install: $((SECONDS - started)) s"
recording="$root/tests/data/recordings/android-hci.btsnoop"
(cd "$work" && "$work/venv/bin/python" -c "
import sys, pelm
assert pelm.__file__.startswith('$work/venv/'), pelm.__file__
run = pelm.replay(sys.argv[1])
for visit in run.records:
    print(visit['beacon']['major'], visit['beacon']['minor'], visit['session']['start_time'])
" "$recording") >"$work/python.txt"
"$work/venv/bin/python" -c "import pelm" || exit 1
# The same visits from the command (its --json records), beacon and start of each.
"$pelm" replay "$recording" --json | sed -n '/^\[/,$p' |
  /usr/bin/python3 -c "
import json, sys
for visit in json.load(sys.stdin):
    print(visit['beacon']['major'], visit['beacon']['minor'], visit['session']['start_time'])
" >"$work/cli.txt"
diff -u "$work/cli.txt" "$work/python.txt"
[ -s "$work/python.txt" ] || { echo "FAIL: no visit"; exit 1; }
echo "pip install: pelm imports from the venv and replays to the visits pelm replay stores"
