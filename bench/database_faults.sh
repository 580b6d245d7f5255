#!/usr/bin/env bash
# What pelm-server answers while its PostgreSQL database fails, fault by fault: for each, 10 uploads, a lookup
# of a beacon already looked up (its cache entry expired) and /status, each with its status and time.
#   bench/database_faults.sh        (after scripts/build.sh release; needs PostgreSQL, as the suite does)
# The faults: the database stopped (pg_ctl stop), then started again; stopped with SIGSTOP (a stalled disk or
# a cut network look the same), then SIGCONT; the server's backends killed (pg_terminate_backend); the disk
# full (the tables on a 3 MB tmpfs); and the server's SIGTERM during the SIGSTOP, timed.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
server="$root/build/release/server/pelm-server"
[ -x "$server" ] || { echo "database_faults.sh: build it first: scripts/build.sh release" >&2; exit 2; }
work=$(mktemp -d)
chmod 755 "$work"  # the tablespace of the full disk lies below it, and the database's user must reach it
pg="$root/tests/support/postgresql.sh"
pid=""
cleanup() {
  [ -n "$pid" ] && kill -KILL "$pid" 2>/dev/null
  [ -f "$work/pg/cluster" ] && signal_cluster CONT
  mountpoint -q "$work/tiny" 2>/dev/null && umount -l "$work/tiny"
  "$pg" stop "$work/pg" >/dev/null 2>&1 || true
  rm -rf "$work"
}
cluster=""
trap cleanup EXIT
"$pg" start "$work/pg" >/dev/null
url=$(cat "$work/pg/url")
cluster=$(cat "$work/pg/cluster")
bindir=$(ls -d /usr/lib/postgresql/*/bin | sort -V | tail -1)
as_pg() { if [ "$(id -u)" = 0 ]; then runuser -u postgres -- "$@"; else "$@"; fi; }
sql() { psql -qAtX "$url" -c "$1"; }
# The postmaster and every backend it forked.
signal_cluster() {
  local postmaster
  postmaster=$(head -1 "$cluster/data/postmaster.pid" 2>/dev/null) || return 0
  kill -"$1" "$postmaster" 2>/dev/null || true
  pkill -"$1" -P "$postmaster" 2>/dev/null || true
}

port=$((20000 + RANDOM % 20000))
start_server() {
  (cd "$work" && exec "$server" --db "$url" --seed "$root/data/demo_seed.json" --port "$port" >"$work/server.log" 2>&1) &
  pid=$!
  for _ in $(seq 200); do grep -q listening "$work/server.log" 2>/dev/null && return; sleep 0.05; done
  cat "$work/server.log" >&2
  exit 1
}
ca="$work/pelm-server-certificate/ca.pem"
api="https://localhost:$port/api/v1"
visit=0
ask() { # what: "upload N" | "lookup" | "status"; prints "CODE TIME"
  case "$1" in
    upload)
      curl -s --cacert "$ca" -m 20 -o /dev/null -w '%{http_code} %{time_total}' -X POST "$api/sessions" \
        --data "app_token=demo-token&session_user=fault-$2&session%5Bstart_time%5D=2026-11-25T10%3A00%3A00.000%2B0000" || true ;;
    lookup) curl -s --cacert "$ca" -m 20 -o /dev/null -w '%{http_code} %{time_total}' \
        "$api/contents/by_hardware?app_token=demo-token&type=BLE&uuid=F7826DA6-4FA2-4E98-8024-BC5B71E0893E&major=1&minor=9" || true ;;
    status) curl -s --cacert "$ca" -m 20 -w ' %{http_code} %{time_total}' "$api/status?app_token=demo-token" |
        sed 's/.*"database":"\([^"]*\)".*} \(.*\)/\2 (database: \1)/' || true ;;
  esac
}
# Ten uploads at once, then a lookup and the status: "upload codes (slowest s) | lookup | status".
round() {
  local codes=() slowest=0
  local asking=()
  for i in $(seq 10); do
    ask upload $((visit + i)) >"$work/u.$i" &
    asking+=($!)
  done
  wait "${asking[@]}"
  visit=$((visit + 10))
  for f in "$work"/u.*; do read -r code time <"$f" || true; codes+=("$code"); slowest=$(echo "$time $slowest" | awk '{print ($1 > $2 ? $1 : $2)}'); rm "$f"; done
  local counted
  counted=$(printf '%s\n' "${codes[@]}" | sort | uniq -c | awk '{printf "%s%s x%s", (NR > 1 ? ", " : ""), $2, $1}')
  printf '| %s | uploads %s (slowest %.1f s) | lookup %s s | status %s |\n' "$1" "$counted" "$slowest" "$(ask lookup)" "$(ask status)"
}

start_server
ask lookup >/dev/null
round "healthy"
sleep 6
as_pg "$bindir/pg_ctl" -D "$cluster/data" -m fast -w stop >/dev/null
round "stopped (pg_ctl stop)"
as_pg "$bindir/pg_ctl" -D "$cluster/data" -l "$cluster/server.log" -w start \
  -o "-k $cluster -c listen_addresses='' -c max_connections=300" >/dev/null
sleep 1
round "started again"
sleep 6
signal_cluster STOP
round "SIGSTOP"
started=$(date +%s.%N)
kill -TERM "$pid"
wait "$pid" || true
echo "| SIGTERM during the SIGSTOP | exited $(echo "$(date +%s.%N) - $started" | bc | cut -c1-4) s after the signal | | |"
signal_cluster CONT
start_server
round "after SIGCONT, a new server"
sql "SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE pid <> pg_backend_pid() AND backend_type = 'client backend'" >/dev/null
round "backends killed"
mkdir -p "$work/tiny"
if mount -t tmpfs -o size=3m tmpfs "$work/tiny" 2>/dev/null; then
  chown postgres "$work/tiny" 2>/dev/null || true
  sql "CREATE TABLESPACE tiny LOCATION '$work/tiny'" && sql "ALTER TABLE sessions SET TABLESPACE tiny" &&
    sql "ALTER TABLE session_logs SET TABLESPACE tiny"
  head -c 3M /dev/zero >"$work/tiny/fill" 2>/dev/null || true
  round "disk full"
  rm -f "$work/tiny/fill"
  round "disk freed"
else
  echo "| disk full | not measured: this machine cannot mount a tmpfs | | |"
fi
stored=$(sql "SELECT count(*) FROM sessions")
distinct=$(sql "SELECT count(DISTINCT visitor) FROM sessions")
echo "stored: $stored uploads, $distinct distinct visitors (each answered 201 is stored once)"
