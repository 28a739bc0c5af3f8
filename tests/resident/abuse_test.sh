#!/usr/bin/env bash
# Abusive and slow clients against a real resident: it keeps answering, and its
# threads and memory come back down once they are gone.
. "$(dirname "$0")/lib.sh"

threads_of() { awk '/^Threads:/ {print $2}' "/proc/$1/status"; }
rss_kib_of() { awk '/^VmRSS:/ {print $2}' "/proc/$1/status"; }

P=$(free_port)
"$KX" --port "$P" --conf "$CONF" boot >/dev/null 2>&1 &
RESIDENT=$!
STARTED_PIDS+=("$RESIDENT")
check "the resident comes up" wait_until 50 answering "$P"
baseline=$(threads_of "$RESIDENT")

KX_TOKEN=$(home_token) node "$TESTS_DIR/resident/abusive_clients.mjs" "$P"
same "every abusive client was handled" 0 $?
check "the resident is still alive" kill -0 "$RESIDENT"
settled() { [ "$(threads_of "$RESIDENT")" -le $((baseline + 1)) ]; }
check "its threads return to the baseline of $baseline" wait_until 200 settled
rss=$(rss_kib_of "$RESIDENT")
check "its memory stays small (${rss} KiB)" test "$rss" -lt 200000

shutdown_resident "$P" >/dev/null
wait "$RESIDENT"
same "it still shuts down cleanly" 0 $?

finish
