#!/usr/bin/env bash
# Builds one example against an installed pelm and runs it against that install's `pelm serve`, as an app
# developer would: run_example.sh BUILD_DIR SOURCE_DIR WORK_DIR NAME [ARGS after host, token and CA...]
# With INTERRUPT=1 it presses Ctrl-C once the first content has arrived, and checks that the visit in progress
# was uploaded at stop.
set -euo pipefail
build=$1 source=$2 work=$3 name=$4
shift 4
rm -rf "$work"
mkdir -p "$work/home"
# Installs write a manifest into the build tree, so they take turns.
flock "$build/install.lock" cmake --install "$build" --prefix "$work/prefix" >/dev/null

started=$(date +%s%N)
cmake -S "$source/examples/$name" -B "$work/$name" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/$name" >/dev/null
echo "$name built from the installed tree in $(( ($(date +%s%N) - started) / 1000000 )) ms"

# The example's settings and the server's files stay in the scratch folder.
export HOME="$work/home" XDG_CONFIG_HOME="$work/home/.config"
cd "$work"
for attempt in 1 2 3 4 5; do
  port=$((20000 + RANDOM % 30000))
  "$work/prefix/bin/pelm" serve --port "$port" --db "$work/server.db" >"$work/server.log" 2>&1 &
  server=$!
  for _ in $(seq 100); do grep -q "Ctrl-C" "$work/server.log" 2>/dev/null && break; kill -0 "$server" 2>/dev/null || break; sleep 0.1; done
  grep -q "Ctrl-C" "$work/server.log" && break
  wait "$server" 2>/dev/null || true
done
trap 'kill "$server" 2>/dev/null; wait "$server" 2>/dev/null || true' EXIT
ca=$(sed -n 's/.*trust it with --ca //p' "$work/server.log")
[ -n "$ca" ] || { cat "$work/server.log"; echo "pelm serve did not start"; exit 1; }

if [ "${INTERRUPT:-0}" != 1 ]; then
  timeout 300 "$work/$name/$name" "localhost:$port" demo-token "$ca" "$@"
  exit
fi
timeout 300 "$work/$name/$name" "localhost:$port" demo-token "$ca" "$@" >"$work/host.log" 2>&1 &
host=$!
for _ in $(seq 600); do grep -q "^content" "$work/host.log" && break; sleep 0.1; done
grep -q "^content" "$work/host.log" || { cat "$work/host.log"; echo "no content to interrupt after"; exit 1; }
pressed=$(date +%s%N)
kill -INT "$host"
status=0
wait "$host" || status=$?
cat "$work/host.log"
echo "Ctrl-C to exit: $(( ($(date +%s%N) - pressed) / 1000000 )) ms"
[ "$status" -eq 0 ] || { echo "$name exited $status after Ctrl-C"; exit 1; }
grep -q "visit uploaded at stop" "$work/host.log" || { echo "the visit in progress was not uploaded at stop"; exit 1; }
"$work/prefix/bin/pelm-server" sessions --db "$work/server.db" | grep -q '"session_logs"' ||
  { echo "the server stored no visit"; exit 1; }
