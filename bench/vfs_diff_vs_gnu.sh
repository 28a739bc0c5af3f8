#!/usr/bin/env bash
# fsvctl:diff of two versions through the real kx, next to GNU diff on the same two
# files, as whole processes: 10,000 lines with 1% of them changed, one changed block of
# 100 lines, and two 10 MB versions with changes spread through them. Then the time a
# resident takes to answer fsstat:exists while it runs the 10 MB diff for another
# caller.
# Usage: bench/vfs_diff_vs_gnu.sh <path to kx> [runs]
set -eu
KX=$(realpath "${1:?usage: $0 <path to kx> [runs]}")
RUNS=${2:-5}
. "$(dirname "$0")/lib.sh"
CONF=$WORK/home
TREE=$WORK/tree
mkdir -p "$TREE"

# <lines> <seed> <changed one in N> <block start> <block length> -> stdout
make_text() {
  awk -v n="$1" -v seed="$2" -v every="$3" -v bstart="$4" -v blen="$5" 'BEGIN {
    srand(1);
    for (i = 1; i <= n; i++) {
      line = sprintf("line %d: %08d %08d the quick brown fox jumps over the lazy dog", i, int(rand() * 1e8), int(rand() * 1e8));
      changed = (every > 0 && i % every == seed % every) || (i >= bstart && i < bstart + blen);
      if (changed) line = line " (edited " seed ")";
      print line;
    }
  }'
}

kx_local() { (cd "$TREE" && KESTRUNE_LOCAL=1 "$KX" --conf "$CONF" "$@" 2>/dev/null); }
kx_resident() { (cd "$TREE" && "$KX" --port "$PORT" --conf "$CONF" "$@" 2>/dev/null); }

# Best and median wall time in ms of RUNS runs of a command.
timed() {
  local times=() t0 t1
  for ((r = 0; r < RUNS; r++)); do
    t0=$(date +%s%N)
    "$@" >/dev/null 2>&1 || true
    t1=$(date +%s%N)
    times+=($(((t1 - t0) / 1000)))
  done
  printf '%s\n' "${times[@]}" | sort -n | awk '{ v[NR] = $1 } END { printf "best %8.1f ms   median %8.1f ms", v[1] / 1000, v[int((NR + 1) / 2)] / 1000 }'
}

# Saves <file a> then <file b> as two versions of tree/<name>.
two_versions() {
  cp "$2" "$TREE/$1"
  kx_local fsstat:version "$1" >/dev/null  # the watcher's catch-up versions it
  cp "$3" "$TREE/$1"
  kx_local fsstat:version "$1" >/dev/null
}

make_text 10000 0 0 0 0 >"$WORK/base.txt"
make_text 10000 7 100 0 0 >"$WORK/scattered.txt"
make_text 10000 0 0 5000 100 >"$WORK/block.txt"
make_text 150000 0 0 0 0 >"$WORK/big_a.txt"
make_text 150000 3 50 0 0 >"$WORK/big_b.txt"

diff_line() { echo "fsvctl:diff <path>$1</path><a>1</a><b>2</b>"; }
start_resident() {
  "$KX" --port "$PORT" --conf "$CONF" serve >/dev/null 2>&1 &
  RESIDENT=$!
  for _ in $(seq 100); do curl -s "http://127.0.0.1:$PORT/health" >/dev/null && break; sleep 0.1; done
}
stop_resident() {
  kill -TERM "$RESIDENT" 2>/dev/null && wait "$RESIDENT" 2>/dev/null
  RESIDENT=
}
measure() { # <name>
  local name=$1 size lines a b what
  size=$(stat -c %s "$TREE/$name.txt")
  lines=$(wc -l <"$TREE/$name.txt")
  case $name in
    scattered) a=$WORK/base.txt b=$WORK/scattered.txt what="1% of the lines changed" ;;
    block) a=$WORK/base.txt b=$WORK/block.txt what="one block of 100 lines changed" ;;
    big) a=$WORK/big_a.txt b=$WORK/big_b.txt what="2% of the lines changed, spread" ;;
  esac
  echo "== $name: $lines lines, $((size / 1024)) KiB per version, $what"
  printf '   %-36s %s\n' "GNU diff" "$(timed diff "$a" "$b")"
  printf '   %-36s %s\n' "kx fsvctl:diff, local process" "$(timed kx_local "$(diff_line $name.txt)")"
  printf '   %-36s %s\n' "kx fsvctl:diff, through the resident" "$(timed kx_resident "$(diff_line $name.txt)")"
  printf '   %-36s %s\n' "kx fsstat:exists, local (start-up)" "$(timed kx_local fsstat:exists $name.txt)"
  printf '   %-36s %s\n' "kx fsstat:exists, through the resident" "$(timed kx_resident fsstat:exists $name.txt)"
  kx_local "$(diff_line $name.txt)" | head -3 | tail -2 | sed 's/^/   /'
}

# The 10,000-line pairs in a tree of their own: a local process loads every store at
# start, so the 10 MB pair would weigh on their start-up.
kx_local Kestrune EnrollVersionControl "$TREE" >/dev/null
two_versions scattered.txt "$WORK/base.txt" "$WORK/scattered.txt"
two_versions block.txt "$WORK/base.txt" "$WORK/block.txt"
start_resident
measure scattered
measure block
stop_resident

kx_local unenroll "$TREE" >/dev/null
TREE=$WORK/big_tree
mkdir -p "$TREE"
kx_local Kestrune EnrollVersionControl "$TREE" >/dev/null
two_versions big.txt "$WORK/big_a.txt" "$WORK/big_b.txt"
start_resident
measure big

echo "== fsstat:exists sent while the resident runs the 10 MB diff for another caller"
kx_resident "$(diff_line big.txt)" >/dev/null &
differ=$!
sleep 0.05
lat=()
while kill -0 "$differ" 2>/dev/null; do
  t0=$(date +%s%N)
  kx_resident fsstat:exists big.txt >/dev/null
  t1=$(date +%s%N)
  lat+=($(((t1 - t0) / 1000)))
done
wait "$differ" || true
printf '%s\n' "${lat[@]}" | sort -n | awk '{ v[NR] = $1 } END { if (NR == 0) print "   (the diff ended before a probe was sent)"; else printf "   %d probes: median %.1f ms, worst %.1f ms\n", NR, v[int((NR + 1) / 2)] / 1000, v[NR] / 1000 }'
