#!/usr/bin/env bash
# The change watcher's figures with a resident watching an enrolled tree:
#  - latency from an outside write to its version being in the edit log (median and
#    p99 over EDITS edits, the 150 ms settle time included);
#  - the resident's CPU time and memory while it watches a FILES-file tree and
#    nothing changes, over IDLE seconds.
# Usage: bench/vfs_watch_figures.sh <path to kx> [edits (200)] [files (20000)] [idle s (60)]
set -eu
KX=$(realpath "${1:?usage: $0 <path to kx> [edits] [files] [idle seconds]}")
EDITS=${2:-200}
FILES=${3:-20000}
IDLE=${4:-60}
. "$(dirname "$0")/lib.sh"
CONF=$WORK/home
TREE=$WORK/tree
mkdir -p "$TREE"

# FILES small files in directories of 100.
for ((d = 0; d < FILES / 100; d++)); do
  mkdir -p "$TREE/d$d"
  for ((f = 0; f < 100; f++)); do printf 'file %d of %d\n' "$f" "$d" >"$TREE/d$d/f$f.txt"; done
done
printf 'start\n' >"$TREE/edited.txt"
(cd "$TREE" && KESTRUNE_LOCAL=1 "$KX" --conf "$CONF" Kestrune EnrollVersionControl "$TREE" max=0 >/dev/null 2>&1)
LOG=$(ls -d "$CONF"/.versioncontrol/*)/.oldversions/edits.jsonl
mkdir -p "$(dirname "$LOG")"
touch "$LOG"

"$KX" --port "$PORT" --conf "$CONF" serve >/dev/null 2>&1 &
RESIDENT=$!
for _ in $(seq 300); do curl -s "http://127.0.0.1:$PORT/health" >/dev/null && break; sleep 0.1; done
sleep 2

echo "== latency: outside write -> version in the edit log ($EDITS edits, $FILES files watched)"
lat=()
for ((i = 0; i < EDITS; i++)); do
  before=$(wc -l <"$LOG")
  t0=$(date +%s%N)
  printf 'edit %d\n' "$i" >>"$TREE/edited.txt"
  while [ "$(wc -l <"$LOG")" -le "$before" ]; do
    if (($(date +%s%N) - t0 > 5000000000)); then echo "   edit $i: no version after 5 s"; break; fi
  done
  t1=$(date +%s%N)
  lat+=($(((t1 - t0) / 1000)))
  sleep 0.05
done
printf '%s\n' "${lat[@]}" | sort -n | awk '{ v[NR] = $1 } END {
  printf "   median %.1f ms   p99 %.1f ms   worst %.1f ms   (goal: under 400 ms)\n",
    v[int((NR + 1) / 2)] / 1000, v[int(NR * 0.99 + 0.5)] / 1000, v[NR] / 1000 }'

echo "== idle: $FILES files watched, nothing changes, ${IDLE} s"
ticks() { awk '{ print $14 + $15 }' "/proc/$RESIDENT/stat"; }
hz=$(getconf CLK_TCK)
sleep 2
c0=$(ticks)
sleep "$IDLE"
c1=$(ticks)
rss=$(awk '/VmRSS/ { print $2 }' "/proc/$RESIDENT/status")
watches=$(cat /proc/$RESIDENT/fdinfo/* 2>/dev/null | grep -c '^inotify' || true)
awk -v c=$((c1 - c0)) -v hz="$hz" -v s="$IDLE" -v rss="$rss" -v w="$watches" 'BEGIN {
  printf "   CPU %.3f s over %d s (%.3f s per minute)   resident memory %.1f MiB   inotify watches %d\n",
    c / hz, s, c / hz * 60 / s, rss / 1024, w }'
