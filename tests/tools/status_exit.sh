#!/usr/bin/env bash
# `pelm status` tells by its exit code whether the server can be reached, and `--watch` ends on SIGINT or
# SIGTERM with 0: status_exit.sh PELM WORK_DIR
set -uo pipefail
pelm=$1 work=$2
rm -rf "$work" && mkdir -p "$work"

"$pelm" status --host nothing.invalid --config-dir "$work" >/dev/null
rc=$?
[ "$rc" -eq 3 ] || { echo "status of an unresolvable host exited $rc, not 3"; exit 1; }

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
echo "status exit codes and --watch stop: ok"
