#!/usr/bin/env bash
# Cross-builds kx.exe and every test for Windows with mingw-w64 and runs them under
# Wine: the same tests as the Linux suite, on the Windows implementations.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/deps.sh
kx_require_packages "${KX_WINDOWS_PACKAGES[@]}"
deps=$(scripts/build-mingw-deps.sh | tail -n 1)
dir=build/win

export WINEPREFIX=$PWD/$dir/wineprefix WINEDEBUG=-all
# With no display the desktop process (explorer) can only fail, and Wine waits up to
# 10 s for it, the first time a program needs the desktop: a console host reading
# its first typed input does, so the first terminal session answered 10 s late.
export WINEDLLOVERRIDES="mscoree,mshtml=;winemenubuilder.exe=d;explorer.exe=d"
unset DISPLAY

echo "== $dir (Windows, under Wine)"
cmake -S . -B "$dir" -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake \
  -DCMAKE_BUILD_TYPE=Release -DKX_MINGW_DEPS="$deps" >/dev/null
cmake --build "$dir"

# Wine's services would otherwise inherit and hold CTest's pipes open.
mkdir -p "$WINEPREFIX"
trap 'wineserver -k >/dev/null 2>&1 || true' EXIT
wineserver -p </dev/null >/dev/null 2>&1
wineboot -i </dev/null >/dev/null 2>&1
wine winecfg /v win10 </dev/null >/dev/null 2>&1
ctest --test-dir "$dir" --output-on-failure -j "$(nproc)"
