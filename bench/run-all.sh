#!/usr/bin/env bash
# Builds the benchmarks in release mode and runs every one, printing figures.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build/bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DKX_BENCH=ON -DKX_TESTS=OFF >/dev/null
cmake --build build/bench
for b in build/bench/bench/*_bench; do "$b" --benchmark_min_time=0.2; done
for s in bench/*.sh; do [ "$s" = bench/run-all.sh ] || bash "$s"; done
