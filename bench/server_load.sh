#!/usr/bin/env bash
# pelm-server under a store full of phones: CLIENTS phones (default 200), each on one keep-alive connection,
# asking continuously for SECONDS (default 30): lookups, and every tenth request a visit upload. Prints
# req/s, p50/p99, errors, the server's resident memory before and after, and how long SIGTERM takes.
#   bench/server_load.sh [CLIENTS] [SECONDS]
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
clients=${1:-200}
seconds=${2:-30}
command -v wrk >/dev/null || { apt-get install -y -qq wrk >/dev/null || { apt-get update -qq && apt-get install -y -qq wrk >/dev/null; }; }
"$root/scripts/build.sh" release >/dev/null

work=$(mktemp -d)
trap 'kill "$server" 2>/dev/null || true; rm -rf "$work"' EXIT
cd "$work"
port=$((20000 + RANDOM % 20000))
"$root/build/release/server/pelm-server" --seed "$root/data/demo_seed.json" --db "$work/load.db" --port "$port" \
  >"$work/server.log" 2>&1 &
server=$!
for _ in $(seq 100); do grep -q listening "$work/server.log" 2>/dev/null && break; sleep 0.1; done
rss() { awk '/VmRSS/ {print $2 " kB"}' "/proc/$server/status"; }

echo "pelm-server pid $server, RSS before: $(rss)"
wrk -t2 -c"$clients" -d"${seconds}s" --timeout 10s -s "$root/bench/server_load.lua" "https://localhost:$port" |
  grep -E '^(requests|latency|Socket errors|Non-2xx)'
echo "RSS after: $(rss)"
# The same again: memory that stays flat under load does not grow a second time.
wrk -t2 -c"$clients" -d"${seconds}s" --timeout 10s -s "$root/bench/server_load.lua" "https://localhost:$port" |
  grep -E '^(requests|latency)'
echo "RSS after a second run: $(rss)"
stopped_at=$(date +%s.%N)
kill -TERM "$server"
wait "$server" || true
echo "stopped $(echo "$(date +%s.%N) - $stopped_at" | bc) s after SIGTERM"
