#!/usr/bin/env bash
# Installs the Node packages the end-to-end tests use (tests/node_modules), only
# when they are missing or older than the lock file.
set -euo pipefail
cd "$(dirname "$0")"
if [ ! -d node_modules/ws ] || [ package-lock.json -nt node_modules/.package-lock.json ]; then
  npm ci --no-audit --no-fund --loglevel=error
fi
