#!/usr/bin/env bash
# Installs the browser libraries of web/package-lock.json into <web dir>/node_modules
# (the copy of web/ beside kx), only when they are missing or older than the lock.
# Without npm the build still succeeds; the terminal page then says what is missing.
set -uo pipefail
web=${1:?usage: web_deps.sh <web dir>}
cd "$web" || exit 1
if [ -f node_modules/.package-lock.json ] && [ ! package-lock.json -nt node_modules/.package-lock.json ]; then
  exit 0
fi
if ! command -v npm >/dev/null 2>&1; then
  echo "warning: npm not found; /ui/term.html needs web/node_modules (npm ci in $web)" >&2
  exit 0
fi
npm ci --no-audit --no-fund --loglevel=error || echo "warning: npm ci failed in $web; /ui/term.html will not load xterm.js" >&2
