#!/usr/bin/env bash
# kxterm at a console: run under `script` so that it sits on a pseudo-terminal and
# takes the raw, WebSocket path. Keystrokes are fed with pauses, as a person types.
#   kxterm_test.sh <path to kx>
. "$(dirname "$0")/../resident/lib.sh"

P=$(free_port)
"$KX" --port "$P" --conf "$CONF" boot >/dev/null 2>&1 &
wait_until 100 answering "$P" || { echo "resident did not come up"; exit 1; }
track_port "$P" >/dev/null

at_console() { # <output file> <kxterm arguments...>; keystrokes on standard input
  local out=$1; shift
  timeout 30 script -qec "stty cols 100 rows 40; $KX --port $P --conf $CONF kxterm $*" /dev/null >"$out" 2>&1
}
has() { grep -qF -- "$2" "$1"; }
lacks() { ! grep -qF -- "$2" "$1"; }

# --- attach, run, interrupt, detach ----------------------------------------------
{
  sleep 1.5; printf 'echo one-$((1+1))\r'
  sleep 0.8; printf 'sleep 100\r'
  sleep 0.8; printf '\003'
  sleep 0.5; printf 'echo after-$((2+3))\r'
  sleep 0.8; printf '::detach\r'
  sleep 1
} | at_console "$WORK/first" run bash --norc --noprofile
check "the attach line names the one-key detach" has "$WORK/first" ", Ctrl-] detaches]"
check "a typed command runs" has "$WORK/first" "one-2"
check "Ctrl-C reached the session (the sleep ended, kxterm went on)" has "$WORK/first" "after-5"
check "::detach leaves the session running" has "$WORK/first" "[detached — t1 still running; reattach: kx kxterm t1]"
check "::detach is not typed into the session" lacks "$WORK/first" "command not found"

# --- reattach shows what came before; Ctrl-] detaches ----------------------------
{ sleep 1.5; printf '\035'; sleep 1; } | at_console "$WORK/second" t1
check "reattaching shows the earlier output" has "$WORK/second" "one-2"
check "Ctrl-] detaches" has "$WORK/second" "[detached — t1 still running"

# --- a full-screen program gets the console's keys and size ------------------------
{
  sleep 1.5; printf 'stty size\r'
  sleep 0.8; printf '::list\r'
  sleep 0.8; printf '::close\r'
  sleep 1
} | at_console "$WORK/third" t1
check "the session has the console's size" has "$WORK/third" "40 100"
check "::list prints the sessions" has "$WORK/third" '"sessions":[{"id":"t1"'
check "::close says so" has "$WORK/third" "[closed t1]"
check "::close does not report the end as news" lacks "$WORK/third" "[session ended"
list=$(kx_curl "http://127.0.0.1:$P/term/list")
same "::close ended the session" '{"ok":true,"sessions":[]}' "$list"

finish
