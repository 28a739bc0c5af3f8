#!/bin/sh
# fsvctl:log of a file with 10,000 versions; /usr/bin/time adds the peak memory of
# the whole run (saves included).
# Takes about two minutes at 10,000: the chain is made by durable saves, one per
# version (bench/run-all.sh runs 1,000 unless given --long).
# Usage: bench/history_log.sh [build dir configured with -DKX_BENCH=ON -DCMAKE_BUILD_TYPE=Release] [versions]
set -eu
build=${1:-build/bench}
versions=${2:-10000}
/usr/bin/time -f "whole run: %e s wall, %M KiB peak" "$build/bench/history_log_figures" "$versions"
