#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan + UBSan) straight from the few
# sources they need, then runs each for a bounded time.
#   tests/fuzz/run.sh [seconds per target, default 60]
# Corpora grow in build/fuzz/corpus/<target>; crashes land in build/fuzz/.
set -euo pipefail
cd "$(dirname "$0")/../.."
seconds=${1:-60}
out=build/fuzz
mkdir -p "$out"
flags=(-std=c++20 -g -O1 -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=all -Isrc)

build() { # <target> <sources...>
  local target=$1; shift
  clang++ "${flags[@]}" "tests/fuzz/$target.cpp" "$@" -o "$out/$target" -lpthread
}
build fuzz_request_reader src/server/request_reader.cpp src/server/http_request.cpp
build fuzz_websocket_frame src/server/websocket_frame.cpp
build fuzz_resident_reply src/launcher/resident_client.cpp src/platform/socket_linux.cpp \
  src/platform/console.cpp src/platform/console_linux.cpp src/platform/process_info_linux.cpp \
  src/platform/env.cpp src/platform/env_linux.cpp

status=0
for target in fuzz_request_reader fuzz_websocket_frame fuzz_resident_reply; do
  [ -x "$out/$target" ] || { echo "== $target: not built"; status=1; continue; }
  mkdir -p "$out/corpus/$target"
  echo "== $target (${seconds}s)"
  (cd "$out" && "./$target" -max_total_time="$seconds" -max_len=70000 -rss_limit_mb=1024 \
     -print_final_stats=1 "corpus/$target" 2>&1 | tail -n 12) || status=1
done
exit $status
