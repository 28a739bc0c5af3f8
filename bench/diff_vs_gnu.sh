#!/bin/sh
# Line diff of two 10,000-line files (1% scattered changes; one changed block),
# next to GNU diff on the same pair: wall time of the whole process (start, read,
# diff, print) and peak resident memory, both measured the same way for both.
# Usage: bench/diff_vs_gnu.sh <build dir configured with -DKX_BENCH=ON -DCMAKE_BUILD_TYPE=Release>
set -eu
build=${1:-build/bench}
bin="$build/bench/file_diff_figures"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$bin" gen "$work"

measure() { # label, command...
  label=$1
  shift
  t0=$(date +%s%N)
  /usr/bin/time -o "$work/rss" -f "%M" "$@" >"$work/out" 2>&1 || true
  t1=$(date +%s%N)
  printf '   %-30s %7.1f ms wall, %6s KiB peak\n' "$label" "$(echo "($t1 - $t0) / 1000000" | bc -l)" "$(tail -1 "$work/rss")"
}

for pair in scattered block; do
  echo "== base.txt vs $pair.txt (10,000 lines each)"
  measure "file_diff_figures" "$bin" diff "$work/base.txt" "$work/$pair.txt"
  echo "     $("$bin" best "$work/base.txt" "$work/$pair.txt")"
  measure "GNU diff" diff "$work/base.txt" "$work/$pair.txt"
  measure "file_diff_figures, same file" "$bin" diff "$work/base.txt" "$work/base.txt"
done
echo "== LCS-length rows"
"$bin" rows
