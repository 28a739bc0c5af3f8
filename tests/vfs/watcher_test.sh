#!/usr/bin/env bash
# Outside changes end to end: a resident watches an enrolled tree; edits, deletes and
# bursts made by other programs become versions, and a second process follows them.
# Usage: watcher_test.sh <path to kx>
set -u
. "$(dirname "$0")/../resident/lib.sh" "$1"
. "$(dirname "$0")/../lib/checks.sh"
TREE=$WORK/tree
mkdir -p "$TREE/sub"
printf 'one\n' >"$TREE/a.txt"
printf 'b\n' >"$TREE/sub/b.txt"
P=$(free_port)

kx() { (cd "$TREE" && "$KX" --port "$P" --conf "$CONF" "$@" 2>/dev/null); }
kx_local() { (cd "$TREE" && KESTRUNE_LOCAL=1 "$KX" --port "$P" --conf "$CONF" "$@" 2>/dev/null); }
versions() { kx fsvctl:log "$1" | head -1; }
has_version() { [[ "$(versions "$1")" == "LOG $1  ($2 versions)" ]]; }
tombstoned() { kx fsvctl:log "$1" | grep -q 'delete by watch  \[current, tombstoned\]'; }
# One answer on every path: the resident's and a local process's agree.
same_both_ways() {
  local resident local_answer
  resident=$(kx "$@")
  local_answer=$(kx_local "$@")
  if [[ "$resident" == "$local_answer" ]]; then passes=$((passes + 1)); else
    report_failure "local and resident agree on: $*" "$local_answer" "$(printf %q "$resident")"
  fi
}

kx_local Kestrune EnrollVersionControl "$TREE" >/dev/null
# Edited before any save and before anything watched it.
printf 'two\n' >>"$TREE/a.txt"

"$KX" --port "$P" --conf "$CONF" serve >"$WORK/resident.out" 2>"$WORK/resident.err" &
STARTED_PIDS+=($!)
wait_until 100 answering "$P"
truth "enrolled text stays v1, the outside edit is v2" wait_until 50 has_version a.txt 2
expect "v1 is the enrolled text" "one" kx fsvctl:open '<path>a.txt</path><version>1</version>'
expect "v2 is the outside edit" "one
two" kx fsvctl:open '<path>a.txt</path><version>2</version>'

# A live edit is a version within a second, holding the outside bytes.
printf 'three\n' >>"$TREE/a.txt"
# Latency itself is measured in bench/; a loaded test machine only gets a bound.
truth "an outside append becomes v3" wait_until 50 has_version a.txt 3
expect "v3 holds the outside bytes" "one
two
three" kx fsvctl:open '<path>a.txt</path><version>3</version>'
expect "the resident reads the new text" "one
two
three" kx fs:cat a.txt
same_both_ways fsvctl:log a.txt
same_both_ways fs:cat a.txt

# A burst settles into one version: three separate writes, back to back.
printf 'x1\n' >>"$TREE/a.txt"
printf 'x2\n' >>"$TREE/a.txt"
printf 'x3\n' >>"$TREE/a.txt"
wait_until 50 has_version a.txt 4
sleep 0.5
expect "three back-to-back writes make one version" "LOG a.txt  (4 versions)" versions a.txt

# The next save through kx keeps an outside edit made just before it.
printf 'outside\n' >"$TREE/a.txt"
kx fsmk:file a.txt '<content><![CDATA[inside
]]></content>' >/dev/null
expect "the outside edit is kept under the save" "outside" \
  kx fsvctl:open '<path>a.txt</path><version>5</version>'
expect "the save is the newest" "inside" kx fs:cat a.txt
sleep 0.5
expect "the save did not come back as an outside change" "LOG a.txt  (6 versions)" versions a.txt

# A delete outside is recorded and can be undone.
rm "$TREE/sub/b.txt"
truth "an outside delete is recorded" wait_until 50 tombstoned sub/b.txt
same_both_ways fsvctl:log sub/b.txt
expect "the deleted file is restored" "OK: restored sub/b.txt" kx fs:restore sub/b.txt
expect "with its bytes" "b" cat "$TREE/sub/b.txt"
expect "the last version is readable" "b" kx fsvctl:open '<path>sub/b.txt</path><version>1</version>'

# A second process is a read-only follower that still answers with the newest version.
follower_err=$( (cd "$TREE" && KESTRUNE_LOCAL=1 "$KX" --conf "$CONF" fsstat:version a.txt) 2>&1 >/dev/null)
truth "a one-shot second process follows without a word" [ -z "$follower_err" ]
# A piped session lives on as a follower while an outside edit lands: one version, not two.
(
  sleep 1.2
  echo 'fsvctl:log a.txt'
) | (cd "$TREE" && KESTRUNE_LOCAL=1 "$KX" --conf "$CONF" >"$WORK/follower.out" 2>&1) &
follower=$!
sleep 0.3
printf 'seen by both\n' >>"$TREE/a.txt"
wait "$follower"
truth "a session that lives on says it follows read-only" grep -q "read-only follower" "$WORK/follower.out"
truth "the follower answers with the owner's newest version" grep -q "v7 .*modify by watch  \[current\]" "$WORK/follower.out"
expect "and the follower wrote no version of its own" "LOG a.txt  (7 versions)" versions a.txt

# Hundreds of files at once (the queue may overflow): none is lost.
mkdir "$TREE/many"
for i in $(seq 1 300); do printf '%s\n' "$i" >"$TREE/many/f$i.txt"; done
counted() { [[ $(kx fsstat:paths 'many/*' | grep -c 'many/f') -eq 300 ]]; }
truth "300 new files at once are all versioned" wait_until 600 counted
expect "a file in the middle holds its bytes" "150" kx fs:cat many/f150.txt

# Unenrolling: the same answer from the resident and from a local process, the watch
# lock let go, and the history back on a re-enroll.
OTHER=$WORK/other
mkdir -p "$OTHER"
printf 'first\n' >"$OTHER/o.txt"
kx Kestrune EnrollVersionControl "$OTHER" >/dev/null
from_resident=$(kx unenroll "$OTHER")
expect "unenroll answers" "OK: unenrolled $OTHER — no longer versioned or watched" head -1 <<<"$from_resident"
expect "naming where the history stays" "  history kept at: $CONF/.versioncontrol/$(ls "$CONF/.versioncontrol" | grep other)
    (enroll the directory again to reach its versions)
  active directory: $TREE" tail -3 <<<"$from_resident"
truth "it leaves the configuration" bash -c "! grep -qF '$OTHER' '$CONF/config/versioncontroldirs.cfg'"
expect "and the store set" "1 store(s) under version control  (* = active; retarget with Kestrune EnrollVersionControl <root>)
* $TREE  302 file(s)  [scope=all ext=default watch=on mode=vc]" kx fsstat:stores
printf 'edited while not enrolled\n' >"$OTHER/o.txt"
sleep 0.5
enrolled_err=$( (cd "$OTHER" && KESTRUNE_LOCAL=1 "$KX" --conf "$CONF" enroll "$OTHER") 2>&1 >/dev/null)
truth "the resident let go of the watch lock" bash -c "! grep -qF '$OTHER: watcher owned by another' <<<'$enrolled_err'"
kx Kestrune EnrollVersionControl "$OTHER" >/dev/null
expect "the history is back, the edit made meanwhile is its newest version" \
  "edited while not enrolled" kx fsvctl:open '<path>o.txt</path><version>2</version>'
expect "v1 is still the first text" "first" kx fsvctl:open '<path>o.txt</path><version>1</version>'
from_local=$(kx_local unenroll "$OTHER")
expect "a local process answers as the resident did" "$from_resident" echo "$from_local"
expect "a directory not enrolled" "ERROR: $WORK is not enrolled (fsstat:stores lists the enrolled directories)" \
  kx unenroll "$WORK"
same_both_ways unenroll "$WORK"
same_both_ways unenroll

# One file outside every store, watched on its own.
LOOSE=$WORK/loose
mkdir -p "$LOOSE"
printf 'v1\n' >"$LOOSE/notes.txt"
expect "watch answers" "OK: watching $LOOSE/notes.txt — live events on this ONE file; every change archives the prior bytes
  mirror: $CONF/.versioncontrol/$(echo "$LOOSE" | sed 's/[^-._0-9A-Za-z]/_/g')/notes.txt
  listed in: $CONF/config/watchedfiles.cfg" kx watch "$LOOSE/notes.txt"
expect "a second watch" "OK: already watching $LOOSE/notes.txt" kx watch "$LOOSE/notes.txt"
archived() { kx watches | grep -qF "  $1 $LOOSE/notes.txt  ($2 archived version(s))"; }
printf 'v2\n' >>"$LOOSE/notes.txt"
truth "an outside write archives the prior bytes" wait_until 50 archived live 1
for i in 1 2 3; do printf 'burst %s\n' "$i" >>"$LOOSE/notes.txt"; done
wait_until 50 archived live 2
sleep 0.5
truth "three back-to-back writes archive once" archived live 2
expect "the mirror holds the newest bytes" "$(cat "$LOOSE/notes.txt")" cat "$CONF/.versioncontrol/$(echo "$LOOSE" | sed 's/[^-._0-9A-Za-z]/_/g')/notes.txt"
same_both_ways watches
rm "$LOOSE/notes.txt"
truth "a deleted file is listed as gone" wait_until 50 archived gone 2
expect "watch refuses a directory" "ERROR: $LOOSE is a directory — watch takes ONE file; EnrollVersionControl watches trees" \
  kx watch "$LOOSE"
expect "a file of a store is covered already" "OK: already covered — $TREE/a.txt lives in the enrolled store $TREE" \
  kx watch "$TREE/a.txt"
same_both_ways watch "$LOOSE/none.txt"
expect "unwatch" "OK: unwatched $LOOSE/notes.txt (mirror history kept)" kx unwatch "$LOOSE/notes.txt"
expect "unwatch again" "OK: was not watching $LOOSE/notes.txt" kx unwatch "$LOOSE/notes.txt"
truth "the list no longer has it" bash -c "! grep -qF notes.txt '$CONF/config/watchedfiles.cfg'"

checks_done watcher
