#!/usr/bin/env bash
# Fuzzes the memory data-file loader with libFuzzer for a bounded time.
# Usage: tests/fuzz/run-memory-fuzz.sh [seconds, default 60]
# Seeds (a current-format and an old-format file) are in seeds/memory_loader_fuzz/.
set -euo pipefail
exec "$(dirname "$0")/run-fuzz.sh" "${1:-60}" memory_loader
