#!/usr/bin/env bash
# clang-tidy's checks that catch what the compilers do not, over our own sources, with the compile commands
# of a clang build (default build/asan): `scripts/tidy.sh [BUILD_DIR]`. Fails on any finding.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/asan}
checks='-*,bugprone-use-after-move'
jobs=$(nproc 2>/dev/null || echo 2)
log=$(mktemp)
trap 'rm -f "$log"' EXIT
status=0
git ls-files 'src/*.cpp' 'server/*.cpp' 'tools/*.cpp' 'tests/*.cpp' 'fuzz/*.cpp' | grep -v '^tests/consumer/' |
  xargs -P "$jobs" -n 4 clang-tidy -p "$build" --quiet --checks="$checks" --warnings-as-errors='*' \
  >"$log" 2>&1 || status=$?
grep -v -E '^[0-9]+ warnings? (and [0-9]+ errors? )?generated|^Suppressed|^Use -header-filter' "$log" || true
[ "$status" -eq 0 ] && echo "clang-tidy: no use after move"
exit "$status"
