#!/usr/bin/env bash
# pelm-server beside nginx on this machine: the same lookup answer (the demo data's beacon 1/9) over TLS with the
# same certificate, nginx serving it as a static file. nginx is the ceiling (a file, no database, no routing),
# not a peer. Both are loaded alternately, 10 s each, by wrk (1 thread, keep-alive; the load generator shares
# the cores) at 200 and 2,000 connections, then by pelm-phones (200 phones, 10 % uploads, which nginx answers
# with a fixed 201). The load comes from one address, so pelm-server takes up to 10,000 connections from it (a
# store's phones behind one router do the same). Prints each run and the ratios pelm-server / nginx.
#   bench/server_vs_nginx.sh [ROUNDS]     (default 3 rounds; needs nginx-light and wrk)
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
rounds=${1:-3}
case "$rounds" in '' | *[!0-9]* | 0)
  echo "server_vs_nginx.sh: ROUNDS must be a whole number above 0, not $rounds" >&2
  exit 2
  ;;
esac
for tool in nginx wrk; do
  command -v "$tool" >/dev/null || PATH="$PATH:/usr/sbin" command -v "$tool" >/dev/null || {
    echo "server_vs_nginx.sh: $tool is missing (apt-get install nginx-light wrk)" >&2
    exit 1
  }
done
PATH="$PATH:/usr/sbin"

build="$root/build/bench"
# shellcheck source=scripts/lib/show-build.sh
. "$root/scripts/lib/show-build.sh"
show_build "$build-build.log" bash -c "cmake -S '$root' -B '$build' -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DPELM_BUILD_TESTS=OFF -DPELM_BUILD_TOOLS=ON && cmake --build '$build' --target pelm-server pelm-phones"

work=$(mktemp -d)
chmod 755 "$work"  # nginx's workers run as another user
server="" nginx_pid=""
cleanup() {
  [ -n "$server" ] && kill "$server" 2>/dev/null
  [ -n "$nginx_pid" ] && kill "$nginx_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

free_port() { echo $((20000 + RANDOM % 20000)); }
token=demo-token
uuid=F7826DA6-4FA2-4E98-8024-BC5B71E0893E
lookup="/api/v1/contents/by_hardware?app_token=$token&major=1&minor=9&type=BLE&uuid=$uuid"

pelm_port=$(free_port)
(cd "$work" && exec "$build/server/pelm-server" --seed "$root/data/demo_seed.json" --db "$work/bench.db" \
  --port "$pelm_port" --max-connections-per-address 10000 >"$work/server.log" 2>&1) &
server=$!
for _ in $(seq 200); do grep -q listening "$work/server.log" 2>/dev/null && break; sleep 0.05; done
grep -q listening "$work/server.log" || { cat "$work/server.log" >&2; exit 1; }
certs="$work/pelm-server-certificate"
mkdir -p "$work/www/api/v1/contents"
curl -sf --cacert "$certs/ca.pem" "https://localhost:$pelm_port$lookup" >"$work/www/api/v1/contents/by_hardware"

nginx_port=$pelm_port
while [ "$nginx_port" = "$pelm_port" ]; do nginx_port=$(free_port); done
cat >"$work/nginx.conf" <<EOF
worker_processes auto;
pid $work/nginx.pid;
error_log $work/nginx-error.log;
daemon off;
events { worker_connections 8192; }
http {
  access_log off;
  keepalive_requests 1000000;
  keepalive_timeout 30s;
  client_body_temp_path $work/nginx-body;
  server {
    listen 127.0.0.1:$nginx_port ssl;
    ssl_protocols TLSv1.2 TLSv1.3;  # what pelm-server speaks (nginx 1.22 alone offers TLS 1.2 at most)
    ssl_certificate $certs/cert.pem;
    ssl_certificate_key $certs/key.pem;
    root $work/www;
    default_type "application/json; charset=utf-8";
    location = /api/v1/sessions { return 201 '{"status":"successful"}'; }
  }
}
EOF
ulimit -n "$(ulimit -Hn)" 2>/dev/null || true
nginx -c "$work/nginx.conf" -e "$work/nginx-error.log" &
nginx_pid=$!
for _ in $(seq 100); do curl -sf --cacert "$certs/ca.pem" "https://localhost:$nginx_port$lookup" >/dev/null && break; sleep 0.05; done
cmp -s <(curl -sf --cacert "$certs/ca.pem" "https://localhost:$nginx_port$lookup") \
  "$work/www/api/v1/contents/by_hardware" || { echo "server_vs_nginx.sh: nginx does not serve the answer" >&2; exit 1; }
echo "pelm-server on $pelm_port, nginx on $nginx_port, answer $(wc -c <"$work/www/api/v1/contents/by_hardware") bytes"

# "req_per_s p99_ms" of one wrk run.
wrk_run() {
  wrk -t1 -c"$2" -d10s --latency "https://localhost:$1$lookup" >"$work/wrk" 2>&1
  awk '/Requests\/sec/ {rps = $2}
       /^ +99%/ {v = $2; if (v ~ /us$/) ms = v / 1000; else if (v ~ /ms$/) ms = v + 0; else ms = v * 1000}
       / Non-2xx/ {bad = $NF}
       END {printf "%.0f %.2f %d\n", rps, ms, bad}' "$work/wrk"
}
phones_run() {
  "$build/bench/pelm-phones" --host "localhost:$1" --ca "$certs/ca.pem" --phones 200 --seconds 10 >"$work/phones"
  awk '$1 == "req_per_s" {r = $2} $1 == "p99_ms" {p = $2} $1 == "starved_phones" {s = $2}
       END {printf "%.0f %.2f %d\n", r, p, s}' "$work/phones"
}
# "requests uploads" answered so far, from pelm-server's own metrics (its scrapes left out).
served() {
  curl -sf --cacert "$certs/ca.pem" "https://localhost:$pelm_port/metrics" |
    awk '/^pelm_requests_total/ && !/route="metrics"/ {r += $NF} /^pelm_uploads_stored_total/ {u = $NF}
         END {printf "%d %d\n", r, u}'
}
ratio() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.2f", (b > 0 ? a / b : 0)}'; }

for round in $(seq "$rounds"); do
  for load in "wrk 200" "wrk 2000" "phones 200"; do
    set -- $load
    read -r n_rps n_p99 n_bad < <("${1}_run" "$nginx_port" "$2")
    read -r before_requests before_uploads < <(served)
    read -r p_rps p_p99 p_bad < <("${1}_run" "$pelm_port" "$2")
    read -r after_requests after_uploads < <(served)
    printf 'round %d  %-6s %5d conns: pelm-server %6d req/s p99 %7.2f ms | nginx %6d req/s p99 %7.2f ms | req/s ratio %s, p99 ratio %s%s\n' \
      "$round" "$1" "$2" "$p_rps" "$p_p99" "$n_rps" "$n_p99" "$(ratio "$p_rps" "$n_rps")" "$(ratio "$p_p99" "$n_p99")" \
      "$([ "${p_bad:-0}" != 0 ] || [ "${n_bad:-0}" != 0 ] && echo " (non-2xx or starved: pelm $p_bad, nginx $n_bad)")"
    if [ "$1" = phones ]; then
      echo "         /metrics over that run: $((after_requests - before_requests)) requests answered," \
        "$((after_uploads - before_uploads)) uploads stored; pelm-phones counted $(awk '$1 == "answers" {print $2}' "$work/phones")" \
        "answers, $(awk '$1 == "uploads" {print $2}' "$work/phones") of them uploads"
    fi
  done
done
