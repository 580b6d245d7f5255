#!/usr/bin/env bash
# pelm replay's bounds, each against a baseline measured in the same run:
#   - a crowd: ADS advertisements (default 10 M) from ADDRESSES distinct senders (default 1 M), against the
#     same number from 100 senders: peak RSS and time;
#   - a recording whose times jump 200 years, against the same recording without the jump: time;
#   - the memory a replay takes whatever the recording, every sender an iBeacon (bench/bounded_recordings.awk),
#     against a minute of three beacons: 24 h of three beacons; 1 M passing phones heard as one iBeacon; 1 M
#     distinct beacons beside the app's three; a store of four rooms, FOUR_ROOM_ADS advertisements (default
#     43 M, a 6 GB file made and removed here).
#   bench/replay_bounds.sh [ADS] [ADDRESSES]
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
ads=${1:-10000000}
addresses=${2:-1000000}
command -v /usr/bin/time >/dev/null 2>&1 || [ -x /usr/bin/time ] ||
  { apt-get install -y -qq time >/dev/null || { apt-get update -qq && apt-get install -y -qq time >/dev/null; }; }
# shellcheck source=scripts/lib/show-build.sh
. "$root/scripts/lib/show-build.sh"
show_build "$root/build/release-build.log" "$root/scripts/build.sh" release
pelm="$root/build/release/tools/pelm/pelm"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# One iBeacon of three in every ten advertisements; the rest from phones whose data is no iBeacon.
ibeacon="0201061AFF4C000215F7826DA64FA24E988024BC5B71E0893E00010001C5"
trace() { # ADS SENDERS START_MS STEP_MS
  awk -v n="$1" -v senders="$2" -v t0="$3" -v step="$4" -v ib="$ibeacon" 'BEGIN {
    for (i = 0; i < n; i++) {
      t = t0 + i * step
      if (i % 10 == 0) printf "{\"t\":%.0f,\"address\":\"beacon-%d\",\"rssi\":-70,\"data\":\"%s\"}\n", t, i / 10 % 3, ib
      else printf "{\"t\":%.0f,\"address\":\"phone-%d\",\"rssi\":-80,\"data\":\"0201061AFF4C0010\"}\n", t, i % senders
    } }'
}
# measure FILE [ARGS...]: "seconds peak-KiB"
measure() {
  /usr/bin/time -f "%e %M" -o "$work/time.txt" "$pelm" replay "$@" >/dev/null 2>&1
  cat "$work/time.txt"
}
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", (b > 0 ? a / b : 0) }'; }

echo "Generating $ads advertisements from $addresses senders, and from 100 ..."
trace "$ads" "$addresses" 1680000000000 1 >"$work/crowd.jsonl"
trace "$ads" 100 1680000000000 1 >"$work/few.jsonl"
read -r crowd_s crowd_kb < <(measure "$work/crowd.jsonl")
rm "$work/crowd.jsonl"
read -r few_s few_kb < <(measure "$work/few.jsonl")
rm "$work/few.jsonl"
printf '%-44s %8s s %9s KiB peak\n' "$ads ads from $addresses senders" "$crowd_s" "$crowd_kb"
printf '%-44s %8s s %9s KiB peak\n' "$ads ads from 100 senders (baseline)" "$few_s" "$few_kb"
echo "  ratio: time $(ratio "$crowd_s" "$few_s"), memory $(ratio "$crowd_kb" "$few_kb")"

echo
echo "Memory of a replay whatever the recording, with --report and without (the bound: 64 MiB):"
awk -v kind=minute -f "$root/bench/bounded_recordings.awk" >"$work/minute.jsonl"
read -r minute_s minute_kb < <(measure "$work/minute.jsonl")
printf '%-48s %8s s %9s KiB peak\n' "a minute of three beacons (baseline)" "$minute_s" "$minute_kb"
rooms=${FOUR_ROOM_ADS:-43000000}
for case in "day 0 24 h of three beacons" "phones 1000000 1 M passing phones as one iBeacon" \
  "beacons 1000000 1 M distinct beacons beside the app's three" \
  "rooms $rooms a store of four rooms, $((rooms / 1000000)) M advertisements"; do
  read -r kind count label <<<"$case"
  awk -v kind="$kind" -v n="$count" -f "$root/bench/bounded_recordings.awk" >"$work/$kind.jsonl"
  read -r seconds kb < <(measure "$work/$kind.jsonl")
  read -r report_s report_kb < <(measure "$work/$kind.jsonl" --report "$work/report.html")
  rm "$work/$kind.jsonl"
  printf '%-48s %8s s %9s KiB peak, %s MiB; ratio to the minute %s\n' "$label" "$seconds" "$kb" \
    "$((kb / 1024))" "$(ratio "$kb" "$minute_kb")"
  printf '%-48s %8s s %9s KiB peak, %s MiB; a page of %s KiB\n' "  the same with --report" "$report_s" \
    "$report_kb" "$((report_kb / 1024))" "$(($(stat -c %s "$work/report.html") / 1024))"
done

# 100 000 advertisements over 10 000 s, then one 200 years later; the baseline ends before the jump.
trace 100000 50 1680000000000 100 >"$work/steady.jsonl"
cp "$work/steady.jsonl" "$work/gap.jsonl"
trace 1 1 $((1680000000000 + 200 * 365 * 86400 * 1000)) 1 >>"$work/gap.jsonl"
read -r gap_s gap_kb < <(measure "$work/gap.jsonl")
read -r steady_s steady_kb < <(measure "$work/steady.jsonl")
printf '%-44s %8s s %9s KiB peak\n' "a 200-year gap after 100 000 ads" "$gap_s" "$gap_kb"
printf '%-44s %8s s %9s KiB peak\n' "the same 100 000 ads (baseline)" "$steady_s" "$steady_kb"
echo "  ratio: time $(ratio "$gap_s" "$steady_s")"
