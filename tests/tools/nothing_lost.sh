#!/usr/bin/env bash
# What the tool never destroys: an input named as an output, an earlier file when a run fails or is
# interrupted, the events an interrupted run printed; and what it never leaves behind: temporary folders.
#   nothing_lost.sh PELM SOURCE_DIR WORK_DIR
set -uo pipefail
pelm=$1 source=$2 work=$3
rm -rf "$work" && mkdir -p "$work"
fail() { echo "$*"; exit 1; }

# expect RC PATTERN COMMAND...: the exit code and a line of stderr matching the pattern.
expect() {
  local want=$1 pattern=$2
  shift 2
  "$@" >"$work/out.txt" 2>"$work/err.txt"
  local rc=$?
  [ "$rc" -eq "$want" ] || { echo "$* exited $rc, not $want"; cat "$work/err.txt"; exit 1; }
  grep -q -- "$pattern" "$work/err.txt" || { echo "$*: no line like '$pattern' in:"; cat "$work/err.txt"; exit 1; }
}

# An output that names an input, or the other output, is refused before anything is written.
cp "$source/tests/data/recordings/mall-walk.jsonl" "$work/walk.jsonl"
cp "$source/data/demo_scenario.json" "$work/store.json"
cp "$work/walk.jsonl" "$work/walk.orig"
cp "$work/store.json" "$work/store.orig"
expect 2 "--events $work/walk.jsonl is the input" "$pelm" replay "$work/walk.jsonl" --events "$work/walk.jsonl"
expect 2 "--report ./walk.jsonl is the input" bash -c "cd '$work' && '$pelm' replay walk.jsonl --report ./walk.jsonl"
expect 2 "--events $work/store.json is the input" "$pelm" simulate "$work/store.json" --events "$work/store.json"
expect 2 "--report $work/new.out is the file --events writes" \
  "$pelm" simulate --events "$work/new.out" --report "$work/new.out"
cmp -s "$work/walk.jsonl" "$work/walk.orig" || fail "a refused replay changed its recording"
cmp -s "$work/store.json" "$work/store.orig" || fail "a refused simulate changed its scenario"
[ ! -e "$work/new.out" ] || fail "a refused run made its output"

# A recording that cannot be made leaves the file it would have replaced byte for byte.
printf 'an earlier recording\n' >"$work/rec.jsonl"
if ! "$pelm" record "$work/rec.jsonl" --seconds 1 >/dev/null 2>&1; then
  [ "$(cat "$work/rec.jsonl")" = "an earlier recording" ] || fail "a failed record changed the file"
  [ ! -e "$work/rec.jsonl.partial" ] || fail "a failed record left its partial file"
fi

# Ctrl-C (or SIGTERM) in a real-time run: every event printed is in the events file, an earlier report stays
# whole, the embedded server's temporary folder is gone, and the exit code says which signal ended it.
for signal in INT TERM; do
  printf 'an earlier report\n' >"$work/visit.html"
  "$pelm" simulate --speed 40 --events "$work/events.jsonl" --report "$work/visit.html" >"$work/run.txt" 2>&1 &
  run=$!
  for _ in $(seq 400); do [ "$(grep -c '^  \[' "$work/run.txt")" -ge 12 ] && break; sleep 0.05; done
  kill -"$signal" "$run"
  for _ in $(seq 400); do kill -0 "$run" 2>/dev/null || break; sleep 0.05; done
  if kill -0 "$run" 2>/dev/null; then kill -KILL "$run"; fail "simulate ignored SIG$signal"; fi
  wait "$run"
  rc=$?
  want=$((128 + $(kill -l "$signal")))
  [ "$rc" -eq "$want" ] || fail "simulate exited $rc on SIG$signal, not $want"
  grep -q "pelm simulate: interrupted; the events so far are in $work/events.jsonl" "$work/run.txt" ||
    fail "no word of the interruption: $(tail -3 "$work/run.txt")"
  # Each content and status line shown is one line of the events file.
  shown=$(grep -cE '^  \[[0-9:.]+\] (CONTENT|status) ' "$work/run.txt")
  kept=$(grep -cE '"kind":"(content|status)"' "$work/events.jsonl")
  [ "$shown" -ge 12 ] && [ "$kept" -eq "$shown" ] || fail "SIG$signal: $shown events shown, $kept kept"
  [ "$(cat "$work/visit.html")" = "an earlier report" ] || fail "an interrupted run replaced the report"
  [ ! -e "$work/events.jsonl.partial" ] && [ ! -e "$work/visit.html.partial" ] || fail "partial files left"
  [ ! -e "${TMPDIR:-/tmp}/pelm-visit-$run" ] || fail "SIG$signal left ${TMPDIR:-/tmp}/pelm-visit-$run"
done
# An output that is not a regular file is written into, never replaced: a FIFO stays a FIFO and its reader
# gets every line; one nobody reads is refused at once; "-" is standard output, with only the data on it.
mkfifo "$work/events.fifo"
cat "$work/events.fifo" >"$work/from-fifo.jsonl" &
reader=$!
"$pelm" replay "$work/walk.jsonl" --events "$work/events.fifo" >/dev/null 2>&1 || fail "replay into a FIFO failed"
wait "$reader"
[ -p "$work/events.fifo" ] || fail "--events replaced the FIFO it was given"
[ "$(grep -c '"kind"' "$work/from-fifo.jsonl")" -gt 100 ] || fail "the FIFO's reader got no events"
expect 1 "cannot write $work/events.fifo: no process reads from it" \
  timeout 10 "$pelm" replay "$work/walk.jsonl" --events "$work/events.fifo"
"$pelm" replay "$work/walk.jsonl" --events - >"$work/stdout.jsonl" 2>"$work/stderr.txt" || fail "--events - failed"
grep -qv '^{' "$work/stdout.jsonl" && fail "--events - mixed other lines into the events: $(grep -v '^{' "$work/stdout.jsonl" | head -1)"
cmp -s "$work/stdout.jsonl" "$work/from-fifo.jsonl" || fail "--events - and the FIFO got different events"
grep -q "What the host app sees" "$work/stderr.txt" || fail "with --events -, the run's lines were lost"

# Ctrl-C on a replay at real speed is taken at once, even in the middle of a long silence of the recording:
# the run ends with 130 well within a second, and the events so far are in place.
{
  head -n 40 "$work/walk.jsonl"
  last=$(sed -n 40p "$work/walk.jsonl" | sed 's/.*"t":\([0-9]*\).*/\1/')
  sed -n 41p "$work/walk.jsonl" | sed "s/\"t\":[0-9]*/\"t\":$((last + 3600000))/"
} >"$work/sparse.jsonl"
"$pelm" replay "$work/sparse.jsonl" --speed 1 --events "$work/sparse-events.jsonl" >"$work/run.txt" 2>&1 &
run=$!
for _ in $(seq 600); do grep -q '^  \[' "$work/run.txt" && break; sleep 0.05; done
sleep 2  # into the hour of silence
kill -INT "$run"
for _ in $(seq 20); do kill -0 "$run" 2>/dev/null || break; sleep 0.05; done
if kill -0 "$run" 2>/dev/null; then kill -KILL "$run"; fail "replay --speed 1 was still running a second after Ctrl-C"; fi
wait "$run"
rc=$?
[ "$rc" -eq 130 ] || fail "replay exited $rc on Ctrl-C, not 130"
[ "$(grep -c '"kind"' "$work/sparse-events.jsonl")" -gt 0 ] || fail "the interrupted replay kept no events"

echo "nothing the tool was given or had written was lost"
