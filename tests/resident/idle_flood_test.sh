#!/usr/bin/env bash
# Ten thousand idle connections and eleven hundred idle WebSockets: the resident
# still answers /health and a forwarded kx, holds no thread per connection, and
# its threads and memory come back down once they are gone.
. "$(dirname "$0")/lib.sh"

threads_of() { awk '/^Threads:/ {print $2}' "/proc/$1/status"; }
rss_kib_of() { awk '/^VmRSS:/ {print $2}' "/proc/$1/status"; }

# The client side holds every socket too.
ulimit -n "$(ulimit -Hn)"
if [ "$(ulimit -n)" != unlimited ] && [ "$(ulimit -n)" -lt 12000 ]; then
  echo "ok - skipped: this account may open only $(ulimit -n) files"
  finish
fi

P=$(free_port)
"$KX" --port "$P" --conf "$CONF" boot >/dev/null 2>&1 &
RESIDENT=$!
STARTED_PIDS+=("$RESIDENT")
check "the resident comes up" wait_until 50 answering "$P"
"$KX" --port "$P" --conf "$CONF" 'fsstat:exists x' >/dev/null 2>&1  # warm: first use loads the store
baseline=$(threads_of "$RESIDENT")
rss_before=$(rss_kib_of "$RESIDENT")

KX_TOKEN=$(home_token) node "$TESTS_DIR/resident/idle_flood.mjs" "$P" "$RESIDENT" "$KX" "$CONF"
same "every check under the flood passed" 0 $?
check "the resident is still alive" kill -0 "$RESIDENT"
settled() { [ "$(threads_of "$RESIDENT")" -le $((baseline + 1)) ]; }
check "its threads return to the baseline of $baseline" wait_until 200 settled
rss=$(rss_kib_of "$RESIDENT")
check "its memory returns near its baseline (${rss_before} -> ${rss} KiB)" test "$rss" -lt $((rss_before + 60000))

shutdown_resident "$P" >/dev/null
wait "$RESIDENT"
same "it still shuts down cleanly" 0 $?

finish
