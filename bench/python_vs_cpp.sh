#!/usr/bin/env bash
# The Python package against the C++ underneath it, measured in one run on the same files:
#   - reading: `pelm.read(path).to_numpy()` on ADS advertisements (default 10 M; a store of four rooms of
#     iBeacon senders and passing phones, as bench/replay_bench.cpp writes it, as a btsnoop log and as a JSON
#     trace) against the C++ reader alone reading them (the ReaderAlone benchmark), best of three each;
#   - replaying: `pelm.replay(path)` against `pelm replay path` on REPLAY_ADS advertisements (default 1 M),
#     best of three each.
# Prints each time and the ratio (Python / C++).
#   bench/python_vs_cpp.sh [ADS] [REPLAY_ADS]
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
ads=${1:-10000000}
replay_ads=${2:-1000000}
# shellcheck source=scripts/lib/show-build.sh
. "$root/scripts/lib/show-build.sh"
show_build "$root/build/bench-build.log" "$root/scripts/build.sh" bench
build="$root/build/bench"
python=/usr/bin/python3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

best_cpp_reader() { # FORMAT (json_trace|btsnoop): seconds, best of three, as the benchmark measured them
  "$build/bench/pelm_bench" --benchmark_filter="ReaderAlone/$1\$" --benchmark_repetitions=1 \
    --benchmark_format=json 2>/dev/null |
    "$python" -c "import json,sys; print(min(b['real_time'] for b in json.load(sys.stdin)['benchmarks'] if b['run_type']=='iteration') / 1000)"
}
best_python() { # CODE with {path}: seconds, best of three
  PYTHONPATH="$build/python" "$python" - "$1" "$2" <<'PY'
import sys, time
import pelm
code, path = sys.argv[1], sys.argv[2]
best = None
for _ in range(3):
    start = time.perf_counter()
    eval(code, {"pelm": pelm, "path": path})
    took = time.perf_counter() - start
    best = took if best is None else min(best, took)
print(f"{best:.3f}")
PY
}
best_command() { # ARGS...: seconds, best of three
  "$python" - "$@" <<'PY'
import subprocess, sys, time
best = None
for _ in range(3):
    start = time.perf_counter()
    subprocess.run(sys.argv[1:], check=True, stdout=subprocess.DEVNULL)
    took = time.perf_counter() - start
    best = took if best is None else min(best, took)
print(f"{best:.3f}")
PY
}
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }

echo "Writing $ads advertisements (btsnoop and JSON trace) ..."
mkdir -p "$work/read"
for format in btsnoop json_trace; do
  cpp=$(PELM_BENCH_ADS=$ads PELM_BENCH_KEEP="$work/read" best_cpp_reader "$format")
  file="$work/read/store.btsnoop"; [ "$format" = json_trace ] && file="$work/read/store.jsonl"
  py=$(best_python "pelm.read(path).to_numpy()" "$file")
  printf 'read %-10s  C++ reader %7.3f s   pelm.read().to_numpy() %7.3f s   ratio %s\n' \
    "$format" "$cpp" "$py" "$(ratio "$py" "$cpp")"
done
rm -rf "$work/read"

echo "Writing $replay_ads advertisements for the replay ..."
mkdir -p "$work/replay"
PELM_BENCH_ADS=$replay_ads PELM_BENCH_KEEP="$work/replay" "$build/bench/pelm_bench" \
  --benchmark_filter='ReaderAlone/btsnoop$' >/dev/null 2>&1
file="$work/replay/store.btsnoop"
cpp=$(best_command "$build/tools/pelm/pelm" replay "$file")
py=$(best_python "pelm.replay(path)" "$file")
printf 'replay btsnoop     pelm replay %7.3f s   pelm.replay() %7.3f s   ratio %s\n' "$cpp" "$py" "$(ratio "$py" "$cpp")"
