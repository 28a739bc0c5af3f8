#!/usr/bin/env bash
# Installs the coding agents' own command-line tools (package-lock.json beside this
# script) into a cache directory named after the lock file's hash, once: they are
# large, and a fresh clone finds them there. Prints the directory of their commands.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
key="$(sha256sum "$here/package-lock.json" | cut -c1-16)"
cache="${XDG_CACHE_HOME:-$HOME/.cache}/kestrune-tests/agent-clis-$key"
bin="$cache/node_modules/.bin"
if [ ! -x "$bin/claude" ] || [ ! -x "$bin/codex" ] || [ ! -x "$bin/gemini" ] || [ ! -f "$cache/installed" ]; then
  mkdir -p "$(dirname "$cache")"
  staging="$(mktemp -d "$cache.XXXXXX")"
  trap 'rm -rf "$staging"' EXIT
  cp "$here/package.json" "$here/package-lock.json" "$staging/"
  (cd "$staging" && npm ci --no-audit --no-fund --loglevel=error >&2)
  touch "$staging/installed"
  # Another run may have finished first: its copy is as good as ours.
  rm -rf "$cache"
  mv "$staging" "$cache" 2>/dev/null || true
  trap - EXIT
  rm -rf "$staging"
  # Copies for older lock files only take room.
  find "$(dirname "$cache")" -mindepth 1 -maxdepth 1 -name 'agent-clis-*' \
    ! -name "$(basename "$cache")*" -exec rm -rf {} +
fi
echo "$bin"
