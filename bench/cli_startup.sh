#!/usr/bin/env bash
# Wall time of `kx fssys:help` as a whole process: median and p90 of N runs.
# Usage: bench/cli_startup.sh [path to kx] [runs, default 20]
# Figures of local runs: never forward to (or spawn) a resident.
export KESTRUNE_LOCAL=1
set -euo pipefail
KX=${1:-build/bench/src/launcher/kx}
runs=${2:-20}
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
times=()
for _ in $(seq "$runs"); do
  start=$(date +%s%N)
  "$KX" --conf "$home" fssys:help >/dev/null
  end=$(date +%s%N)
  times+=($(( (end - start) / 1000 )))
done
sorted=($(printf '%s\n' "${times[@]}" | sort -n))
echo "kx fssys:help  runs=$runs  median=${sorted[$((runs / 2))]}us  p90=${sorted[$((runs * 9 / 10))]}us  min=${sorted[0]}us"
