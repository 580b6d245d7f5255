#!/usr/bin/env bash
# The scripts that build on the way (scripts/pelm, the benchmarks) show a failed build's compiler errors and
# name the log; a build that succeeds says nothing.
set -euo pipefail
root="$(cd "$(dirname "$0")/../.." && pwd)"
# shellcheck source=scripts/lib/show-build.sh
. "$root/scripts/lib/show-build.sh"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

compiler() {
  echo "[1/3] Building CXX object a.cpp.o"
  echo "FAILED: b.cpp.o"
  echo "b.cpp:12:5: error: 'nope' was not declared in this scope"
  echo "ninja: build stopped: subcommand failed."
  return 1
}
status=0
show_build "$work/failed.log" compiler 2>"$work/err.txt" >/dev/null || status=$?
[ "$status" -eq 1 ] || { echo "a failed build returned $status"; exit 1; }
grep -q "^b.cpp:12:5: error: 'nope' was not declared" "$work/err.txt" || { echo "no compiler error shown:"; cat "$work/err.txt"; exit 1; }
grep -q "the whole log is $work/failed.log$" "$work/err.txt" || { echo "the log is not named:"; cat "$work/err.txt"; exit 1; }
grep -q "subcommand failed" "$work/failed.log" || { echo "the log is not whole"; exit 1; }

show_build "$work/ok.log" echo "[1/1] Linking" 2>"$work/err.txt" >/dev/null
[ ! -s "$work/err.txt" ] || { echo "a good build off a terminal printed:"; cat "$work/err.txt"; exit 1; }
echo "show_build: errors and the log on failure, silence on success"
