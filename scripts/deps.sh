#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, only those missing.
# Sourced by ./run and ./test; installing needs root (apt-get), checking does not.
# An entry "pkg" is checked with dpkg; "command=pkg" is satisfied by the command on
# PATH whichever way it was installed (Node may come from outside Debian).
kx_require_packages() {
  local missing=()
  for entry in "$@"; do
    local pkg=${entry#*=}
    if [[ "$entry" == *=* ]] && command -v "${entry%%=*}" >/dev/null 2>&1; then continue; fi
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" || missing+=("$pkg")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$(id -u)" -ne 0 ]; then
    echo "kestrune: missing packages: ${missing[*]} (run as root, or: sudo apt-get install ${missing[*]})" >&2
    return 1
  fi
  echo "kestrune: installing ${missing[*]}" >&2
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq >/dev/null && apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

KX_BUILD_PACKAGES=(g++ cmake ninja-build flex bison libpcre2-dev nlohmann-json3-dev node=nodejs npm=npm)
KX_TEST_PACKAGES=(libgtest-dev libgmock-dev libbenchmark-dev clang curl tmux bsdutils ss=iproute2 chromium=chromium ccache)
# The benchmarks' anchors and peak-memory meter (bench/run-all.sh).
KX_BENCH_PACKAGES=(sqlite3=sqlite3 time)
KX_WINDOWS_PACKAGES=(g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix wine wine64 dpkg-dev bsdutils)
