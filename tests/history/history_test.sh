#!/usr/bin/env bash
# End-to-end checks of locks and history through the real kx binary: every command
# is its own process, so locks, dirty flags and versions must survive between them.
# The checks run once locally and once through a resident, with the same answers.
# Usage: history_test.sh <path to kx>   (KX_EMULATOR, e.g. wine, runs a Windows build)
set -u
. "$(dirname "$0")/../lib/checks.sh"
. "$(dirname "$0")/../lib/two_ways.sh"
kx_runner "$1"

kx() { (cd "$TREE" && kx_logged "$@" 2>/dev/null); }
first_line() { "$@" | head -1; }

history_checks() {
HOME_DIR=$SIDE/home
TREE=$SIDE/work
mkdir -p "$TREE"
# The tree as kx names it (a Windows build sees it through its own drive), and that
# name inside a JSON string.
SHOWN_WORK=$(shown_path "$TREE")
JSON_WORK=${SHOWN_WORK//\\/\\\\}
printf 'one\n' >"$TREE/a.txt"
# A check-out by the cli seat as its journal record says, then a revert.
revert_as_holder() {
  printf '{"leafId":"cli","path":"%s/a.txt","at":1}\n' "$JSON_WORK" >"$HOME_DIR/checkouts.jsonl"
  kx fsvctl:revert '<path>a.txt</path><version>1</version>'
}

expect_prefix "enroll" "OK: enrolled $SHOWN_WORK" kx Kestrune EnrollVersionControl "$TREE"

expect "status of a clean file" "OK: a.txt  unlocked" kx fslock:status a.txt
expect "toggle locks" "OK: locked a.txt" kx fslock:toggle a.txt
expect "the lock outlives the process" "OK: a.txt  LOCKED by cli" kx fslock:state a.txt
expect "toggle by the holder unlocks" "OK: unlocked a.txt" kx fslock:toggle a.txt
expect "journal rewritten on release" "" cat "$HOME_DIR/checkouts.jsonl"

# Another seat's check-out, as its journal record says after a restart.
printf '{"leafId":"alice","path":"%s/a.txt","at":1700000000}\n' "$JSON_WORK" >"$HOME_DIR/checkouts.jsonl"
expect "journalled check-out is taken over" "OK: a.txt  LOCKED by alice" kx fslock:status a.txt
expect "save over another seat's lock is refused" "ERROR: file is locked (alice)" \
  kx fsvctl:checkin '<path>a.txt</path><content><![CDATA[mine
]]></content>'
expect "refused save left the file" "one" cat "$TREE/a.txt"
expect "refused save left the chain" "LOG a.txt  (1 versions)" first_line kx fsvctl:log a.txt
expect "not the holder: no transfer" "ERROR: only the holder can transfer a lock (alice holds it)" \
  kx fslock:transfer a.txt cli

expect_prefix "dirty check-in goes over the lock" \
  "OK: checked in a.txt — dirty check-in over alice's lock — merge required (both parties)" \
  kx fsvctl:checkin '<path>a.txt</path><content><![CDATA[urgent
]]></content><dirty>true</dirty>'
expect "dirty flag shows in the status" "OK: a.txt  LOCKED by alice  [merge required]" kx fslock:status a.txt
expect "dirty bytes kept as a version" "urgent" kx fsvctl:open '<path>a.txt</path><version>2</version>'
expect "plain save waits for the merge" \
  "ERROR: merge required (file was flagged dirty by an earlier op)" \
  revert_as_holder
expect_prefix "the holder's check-in is the merge" \
  "OK: checked in a.txt — merge recorded, dirty flag cleared" \
  kx fsvctl:checkin '<path>a.txt</path><content><![CDATA[one
urgent
]]></content>'
expect "merged and released" "OK: a.txt  unlocked" kx fslock:status a.txt

expect "diff between versions" "=== FILE DIFF ===
FILE1: a.txt  (v1)
FILE2: a.txt  (v3)
legend: [ ] same   [-] only in FILE1   [+] only in FILE2
---
[ ] one
[+] urgent
=== END DIFF ===" kx fsvctl:diff '<path>a.txt</path><a>1</a>'
expect "revert to a missing version" "ERROR: no such version" kx fsvctl:revert '<path>a.txt</path><version>12</version>'
expect_prefix "revert is a new version" "OK: reverted a.txt to v1 (now v4)" \
  kx fsvctl:revert '<path>a.txt</path><version>1</version>'
expect "reverted text on disk" "one" cat "$TREE/a.txt"
expect_prefix "log reaches every version" "LOG a.txt  (4 versions)
  v1  " kx fsvctl:log a.txt
expect_prefix "timeline newest first" "TIMELINE (store)
  " kx fsvctl:timeline

expect_prefix "emit request" "PENDING #1 — a human must approve it" kx fsvctl:emit
expect_prefix "the request outlives its process" "PENDING-EMITS 1
  #1  (store)  (latest)  requested by cli at " kx fsvctl:emitlist
expect "unknown fsvctl verb" \
  "ERROR: unknown fsvctl function 'blame' (checkout|checkin|revert|diff|log|open|timeline|emit)" \
  kx fsvctl:blame a.txt
expect "unknown fslock verb" "ERROR: unknown fslock op 'steal' (status|toggle|unlock|transfer)" \
  kx fslock:steal a.txt

# A lock follows its file through a move, in the journal too.
expect "check out before the move" "OK: checked out a.txt" kx fsvctl:checkout a.txt
expect "the holder moves it" "OK: moved a.txt -> b.txt (history followed)" kx fs:move a.txt b.txt
expect "the lock followed" "OK: b.txt  LOCKED by cli" kx fslock:status b.txt
expect "the journal followed" "1" grep -cF "\"path\":\"$JSON_WORK" "$HOME_DIR/checkouts.jsonl"
}

two_ways history_checks "$1"
checks_done history
