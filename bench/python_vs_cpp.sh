#!/usr/bin/env bash
# The Python package against the C++ underneath it, measured in one run on the same files, the two sides
# taking turns (ROUNDS rounds, the best of each side kept, since this machine's neighbours come and go):
#   - reading: `pelm.read(path).to_numpy()` on ADS advertisements (default 10 M: a store of four rooms of
#     iBeacon senders among 50,000 passing phones, as bench/replay_bench.cpp writes it, as a btsnoop log and
#     as a JSON trace) against the C++ reader alone reading them (the ReaderAlone benchmark);
#   - replaying: `pelm.replay(path)` against `pelm replay path` on REPLAY_ADS advertisements (default 1 M).
# Prints each best time and the ratio (Python / C++).
#   bench/python_vs_cpp.sh [ADS] [REPLAY_ADS] [ROUNDS]
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
ads=${1:-10000000}
replay_ads=${2:-1000000}
rounds=${3:-5}
# shellcheck source=scripts/lib/show-build.sh
. "$root/scripts/lib/show-build.sh"
show_build "$root/build/bench-build.log" "$root/scripts/build.sh" bench
build="$root/build/bench"
python=/usr/bin/python3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

write_recordings() { # FOLDER COUNT
  mkdir -p "$1"
  PELM_BENCH_ADS=$2 PELM_BENCH_KEEP="$1" "$build/bench/pelm_bench" --benchmark_filter=ReaderAlone/btsnoop/ \
    >/dev/null 2>&1
}
cpp_reader() { # FOLDER FORMAT: the reader's best of three, in seconds
  PELM_BENCH_ADS=$ads PELM_BENCH_KEEP="$1" PELM_BENCH_REUSE=1 "$build/bench/pelm_bench" \
    --benchmark_filter="ReaderAlone/$2/" --benchmark_format=json 2>/dev/null |
    "$python" -c "import json,sys; print(min(b['real_time'] for b in json.load(sys.stdin)['benchmarks']) / 1000)"
}
python_call() { # CODE PATH: seconds of one call, the interpreter and the import not counted
  PYTHONPATH="$build/python" "$python" -c "
import sys, time, pelm
start = time.perf_counter()
eval(sys.argv[1], {'pelm': pelm, 'path': sys.argv[2]})
print(time.perf_counter() - start)" "$1" "$2"
}
command_call() { # ARGS...: seconds of one run
  "$python" -c "
import subprocess, sys, time
start = time.perf_counter()
subprocess.run(sys.argv[1:], check=True, stdout=subprocess.DEVNULL)
print(time.perf_counter() - start)" "$@"
}
min() { awk 'NR == 1 || $1 < m { m = $1 } END { printf "%.3f", m }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }

echo "Writing $ads advertisements (btsnoop and JSON trace) ..."
write_recordings "$work/read" "$ads"
for format in btsnoop json_trace; do
  file="$work/read/store.btsnoop"; [ "$format" = json_trace ] && file="$work/read/store.jsonl"
  : >"$work/cpp.txt"; : >"$work/py.txt"
  for _ in $(seq "$rounds"); do
    cpp_reader "$work/read" "$format" >>"$work/cpp.txt"
    python_call "pelm.read(path).to_numpy()" "$file" >>"$work/py.txt"
  done
  cpp=$(min <"$work/cpp.txt"); py=$(min <"$work/py.txt")
  printf 'read %-10s  C++ reader %7.3f s   pelm.read().to_numpy() %7.3f s   ratio %s\n' \
    "$format" "$cpp" "$py" "$(ratio "$py" "$cpp")"
done
rm -rf "$work/read"

echo "Writing $replay_ads advertisements for the replay ..."
write_recordings "$work/replay" "$replay_ads"
file="$work/replay/store.btsnoop"
: >"$work/cpp.txt"; : >"$work/py.txt"
for _ in $(seq "$rounds"); do
  command_call "$build/tools/pelm/pelm" replay "$file" >>"$work/cpp.txt"
  python_call "pelm.replay(path)" "$file" >>"$work/py.txt"
done
cpp=$(min <"$work/cpp.txt"); py=$(min <"$work/py.txt")
printf 'replay btsnoop     pelm replay %7.3f s   pelm.replay() %7.3f s   ratio %s\n' "$cpp" "$py" "$(ratio "$py" "$cpp")"
