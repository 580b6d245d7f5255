#!/usr/bin/env bash
# `pelm-server --check`, what a service unit runs before it starts the server (ExecStartPre=): 0 and one line
# per part when a start would serve, 1 and one line naming the problem when not, 2 for a mistyped option;
# nothing made either way.
#   server_check.sh PELM_SERVER WORK_DIR
set -uo pipefail
server=$1 work=$2
data="$(cd "$(dirname "$0")/../.." && pwd)/data"
rm -rf "$work" && mkdir -p "$work" && cd "$work" || exit 1

# expect RC PATTERN ARGS...: the exit code, and a line of the output matching the pattern.
expect() {
  local want=$1 pattern=$2
  shift 2
  "$server" "$@" >out.txt 2>&1
  local rc=$?
  [ "$rc" -eq "$want" ] || { echo "pelm-server $* exited $rc, not $want:"; cat out.txt; exit 1; }
  grep -q -- "$pattern" out.txt || { echo "pelm-server $*: no line like '$pattern' in:"; cat out.txt; exit 1; }
}

expect 0 "^pelm-server: ready to serve$" --check --seed "$data/demo_seed.json" --db "$work/shop.db" \
  --access-log "$work/access.log"
grep -q "^pelm-server: seed: 1 app, 7 contents$" out.txt || { echo "the seed's line is missing:"; cat out.txt; exit 1; }
for made in shop.db access.log pelm-server-certificate; do
  [ ! -e "$made" ] || { echo "--check made $made"; exit 1; }
done

# A start makes the certificate; a second check finds it sound, then a key that is not its own.
"$server" --db "$work/shop.db" --port $((20000 + RANDOM % 20000)) >serve.txt 2>&1 &
pid=$!
for _ in $(seq 200); do grep -q listening serve.txt 2>/dev/null && break; sleep 0.05; done
kill -TERM "$pid" && wait "$pid"
# The second server in a folder of its own: cd before the server goes to the background, so that the wait
# below reads that server's output and not the first one's.
mkdir -p other
(
  cd other || exit 1
  "$server" --db "$work/other.db" --port $((20000 + RANDOM % 20000)) >serve.txt 2>&1 &
  p=$!
  for _ in $(seq 200); do grep -q listening serve.txt 2>/dev/null && break; sleep 0.05; done
  kill -TERM "$p" && wait "$p"
)
expect 0 "^pelm-server: certificate: throwaway, in " --check --db "$work/shop.db"
expect 1 "^pelm-server: the key .*other/pelm-server-certificate/key.pem is not the key of the certificate" --check \
  --db "$work/shop.db" --cert "$work/pelm-server-certificate/cert.pem" \
  --key "$work/other/pelm-server-certificate/key.pem"
[ "$(wc -l <out.txt)" -eq 3 ] || { echo "more than the parts read and the problem:"; cat out.txt; exit 1; }

echo '{"apps": []}' >empty-seed.json
expect 1 "^pelm-server: the seed has no \"apps\"$" --check --seed empty-seed.json --db "$work/shop.db"
echo "not json" >broken.db
expect 1 "^pelm-server: the database $work/broken.db cannot be used: .*not a database" --check --db "$work/broken.db"
expect 1 "^pelm-server: cannot make the database $work/none/shop.db: the folder $work/none is not writable$" \
  --check --db "$work/none/shop.db"
expect 2 "^pelm-server: unknown option --chek (--help lists them)$" --chek
expect 2 "^pelm-server: --access-log takes a file$" --check --access-log=
echo "server_check: every case as expected"
