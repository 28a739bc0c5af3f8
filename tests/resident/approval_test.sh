#!/usr/bin/env bash
# Approving an emit needs a person: kx from a pipe is refused, kx on a terminal
# (under `script`) is accepted, the same whether the command runs in the resident
# or locally (KESTRUNE_LOCAL=1).
. "$(dirname "$0")/lib.sh"
export NO_COLOR=1  # under `script` the answers would be coloured

PROJECT="$WORK/project"
mkdir -p "$PROJECT"
echo one >"$PROJECT/a.txt"
refusal="ERROR: emit approval needs a person at the console or the UI — run this from kx on a terminal, or approve it in the UI (kx gui)"
approve='fsvctl:emitcommit 1 <mode>A</mode>'
on_terminal() { script -qec "$1" /dev/null | tr -d '\r'; }
printf -v kx_q '%q' "$KX"

# --- in the resident ----------------------------------------------------------
P=$(free_port)
"$KX" --port "$P" --conf "$CONF" boot >/dev/null 2>&1 &
STARTED_PIDS+=($!)
wait_until 100 answering "$P" || { echo "resident did not come up"; exit 1; }
kx() { "$KX" --port "$P" --conf "$CONF" "$@"; }
kx enroll "$PROJECT" >/dev/null
kx fsvctl:emit '<path>/</path>' >/dev/null
same "a piped kx may not approve through the resident" "$refusal" "$(kx "$approve" </dev/null | cat)"
same "nor with only its output on a terminal" "$refusal" \
  "$(on_terminal "$kx_q --port $P --conf $CONF '$approve' </dev/null")"
check "the emit still waits" grep -q '^PENDING-EMITS 1' <<<"$(kx fsvctl:emitlist)"
check "kx on a terminal approves it through the resident" grep -q '^APPROVED: emit #1' \
  <<<"$(on_terminal "$kx_q --port $P --conf $CONF '$approve'")"
same "and it is gone" "PENDING-EMITS 0" "$(kx fsvctl:emitlist | head -n1)"

# --- locally -------------------------------------------------------------------------
# The queue belongs to the home: a local request waits for a later process, and its
# number follows the resident's.
export KESTRUNE_LOCAL=1
approve_local='fsvctl:emitcommit 2 <mode>A</mode>'
same "a local kx queues a request" "PENDING #2" "$("$KX" --conf "$CONF" fsvctl:emit '<path>/</path>' | cut -c1-10)"
same "a piped local kx may not approve" "$refusal" "$("$KX" --conf "$CONF" "$approve_local" </dev/null | cat)"
check "the request outlived both processes" grep -q '^PENDING-EMITS 1' \
  <<<"$("$KX" --conf "$CONF" fsvctl:emitlist)"
check "a local kx on a terminal may" grep -q '^APPROVED: emit #2' \
  <<<"$(on_terminal "$kx_q --conf $CONF '$approve_local'")"
same "and the resident sees it gone" "PENDING-EMITS 0" \
  "$(env -u KESTRUNE_LOCAL "$KX" --port "$P" --conf "$CONF" fsvctl:emitlist | head -n1)"
finish
