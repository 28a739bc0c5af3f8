#!/bin/sh
# Fuzzes the memory data-file loader with libFuzzer for a bounded time.
#   tests/fuzz/run-memory-fuzz.sh [seconds]      (default 60)
# Builds in build/fuzz with clang (AddressSanitizer + UndefinedBehaviorSanitizer) and
# seeds the corpus with a current-format and an old-format file. Exits non-zero on a
# crash; the reproducer is left in build/fuzz/memory-artifacts/.
set -eu
seconds=${1:-60}
root=$(cd "$(dirname "$0")/../.." && pwd)
build="$root/build/fuzz"

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DKX_FUZZ=ON -DKX_TESTS=OFF >/dev/null
cmake --build "$build" --target memory_loader_fuzz -j 2

corpus="$build/memory-corpus"
artifacts="$build/memory-artifacts"
mkdir -p "$corpus" "$artifacts"
# u32 little-endian as printf escapes.
le() { n=$1; for _ in 1 2 3 4; do printf "\\$(printf %03o $((n & 255)))"; n=$((n >> 8)); done; }
str() { le ${#1}; printf %s "$1"; }
{ printf KST2; le 129; str "how to build: cmake"; str build; le 2; str how; str cmake;
  le 2147483648; str ""; str vec; le 0; le 2; le 1065353216; le 0; } >"$corpus/current.mem"
{ str "old content"; str legacy; le 1; str kw; } >"$corpus/old.mem"

"$build/tests/fuzz/memory_loader_fuzz" -max_total_time="$seconds" -max_len=4096 \
  -artifact_prefix="$artifacts/" "$corpus"
