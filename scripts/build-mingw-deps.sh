#!/usr/bin/env bash
# Builds the libraries the Windows build links (PCRE2, with JIT) from Debian's own
# source packages with the mingw-w64 toolchain, into a cached prefix.
# Usage: scripts/build-mingw-deps.sh   (prints the prefix on its last line)
set -euo pipefail
cd "$(dirname "$0")/.."
prefix=${KX_MINGW_DEPS:-${XDG_CACHE_HOME:-$HOME/.cache}/kestrune/mingw-deps}
if [[ -f "$prefix/lib/libpcre2-8.a" ]]; then
  echo "$prefix"
  exit 0
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# A private apt configuration whose only sources are the system's own binary
# sources turned into source entries; the system's configuration is not touched.
mkdir -p "$work/lists/partial" "$work/cache/archives/partial"
{
  for f in /etc/apt/sources.list.d/*.sources; do
    [[ -f "$f" ]] || continue
    sed -n 's/^Types:.*/Types: deb-src/p; /^URIs:/p; /^Suites:/p; /^Components:/p; /^Signed-By:/p; /^$/p' "$f"
    echo
  done
} >"$work/source.sources"
if [[ -f /etc/apt/sources.list ]]; then
  sed -n 's/^deb \(.*\)/deb-src \1/p' /etc/apt/sources.list >"$work/source.list"
else
  : >"$work/source.list"
fi
mkdir -p "$work/parts"
cp "$work/source.sources" "$work/parts/"
apt_opts=(-o "Dir::Etc::SourceList=$work/source.list" -o "Dir::Etc::SourceParts=$work/parts"
          -o "Dir::State::Lists=$work/lists" -o "Dir::Cache=$work/cache"
          -o "APT::Sandbox::User=root")
apt-get "${apt_opts[@]}" update -qq >/dev/null 2>&1
(cd "$work" && apt-get "${apt_opts[@]}" source -qq pcre2 >/dev/null 2>&1) || true
src=$(find "$work" -maxdepth 1 -type d -name 'pcre2-*' | head -n 1)
# Where a mirror serves the upstream tarball but not the newest Debian revision,
# the upstream source builds just as well.
if [[ -z "$src" ]]; then
  tarball=$(find "$work" -maxdepth 1 -name 'pcre2_*.orig.tar.*' | head -n 1)
  [[ -n "$tarball" ]] && tar -xf "$tarball" -C "$work"
  src=$(find "$work" -maxdepth 1 -type d -name 'pcre2-*' | head -n 1)
fi
[[ -n "$src" ]] || { echo "build-mingw-deps: no pcre2 source unpacked" >&2; exit 1; }

cmake -S "$src" -B "$work/build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/mingw-w64-x86_64.cmake" \
  -DCMAKE_BUILD_TYPE=Release -DBUILD_SHARED_LIBS=OFF -DPCRE2_SUPPORT_JIT=ON \
  -DPCRE2_BUILD_PCRE2GREP=OFF -DPCRE2_BUILD_TESTS=OFF -DCMAKE_INSTALL_PREFIX="$prefix" >/dev/null
cmake --build "$work/build" >/dev/null
cmake --install "$work/build" >/dev/null
echo "$prefix"
