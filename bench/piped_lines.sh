#!/usr/bin/env bash
# 10,000 piped command lines through one kx call: run locally (KESTRUNE_LOCAL=1)
# and forwarded unit by unit to a resident; lines per second each way. The same
# lines through `sh` (one `test` builtin per line) anchor the figures.
# Usage: bench/piped_lines.sh [path to a release kx] [lines, default 10000]
set -euo pipefail
cd "$(dirname "$0")/.."
KX=$(realpath "${1:-build/release/src/launcher/kx}")
LINES=${2:-10000}
[ -x "$KX" ] || { echo "no kx at $KX" >&2; exit 1; }

. bench/lib.sh

for i in $(seq "$LINES"); do echo "fsstat:exists missing-$i.txt"; done >"$WORK/lines.txt"
for i in $(seq "$LINES"); do echo "test -e missing-$i.txt"; done >"$WORK/sh-lines.txt"

rate() { # <seconds as a decimal> -> lines per second
  awk -v n="$LINES" -v s="$1" 'BEGIN { printf "%.0f", n / s }'
}
timed() { # <command...> (stdin from the caller); prints elapsed seconds
  local start end
  start=$(date +%s%N)
  "$@" >"$WORK/out" 2>/dev/null || true
  end=$(date +%s%N)
  awk -v ns=$((end - start)) 'BEGIN { printf "%.3f", ns / 1e9 }'
}

cd "$WORK"
local_s=$(KESTRUNE_LOCAL=1 timed "$KX" --port "$PORT" --conf "$WORK/home" <"$WORK/lines.txt")
local_answers=$(grep -c '' "$WORK/out")
"$KX" --port "$PORT" --conf "$WORK/home" boot >/dev/null 2>&1 &
RESIDENT=$!
for _ in $(seq 50); do curl -s "http://127.0.0.1:$PORT/health" >/dev/null && break; sleep 0.1; done
forwarded_s=$(timed "$KX" --port "$PORT" --conf "$WORK/home" <"$WORK/lines.txt")
forwarded_answers=$(grep -c '' "$WORK/out")
sh_s=$(timed sh "$WORK/sh-lines.txt" </dev/null)

printf '%d piped lines (fsstat:exists)\n' "$LINES"
printf '  local      %8s lines/s  (%s s, %s answers)\n' "$(rate "$local_s")" "$local_s" "$local_answers"
printf '  forwarded  %8s lines/s  (%s s, %s answers)\n' "$(rate "$forwarded_s")" "$forwarded_s" "$forwarded_answers"
printf '  sh anchor  %8s lines/s  (the same count of test builtins)\n' "$(rate "$sh_s")"
