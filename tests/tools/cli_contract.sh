#!/usr/bin/env bash
# What a person typing `pelm` can count on: usage errors exit 2 with one line naming the problem, each command
# explains itself with --help, nothing is stored from a refused command, `pelm status` tells by its exit code
# whether the server can be reached, and `--watch` ends on SIGINT or SIGTERM with 0:
#   cli_contract.sh PELM WORK_DIR
set -uo pipefail
pelm=$1 work=$2
data="$(cd "$(dirname "$0")/../data" && pwd)"
rm -rf "$work" && mkdir -p "$work"
cfg=(--config-dir "$work/settings" --app shop)

# expect RC PATTERN COMMAND...: the exit code and a line of stderr matching the pattern.
expect() {
  local want=$1 pattern=$2
  shift 2
  "$@" >"$work/out.txt" 2>"$work/err.txt"
  local rc=$?
  [ "$rc" -eq "$want" ] || { echo "$* exited $rc, not $want"; cat "$work/err.txt"; exit 1; }
  grep -q -- "$pattern" "$work/err.txt" || { echo "$*: no line like '$pattern' in:"; cat "$work/err.txt"; exit 1; }
}
expect 2 "pelm status: unknown option --wacth" "$pelm" status --wacth
# A mistake gets one line that names it: what is missing, which option, why a file cannot be played, and a
# text pasted where a word belongs is cut, not echoed whole.
expect 2 "^pelm replay: usage: pelm replay FILE (pelm replay --help shows the options)$" "$pelm" replay
expect 2 "^pelm simulate: --speed takes a number above 0$" "$pelm" simulate --speed -1
expect 1 "missing.jsonl: cannot be read: No such file or directory" "$pelm" replay "$work/missing.jsonl"
expect 1 ": is a folder, not a recording" "$pelm" replay "$work"
expect 2 "... (120000 characters)" "$pelm" "$(head -c 120000 /dev/zero | tr '\0' x)"
[ "$(wc -c <"$work/err.txt")" -lt 1000 ] || { echo "a usage error echoed a long argument whole"; exit 1; }
[ "$("$pelm" record --help | grep -c -- "--ca")" = 0 ] || { echo "record --help offers --ca"; exit 1; }
expect 2 "pelm status: option --host needs a value" "$pelm" status --host
expect 2 "it holds a scheme; give the host alone" "$pelm" setup --token t --host https://shop.example/api "${cfg[@]}"
[ ! -e "$work/settings" ] || { echo "a refused setup stored something"; exit 1; }
# Every command that takes --host refuses a URL the same way, before any work.
for command in "simulate --token t" "status --app shop" "replay $work/none.jsonl --token t"; do
  # shellcheck disable=SC2086
  expect 2 "^pelm ${command%% *}: --host https://shop.example: it holds a scheme; give the host alone" \
    "$pelm" $command --host https://shop.example
done
expect 2 "^pelm setup: --token is not UTF-8 text; nothing was stored$" \
  "$pelm" setup --token "$(printf 'a\377')" --host localhost:8443 "${cfg[@]}"
[ ! -e "$work/settings" ] || { echo "a refused setup stored something"; exit 1; }
expect 2 "^pelm simulate: takes one scenario, not 2 " "$pelm" simulate a.json b.json
expect 2 "^pelm call: content 99999999999999999999: ID takes a whole number" \
  "$pelm" call content 99999999999999999999 "${cfg[@]}"
# A report that cannot be made is refused before the run, also where permissions do not tell.
expect 1 "^pelm replay: cannot write /proc/visit.html$" "$pelm" replay "$data/recordings/rooms-one-beacon.jsonl" \
  --report /proc/visit.html
expect 2 "not-a-uuid is not a UUID" "$pelm" call content-by-hardware not-a-uuid 1 2 "${cfg[@]}"
expect 2 "MINOR takes a whole number from 0 to 65535" \
  "$pelm" call content-by-hardware F7826DA6-4FA2-4E98-8024-BC5B71E0893E 1 65536 "${cfg[@]}"
expect 2 "speed" "$pelm" simulate --speed 0
expect 2 "pelm serve: --name shop lan: not a host name or an IP address" "$pelm" serve --name "shop.lan,shop lan"
"$pelm" replay --help | grep -c -- "--scanner NAME" >/dev/null || { echo "replay --help shows no options"; exit 1; }

"$pelm" status --host nothing.invalid --config-dir "$work" >/dev/null
rc=$?
[ "$rc" -eq 3 ] || { echo "status of an unresolvable host exited $rc, not 3"; exit 1; }

# Nearby devices: the terminal shows changes by default, every report with all, none with none; a device
# flickering at the edge of range is no change.
count() { "$pelm" simulate "$@" 2>/dev/null | grep -c '] nearby ' ; }
all=$(count --nearby all) changes=$(count) none=$(count --nearby none)
[ "$none" -eq 0 ] && [ "$changes" -gt 0 ] && [ $((changes * 2)) -lt "$all" ] ||
  { echo "nearby lines: all $all, changes $changes, none $none"; exit 1; }
# The stored visit: a table of beacon, entrance and exit, or the record itself with --json.
"$pelm" simulate >"$work/out.txt" 2>/dev/null && grep -Eq '^    1/20 +[0-9:]{8} +[0-9:]{8}$' "$work/out.txt" ||
  { echo "simulate shows no table line for beacon 1/20"; tail -8 "$work/out.txt"; exit 1; }
"$pelm" simulate --json 2>/dev/null | grep -c '"session_logs"' >/dev/null || { echo "simulate --json shows no record"; exit 1; }
progress=$("$pelm" simulate --speed 2000 2>/dev/null | grep -c ' \.\.\. ')
[ "$progress" -eq 0 ] || { echo "a progress line went into a pipe"; exit 1; }
expect 2 "pelm simulate: --nearby takes all, changes or none" "$pelm" simulate --nearby some

for signal in INT TERM; do
  rm -f "$work/watch.txt"
  "$pelm" status --host localhost:1 --watch --config-dir "$work" >"$work/watch.txt" &
  watcher=$!
  # Signalled once it is watching (its first line printed), so the signal meets the watch, not the start-up.
  for _ in $(seq 200); do [ -s "$work/watch.txt" ] && break; sleep 0.05; done
  kill -"$signal" "$watcher"
  # A hang guard only: a watcher still running after 20 s ignored the signal, and fails the test.
  for _ in $(seq 400); do kill -0 "$watcher" 2>/dev/null || break; sleep 0.05; done
  if kill -0 "$watcher" 2>/dev/null; then kill -KILL "$watcher"; echo "status --watch ignored SIG$signal"; exit 1; fi
  wait "$watcher"
  rc=$?
  [ "$rc" -eq 0 ] || { echo "status --watch exited $rc on SIG$signal"; exit 1; }
done
# Against a server of its own: a refused token is named as such, and the CA given to setup is remembered
# for the app in the tool's own file, so a later call needs no --ca.
port=$((20000 + RANDOM % 20000))
mkdir -p "$work/server"
(cd "$work/server" && exec "$pelm" serve --port "$port") >"$work/server.txt" 2>&1 &
server=$!
trap 'kill $server 2>/dev/null' EXIT
for _ in $(seq 200); do grep -q "Ctrl-C stops it" "$work/server.txt" && break; sleep 0.05; done
ca="$work/server/pelm-server-certificate/ca.pem"
# A start that fails takes away what it made: no database or certificate folder is left by a typo.
mkdir -p "$work/failed-start"
printf '{"apps": 1}' >"$work/failed-start/seed.json"
for words in "--port $port" "--port 0 --seed seed.json"; do
  # shellcheck disable=SC2086
  (cd "$work/failed-start" && exec "$pelm" serve $words) >/dev/null 2>"$work/err.txt" &&
    { echo "pelm serve $words started"; exit 1; }
  left=$(ls "$work/failed-start" | grep -v '^seed.json$')
  [ -z "$left" ] || { echo "pelm serve $words failed and left $left"; exit 1; }
done
shop=(--config-dir "$work/shop" --app shop)
expect 1 "^pelm setup: the CA file /etc/hostname holds no PEM certificate$" \
  "$pelm" setup --token demo-token --host "localhost:$port" --ca /etc/hostname --config-dir "$work/no-pem" --app shop
expect 1 "give the CA that signed it with --ca FILE" \
  "$pelm" setup --token demo-token --host "localhost:$port" --config-dir "$work/no-ca" --app shop
expect 1 "pelm setup: could not fetch the configuration: the server localhost:$port does not know this app token (HTTP 401); check the token" \
  "$pelm" setup --token wrong --host "localhost:$port" --ca "$ca" "${shop[@]}"
"$pelm" setup --token demo-token --host "localhost:$port" "${shop[@]}" >/dev/null 2>&1 ||
  { echo "setup without --ca did not use the remembered CA"; exit 1; }
"$pelm" call app-config "${shop[@]}" 2>/dev/null | grep -c '"successful": true' >/dev/null ||
  { echo "call without --ca did not use the remembered CA"; exit 1; }
grep -q ca_file "$work/shop/shop.json" && { echo "the CA landed among the library's settings"; exit 1; }
# Settings that cannot be stored (here a folder stands where the file should be) are no success.
mkdir -p "$work/broken/shop.json"
expect 1 "pelm setup: the settings could not be stored" \
  "$pelm" setup --token demo-token --host "localhost:$port" --ca "$ca" --config-dir "$work/broken" --app shop
# status names what it checked: a route to the host, not a server answering there. Read whole first: a
# `grep -q` in the pipe would close it at the first match and fail the pipe with the tool's SIGPIPE.
said=$("$pelm" status --host "localhost:1" --config-dir "$work")
grep -q "^route to localhost:1 " <<<"$said" || { echo "status does not say it checked a route: $said"; exit 1; }
[ "$(grep -c "^bluetooth " <<<"$said")" = 1 ] || { echo "status tells Bluetooth more than once: $said"; exit 1; }
# A run ended by a signal says which by its exit code, 128 plus the signal's number, as a shell's own would.
"$pelm" simulate --speed 40 >"$work/run.txt" 2>&1 &
run=$!
for _ in $(seq 400); do grep -q '^  \[' "$work/run.txt" && break; sleep 0.05; done
kill -TERM "$run"
wait "$run"
rc=$?
[ "$rc" -eq 143 ] || { echo "simulate exited $rc on SIGTERM, not 143"; tail -3 "$work/run.txt"; exit 1; }
echo "the tool keeps its contract"
