#!/usr/bin/env bash
# Enrollment ingest and start-up load of a synthetic tree, next to git on the same
# tree. Prints files/s and MB/s for `kx enroll` and for `git add -A && git commit -q`,
# then the time a fresh kx process takes to re-enroll (load) the enrolled tree.
# Usage: vfs_enroll_bench.sh [path to kx] [files (20000)] [MiB (200)] [work dir]
# Figures of local runs: never forward to (or spawn) a resident.
export KESTRUNE_LOCAL=1
set -eu
KX=$(realpath "${1:-$(dirname "$0")/../build/bench/src/launcher/kx}")
FILES=${2:-20000}
MIB=${3:-200}
WORK=$(mktemp -d "${4:-/tmp}/kx_enroll_bench.XXXXXX")
trap 'rm -rf "$WORK"' EXIT
TREE=$WORK/tree
DIRS=$((FILES / 100))
PER_DIR_BYTES=$((MIB * 1024 * 1024 / DIRS))

now() { date +%s.%N; }
rate() { awk -v n="$1" -v t="$2" 'BEGIN { printf "%.0f", n / t }'; }
secs() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }

echo "building $FILES files / $MIB MiB in $DIRS directories under $TREE ..."
for ((d = 0; d < DIRS; d++)); do
  mkdir -p "$TREE/dir$d"
  # Text-like content: base64 of random bytes, cut into 100 files.
  head -c $((PER_DIR_BYTES * 3 / 4)) /dev/urandom | base64 -w 100 >"$WORK/chunk"
  split -n 100 -d -a 3 --additional-suffix=.txt "$WORK/chunk" "$TREE/dir$d/f"
done
rm -f "$WORK/chunk"
count=$(find "$TREE" -type f | wc -l)
bytes=$(du -sb "$TREE" | cut -f1)
mb=$(awk -v b="$bytes" 'BEGIN { printf "%.1f", b / 1048576 }')
sync

t0=$(now)
/usr/bin/time -f "%U %S" -o "$WORK/enroll.cpu" "$KX" --conf "$WORK/home" enroll "$TREE" \
  >"$WORK/enroll.out" 2>/dev/null
t1=$(now)
head -1 "$WORK/enroll.out"
kx_s=$(secs "$t0" "$t1")

t0=$(now)
export GIT_DIR=$WORK/git.git GIT_WORK_TREE=$TREE
git init -q
git -c user.name=bench -c user.email=bench@example.invalid add -A
git -c user.name=bench -c user.email=bench@example.invalid commit -q -m bench
t1=$(now)
unset GIT_DIR GIT_WORK_TREE
git_s=$(secs "$t0" "$t1")

echo "ingest of $count files, $mb MiB:"
echo "  kx enroll                     ${kx_s} s   $(rate "$count" "$kx_s") files/s   $(rate "$mb" "$kx_s") MiB/s"
echo "    (kx cpu: $(awk '{ printf "%.2f s user + %.2f s system", $1, $2 }' "$WORK/enroll.cpu"))"
echo "  git add -A && git commit -q   ${git_s} s   $(rate "$count" "$git_s") files/s   $(rate "$mb" "$git_s") MiB/s"

# Start-up: every kx process re-enrolls (loads) the listed trees before it runs its line.
# CPU time (user + system) is printed beside the wall time: on a shared machine the wall
# time mostly measures the other processes.
mkdir -p "$WORK/empty"
echo "start-up of a fresh kx process (3 runs, wall / cpu seconds):"
for run in 1 2 3; do
  /usr/bin/time -f "  with the enrolled tree        %e / %U+%S" \
    "$KX" --conf "$WORK/home" fsstat:version dir0/f000.txt 2>&1 >/dev/null | tail -1
done
/usr/bin/time -f "  with nothing enrolled         %e / %U+%S" \
  "$KX" --conf "$WORK/empty" fsstat:stores 2>&1 >/dev/null | tail -1
