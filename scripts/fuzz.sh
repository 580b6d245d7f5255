#!/usr/bin/env bash
# Runs every fuzzer of the asan build for N seconds each, starting from its seed corpus in fuzz/corpus/<name>:
# `scripts/fuzz.sh [SECONDS] [NAME...]`. A crash leaves its input as crash-* in the current folder.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-20}
shift || true
names=("$@")
if [ ${#names[@]} -eq 0 ]; then
  for fuzzer in build/asan/fuzz/*_fuzzer; do names+=("$(basename "$fuzzer" _fuzzer)"); done
fi
for name in "${names[@]}"; do
  work=$(mktemp -d)
  [ -d "fuzz/corpus/$name" ] && cp -r "fuzz/corpus/$name"/. "$work"/
  echo "-- $name"
  status=0
  "build/asan/fuzz/${name}_fuzzer" -max_total_time="$seconds" -print_final_stats=1 -rss_limit_mb=2048 \
    "$work" >"$work.log" 2>&1 || status=$?
  grep -E '^stat::(number_of_executed_units|peak_rss_mb)|^==|^SUMMARY|Done [0-9]+ runs' "$work.log" || true
  [ "$status" -eq 0 ] || tail -n 40 "$work.log"
  rm -rf "$work" "$work.log"
  [ "$status" -eq 0 ] || { echo "fuzzer $name failed"; exit 1; }
done
