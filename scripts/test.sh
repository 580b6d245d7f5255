#!/usr/bin/env bash
# The whole test suite: installs what it needs, then builds and runs everything twice (plainly, and under
# AddressSanitizer + UndefinedBehaviorSanitizer), then gives each fuzzer a short run.
set -euo pipefail
cd "$(dirname "$0")/.."

FUZZ_SECONDS=${FUZZ_SECONDS:-30}
jobs=$(nproc 2>/dev/null || echo 2)

scripts/install-deps.sh

echo "== plain build"
scripts/build.sh plain
(cd build/plain && ctest --output-on-failure -j "$jobs")

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
scripts/build.sh asan
(cd build/asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
   ctest --output-on-failure -j "$jobs")

if [ "$FUZZ_SECONDS" -gt 0 ]; then
  echo "== fuzzing, ${FUZZ_SECONDS}s per target"
  scripts/build.sh fuzz
  for fuzzer in build/fuzz/fuzz/*_fuzzer; do
    corpus="fuzz/corpus/$(basename "$fuzzer" _fuzzer)"
    work=$(mktemp -d)
    [ -d "$corpus" ] && cp -r "$corpus"/. "$work"/
    echo "-- $(basename "$fuzzer")"
    "$fuzzer" -max_total_time="$FUZZ_SECONDS" -print_final_stats=0 "$work" 2>&1 | tail -n 3
    rm -rf "$work"
  done
fi
echo "all tests passed"
