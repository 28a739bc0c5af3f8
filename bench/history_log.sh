#!/bin/sh
# fsvctl:log of a file with 10,000 versions; /usr/bin/time adds the peak memory of
# the whole run (saves included).
# Takes about two minutes: the chain is made by 10,000 durable saves.
# Usage: bench/history_log.sh <build dir configured with -DKX_BENCH=ON -DCMAKE_BUILD_TYPE=Release>
set -eu
build=${1:-build/bench}
/usr/bin/time -f "whole run: %e s wall, %M KiB peak" "$build/bench/history_log_figures" 10000
