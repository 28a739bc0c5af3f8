#!/usr/bin/env bash
# Builds the benchmarks in release mode and runs every one, printing figures.
#   bench/run-all.sh          quick sizes (a few minutes at most)
#   bench/run-all.sh --long   the full sizes the figures are quoted at (10,000-version
#                             history, 20,000-file enrollment, 1,000,000 memos)
set -euo pipefail
cd "$(dirname "$0")/.."
long=0
case "${1:-}" in
  --long) long=1 ;;
  "") ;;
  *) echo "usage: bench/run-all.sh [--long]" >&2; exit 2 ;;
esac
. scripts/deps.sh
kx_require_packages "${KX_TEST_PACKAGES[@]}" "${KX_BENCH_PACKAGES[@]}"
build=build/bench
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKX_BENCH=ON -DKX_TESTS=OFF >/dev/null
cmake --build "$build"

# Google Benchmark binaries take the runner's options; *_figures programs have their
# own main and are run plainly (or by the script of the same stem below).
for b in "$build"/bench/*_bench; do "$b" --benchmark_min_time=0.2; done
"$build"/bench/vfs_save_figures "" $((long ? 2000 : 500))

kx=$build/src/launcher/kx
if ((long)); then
  bash bench/history_log.sh "$build" 10000
  bash bench/vfs_enroll_bench.sh "$kx"
  MEMOS=1000000 bash bench/memory_vs_sqlite.sh
  MEMOS=1000000 bash bench/memory_durability.sh "$kx"
else
  bash bench/history_log.sh "$build" 1000
  bash bench/vfs_enroll_bench.sh "$kx" 2000 20
  MEMOS=100000 bash bench/memory_vs_sqlite.sh
  MEMOS=100000 bash bench/memory_durability.sh "$kx"
fi
bash bench/diff_vs_gnu.sh "$build"
bash bench/cli_startup.sh "$kx"
bash tests/setup_node.sh >/dev/null && node bench/mcp_bench.mjs "$kx" 1000
