#!/usr/bin/env bash
# kx grep forwarded to a resident that holds an enrolled ~200 MB tree in RAM, next to
# ripgrep on the same tree with a warm page cache. Whole-process wall times, median
# of RUNS runs per query; then the same queries timed inside one process (the
# resident's share), and the RAM the enrolled tree costs the resident.
# Usage: bench/grep_vs_rg.sh [build dir (build/bench)] [MiB (200)] [runs (7)]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/bench}
MIB=${2:-200}
RUNS=${3:-7}
KX=$(realpath "$build/src/launcher/kx")
FIG=$(realpath "$build/bench/grep_figures")
command -v rg >/dev/null || { echo "ripgrep (rg) is needed: apt-get install ripgrep" >&2; exit 2; }
WORK=$(mktemp -d "${TMPDIR:-/tmp}/kx_grep_bench.XXXXXX")
RESIDENT=""
cleanup() {
  [[ -n "$RESIDENT" ]] && kill -TERM "$RESIDENT" 2>/dev/null
  rm -rf "$WORK"
}
trap cleanup EXIT
export HOME="$WORK/user" XDG_RUNTIME_DIR="$WORK/run"
unset KESTRUNE_LOCAL
mkdir -p "$HOME" "$XDG_RUNTIME_DIR" "$WORK/home"
TREE="$WORK/tree"

# Real source-like text: the system headers, then the plain-text documentation
# (compressed and binary files left out) copied until the tree reaches the size.
mkdir -p "$TREE"
cp -r /usr/include "$TREE/include"
(cd /usr/share/doc && find . -type f ! -name '*.gz' -size -4M -print0 |
  xargs -0 grep -IlZ '' 2>/dev/null) >"$WORK/doc.list" || true
copy=0
while (( $(du -sm "$TREE" | cut -f1) < MIB )); do
  copy=$((copy + 1))
  mkdir -p "$TREE/doc$copy"
  (cd /usr/share/doc && xargs -0 cp --parents -t "$TREE/doc$copy" <"$WORK/doc.list" 2>/dev/null) || true
done
files=$(find "$TREE" -type f | wc -l)
echo "tree: $(du -sm "$TREE" | cut -f1) MiB in $files files ($TREE)"

port=$(shuf -i 20000-60000 -n 1)
kx() { "$KX" --port "$port" --conf "$WORK/home" "$@"; }
kx boot >/dev/null 2>&1 &
for _ in $(seq 100); do curl -s "http://127.0.0.1:$port/health" >/dev/null && break; sleep 0.1; done
RESIDENT=$(ss -Htlnp "sport = :$port" | sed -n 's/.*pid=\([0-9]*\).*/\1/p' | head -n1)
rss() { awk '/VmRSS/ {print $2}' "/proc/$RESIDENT/status"; }
before=$(rss)
t0=$(date +%s%N)
(cd "$WORK" && kx enroll "$TREE" >/dev/null 2>&1)
t1=$(date +%s%N)
after=$(rss)
echo "enrolled in $(( (t1 - t0) / 1000000 )) ms; resident RSS $((before / 1024)) MiB -> $((after / 1024)) MiB (tree costs $(( (after - before) / 1024 )) MiB)"

median_ms() { # command... : median wall ms of RUNS runs, output discarded
  local times=() s e
  for ((r = 0; r < RUNS; r++)); do
    s=$(date +%s%N)
    "$@" >/dev/null 2>&1 || true
    e=$(date +%s%N)
    times+=($(( (e - s) / 1000 )))
  done
  printf '%s\n' "${times[@]}" | sort -n | sed -n "$((RUNS / 2 + 1))p" | awk '{printf "%.1f", $1 / 1000}'
}

# name | goal | kx grep arguments | rg arguments
queries=(
  "literal, few matches|1.0|__libc_single_threaded|__libc_single_threaded"
  "literal, many matches|1.0|include|include"
  "case-insensitive literal|1.0|-i copyright|-i copyright"
  "alternation of five words|1.5|mutex|semaphore|spinlock|barrier|condvar|mutex|semaphore|spinlock|barrier|condvar"
  "class and repeat|1.5|[A-Z_]{4,}_MAX\b|[A-Z_]{4,}_MAX\b"
  "whole word (-w)|1.0|-w size_t|-w size_t"
  "count (-c)|1.0|-c define|-c define"
  "no match|1.0|zqxjkvbw_nomatch|zqxjkvbw_nomatch"
)
cd "$TREE"
rg -c xyz >/dev/null 2>&1 || true  # warm the page cache for rg
printf '%-28s %10s %10s %7s %5s\n' query "kx ms" "rg ms" ratio goal
fig_queries=()
for q in "${queries[@]}"; do
  IFS='|' read -r name goal rest <<<"$q"
  # The five-word alternation holds '|': split the remaining fields in half.
  IFS='|' read -r -a parts <<<"$rest"
  half=$(( ${#parts[@]} / 2 ))
  kx_pat=$(IFS='|'; echo "${parts[*]:0:half}")
  rg_pat=$(IFS='|'; echo "${parts[*]:half}")
  read -r -a kx_args <<<"$kx_pat"
  read -r -a rg_args <<<"$rg_pat"
  kx grep "${kx_args[@]}" --no-track >/dev/null 2>&1 || true  # first call: nothing to warm, but fair
  k=$(median_ms "$KX" --port "$port" --conf "$WORK/home" grep "${kx_args[@]}" --no-track)
  g=$(median_ms rg --no-config "${rg_args[@]}" .)
  ratio=$(awk -v a="$k" -v b="$g" 'BEGIN { printf "%.2f", a / b }')
  printf '%-28s %10s %10s %7s %5s\n' "$name" "$k" "$g" "$ratio" "$goal"
  fig_queries+=("${kx_args[*]} --no-track")
done
kill -TERM "$RESIDENT" 2>/dev/null; RESIDENT=""
sleep 1
echo "inside one process (the resident's share of the time):"
"$FIG" "$WORK/home" "$TREE" "$RUNS" "${fig_queries[@]}" 2>/dev/null
