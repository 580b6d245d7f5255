#!/usr/bin/env bash
# pelm-server under a store full of phones and under attack, measured by bench/phones.cpp (pelm-phones), which
# counts every phone's answers, so a phone the server never answers is seen. Each part starts a fresh server.
#   bench/server_load.sh [steady|crowd|attacks|silent|stop|all] [--db URI]
#     steady   200 phones for 30 s, 10 % uploads, after 30 s of the same: req/s, p50/p99/max, starved phones,
#              errors, the server's RSS and threads before and after
#     crowd    2,000 phones for 30 s
#     attacks  20 phones for 15 s alone, then beside 300 slowloris connections, 4 senders of a 1 MB gzip body
#              that inflates to 1 GB, and 5 senders of 80 MB of header lines: throughput as a ratio to the
#              phones alone, and the server's peak RSS
#     silent   20 phones that open a new connection for every request, 15 s alone, then beside one client
#              (127.0.0.2) that opens 10,100 connections and sends nothing on them: throughput as a ratio to
#              the phones alone, how many the server closed, its peak RSS, and its RSS once all have closed
#     stop     200 idle phones connected, then SIGTERM: how long the server takes to exit
#   --db URI   a PostgreSQL database instead of a fresh SQLite file
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
part=${1:-all}
database=""
[ "${2:-}" = --db ] && database=${3:?--db needs a URI}
case "$part" in steady | crowd | attacks | silent | stop | all) ;; *)
  echo "server_load.sh: no part named $part (steady, crowd, attacks, silent, stop or all)" >&2
  exit 2
  ;;
esac

build="$root/build/bench"
# shellcheck source=scripts/lib/show-build.sh
. "$root/scripts/lib/show-build.sh"
show_build "$build-build.log" bash -c "cmake -S '$root' -B '$build' -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DPELM_BUILD_TESTS=OFF -DPELM_BUILD_TOOLS=ON && cmake --build '$build' --target pelm-server pelm-phones"
phones="$build/bench/pelm-phones"

work=$(mktemp -d)
server=""
trap '[ -n "$server" ] && kill "$server" 2>/dev/null; rm -rf "$work"' EXIT

start_server() {
  [ -n "$server" ] && { kill "$server" 2>/dev/null || true; wait "$server" 2>/dev/null || true; }
  rm -f "$work/load.db"*
  port=$((20000 + RANDOM % 20000))
  (cd "$work" && exec "$build/server/pelm-server" --seed "$root/data/demo_seed.json" --db "${database:-$work/load.db}" \
    --port "$port" >"$work/server.log" 2>&1) &
  server=$!
  for _ in $(seq 200); do grep -q listening "$work/server.log" 2>/dev/null && return; sleep 0.05; done
  cat "$work/server.log" >&2
  exit 1
}
run_phones() { "$phones" --host "localhost:$port" --ca "$work/pelm-server-certificate/ca.pem" --server-pid "$server" "$@"; }
figure() { awk -v k="$1" '$1 == k {print $2}' "$2"; }

steady() {
  echo "== 200 phones, 30 s, 10 % uploads (after a 30 s warm-up of the same load)"
  start_server
  run_phones --phones 200 --seconds 30 | grep -E "^(server_rss|req_per_s)" | sed "s/^/warm-up: /"
  run_phones --phones 200 --seconds 30 | tee "$work/steady"
}

crowd() {
  echo "== 2,000 phones, 30 s, 10 % uploads"
  start_server
  run_phones --phones 2000 --seconds 30
}

attacks() {
  echo "== attacks beside 20 phones, 15 s each"
  head -c 1G /dev/zero | gzip -9 >"$work/bomb.gz"
  start_server
  run_phones --phones 20 --seconds 15 >"$work/alone"
  local alone
  alone=$(figure answers "$work/alone")
  echo "alone: $(figure req_per_s "$work/alone") req/s, p99 $(figure p99_ms "$work/alone") ms"
  for attack in "slowloris 300" "gzip 4" "headers 5"; do
    set -- $attack
    start_server
    run_phones --phones 20 --seconds 15 --attack "$1" --attackers "$2" --body "$work/bomb.gz" >"$work/$1"
    echo "$1 ($2 attackers): $(figure req_per_s "$work/$1") req/s, p99 $(figure p99_ms "$work/$1") ms," \
      "ratio to alone $(echo "scale=2; $(figure answers "$work/$1") / $alone" | bc)," \
      "starved $(figure starved_phones "$work/$1"), attack connections $(figure attack_connections "$work/$1")," \
      "server peak RSS $(($(figure server_peak_rss_kib "$work/$1") / 1024)) MiB," \
      "threads $(figure server_threads_after "$work/$1")"
  done
}

silent() {
  echo "== 10,100 silent connections from one address beside 20 phones that reconnect for every request, 15 s each"
  start_server
  run_phones --phones 20 --seconds 15 --reconnect yes >"$work/alone"
  echo "alone: $(figure req_per_s "$work/alone") req/s, p99 $(figure p99_ms "$work/alone") ms"
  run_phones --phones 20 --seconds 15 --reconnect yes --attack silent --attackers 10100 >"$work/silent"
  sleep 3  # the silent connections have closed with the load generator
  echo "beside them: $(figure req_per_s "$work/silent") req/s, p99 $(figure p99_ms "$work/silent") ms," \
    "ratio to alone $(echo "scale=2; $(figure answers "$work/silent") / $(figure answers "$work/alone")" | bc)," \
    "starved $(figure starved_phones "$work/silent"), silent connections made $(figure attack_connections "$work/silent")," \
    "closed by the server $(figure attack_refused "$work/silent")," \
    "server peak RSS $(($(figure server_peak_rss_kib "$work/silent") / 1024)) MiB," \
    "RSS after they closed $(($(awk '/VmRSS/ {print $2}' "/proc/$server/status") / 1024)) MiB"
}

stop() {
  echo "== SIGTERM with 200 idle phones connected"
  start_server
  run_phones --phones 200 --seconds 2 --hold 10 >/dev/null &
  local client=$!
  sleep 4
  echo "connections open: $(ss -tnH state established "( sport = :$port )" | wc -l)"
  local started
  started=$(date +%s.%N)
  kill -TERM "$server"
  wait "$server" || true
  echo "exited $(echo "$(date +%s.%N) - $started" | bc) s after SIGTERM"
  server=""
  wait "$client" || true
}

case "$part" in
  all) steady; crowd; attacks; silent; stop ;;
  *) "$part" ;;
esac
