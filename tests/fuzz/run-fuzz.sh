#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a bounded time.
# Usage: tests/fuzz/run-fuzz.sh [seconds per target, default 60] [target name filter]
set -euo pipefail
cd "$(dirname "$0")/../.."
seconds=${1:-60}
filter=${2:-}
build=build/fuzz
CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKX_FUZZ=ON -DKX_TESTS=OFF >/dev/null
cmake --build "$build"
status=0
for target in "$build"/tests/fuzz/*_fuzz; do
  name=$(basename "$target")
  [[ -n "$filter" && "$name" != *"$filter"* ]] && continue
  corpus=$build/corpus/$name
  mkdir -p "$corpus"
  seeds=tests/fuzz/seeds/$name
  echo "== $name for ${seconds}s"
  if ! "$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
      "$corpus" $( [ -d "$seeds" ] && echo "$seeds" ) 2>&1 | tail -n 12; then
    status=1
  fi
done
exit $status
