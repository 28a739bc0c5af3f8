#!/usr/bin/env bash
# Forwarding never runs a line twice and never drops one: a slow command, a
# resident killed mid-command, and piped input sent to a busy resident.
# Usage: forwarding_test.sh <kx>
. "$(dirname "$0")/../resident/lib.sh"

P=$(free_port)
mkdir -p "$WORK/cwd"
cd "$WORK/cwd" || exit 1
kx() { "$KX" --port "$P" --conf "$CONF" "$@"; }

kx boot >/dev/null 2>&1 &
wait_until 100 answering "$P"
RESIDENT=$(track_port "$P")
check "a resident serves the port" [ -n "$RESIDENT" ]

# --- a command slower than any time-out runs once ---------------------------
out=$(kx 'Kestrune: sleep 6 ; echo ran >> count.txt' 2>&1)
check "the slow command answered" [ -n "$out" ]
same "the slow command ran exactly once" "1" "$(wc -l <count.txt)"
same "the resident that ran it is the one serving" "$RESIDENT" "$(pid_on_port "$P")"

# --- a busy resident loses no piped line -------------------------------------
kx 'Kestrune: sleep 3' >/dev/null 2>&1 &
busy=$!
sleep 0.5
out=$(printf 'Kestrune guided on\nfsstat:version nothing.txt\nKestrune guided\n' | kx 2>&1)
rc=$?
wait "$busy"
same "every piped line answered while the resident was busy" 3 "$(grep -c '' <<<"$out")"
check "the last piped line saw the first one's state" grep -q 'guided mode is ON' <<<"$out"
same "piped lines through a busy resident exit 0" 0 "$rc"

# --- the resident dies mid-command: an error, and nothing runs twice --------
printf 'Kestrune: sleep 2 ; echo ran >> killed.txt\nKestrune: echo later > after.txt\n' |
  kx >"$WORK/out" 2>"$WORK/err" &
client=$!
sleep 1
kill -KILL "$RESIDENT"
wait "$client"
rc=$?
sleep 2.5
check "the client names the command and says it may have run" \
  grep -q "^ERROR: the resident on port $P stopped while running 'Kestrune: sleep 2 ; echo ran >> killed.txt' — it may have run" "$WORK/out"
same "a lost answer fails the call" 1 "$rc"
check "the killed command ran at most once" [ "$(cat killed.txt 2>/dev/null | wc -l)" -le 1 ]
check "the unsent rest of the input ran here" [ "$(cat after.txt 2>/dev/null)" == "later" ]
check "the switch to running here is said on stderr" grep -q "running the rest of the input locally" "$WORK/err"
[ "$FAILED" -eq 0 ] || { echo "--- client stdout"; cat "$WORK/out"; echo "--- client stderr"; cat "$WORK/err"; }
finish
