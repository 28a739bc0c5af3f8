#!/usr/bin/env bash
# End-to-end checks of the versioned file store through the real kx binary: every
# command runs in a fresh process, so each one also re-enrolls from the config.
# The checks run once locally and once through a resident, with the same answers.
# Usage: vfs_test.sh <path to kx>   (KX_EMULATOR, e.g. wine, runs a Windows build)
set -u
. "$(dirname "$0")/../lib/checks.sh"
. "$(dirname "$0")/../lib/two_ways.sh"
kx_runner "$1"

kx() { kx_logged "$@" 2>"$BASE/err" </dev/null; }

vfs_checks() {
BASE=$SIDE
HOME_DIR=$BASE/home
PROJ=$BASE/proj
mkdir -p "$PROJ"
# The tree as kx names it (a Windows build sees it through its own drive), and that
# name inside a JSON string.
SHOWN=$(shown_path "$PROJ")
JSON_SHOWN=${SHOWN//\\/\\\\}

# Enrollment from the working directory, as "kx enroll <dir>" is typed.
out=$(cd "$BASE" && kx_logged enroll proj 2>/dev/null)
truth "enroll answers" [ "${out%%$'\n'*}" == "OK: enrolled $SHOWN — 0 file(s) ingested (0 B), watching for changes" ]
truth "enroll is recorded" grep -qxF "$SHOWN :: scope=all ext=default watch=on mode=vc" "$HOME_DIR/config/versioncontroldirs.cfg"

KEY=$(echo "$SHOWN" | sed 's/[^-._0-9A-Za-z]/_/g')
[[ ${#KEY} -gt 40 ]] && KEY=$(ls "$HOME_DIR/.versioncontrol")
MIRROR=$HOME_DIR/.versioncontrol/$KEY

expect "create" "OK: created file src/a.txt
  [version control: automatic] src/a.txt saved as v1 — history: 'Kestrune history src/a.txt'; undo: 'fs:rm src/a.txt' (history kept)" \
  -- "fsmk:file src/a.txt <content><![CDATA[hello]]></content>"
truth "a start with nothing changed says nothing" [ ! -s "$BASE/err" ]
expect "second version" "OK: created file src/a.txt
  [version control: automatic] src/a.txt saved as v2 — history: 'Kestrune history src/a.txt'; roll back: 'Kestrune revert src/a.txt to 1'" \
  -- "fsmk:file src/a.txt <content><![CDATA[hello again]]></content>"
expect "cat by suffix" "hello again" -- fs:cat a.txt
truth "cat prints the file and nothing else" [ ! -s "$BASE/err" ]
truth "mirror copy" [ "$(cat "$MIRROR/src/a.txt")" == "hello again" ]
truth "archive chain" [ "$(cat "$MIRROR/src/.a.txt.oldversions/a.txt.xx1")" == "hello" ]
truth "working tree stays clean" [ "$(cd "$PROJ" && find . | sort | tr '\n' ' ')" == ". ./src ./src/a.txt " ]

expect "tombstone" "OK: tombstoned src/a.txt (append-only; fs:restore to undo)" -- fs:rm a.txt
truth "tombstone marker in the mirror" [ -f "$MIRROR/src/a.txt.tombstone" ]
truth "working file gone" [ ! -e "$PROJ/src/a.txt" ]
expect "tombstoned read" "ERROR: file tombstoned: src/a.txt (fs:restore to bring it back)" -- fs:cat src/a.txt
expect "listing shows t" "OK: 1 file(s) in $SHOWN  (f = file, t = tombstoned)
  t  v2	src/a.txt" -- fsstat:paths
expect "restore" "OK: restored src/a.txt" -- fs:restore a.txt
truth "restored bytes" [ "$(cat "$PROJ/src/a.txt")" == "hello again" ]

expect "move" "OK: moved src/a.txt -> docs/b.txt (history followed)" -- fs:move a.txt "<dest>docs/b.txt</dest>"
truth "archive followed the move" [ "$(cat "$MIRROR/docs/.b.txt.oldversions/b.txt.xx1")" == "hello" ]
expect "version after move" "OK: 2" -- fsstat:version docs/b.txt
expect "copy to new" "OK: copied docs/b.txt -> c.txt (v1, new versioned file)
  [version control: automatic] c.txt saved as v1 — history: 'Kestrune history c.txt'; undo: 'fs:rm c.txt' (history kept)" \
  -- fs:copy b.txt c.txt
expect "stores" "1 store(s) under version control  (* = active; retarget with Kestrune EnrollVersionControl <root>)
* $SHOWN  2 file(s)  [scope=all ext=default watch=on mode=vc]" -- fsstat:stores
out=$(kx fsstat:history limit=2)
truth "history newest first" [ "${out%%$'\n'*}" == "{\"ts\":${out:6:10},\"path\":\"c.txt\",\"op\":\"copy\",\"seat\":\"cli\",\"new\":1,\"prev\":0,\"store\":\"$JSON_SHOWN\"}" ]

# Refusals change nothing.
before=$(cd "$BASE" && find . -path ./err -prune -o -print | sort | md5sum)
expect "escape" "ERROR: path '../x.txt' is outside the store $SHOWN" -- fsmk:file ../x.txt
expect "reserved" "ERROR: reserved name: 'a.txt.tmp\$' uses a machinery suffix (.tombstone / .tmp\$ / .oldversions)" -- 'fsmk:file a.txt.tmp$'
expect "missing" "ERROR: no such file: nothere.txt" -- fs:cat nothere.txt
expect "directory" "ERROR: not a file" -- fs:cat docs
expect "bad policy" "ERROR: bad policy: watch must be on|off (got 'maybe')" -- enroll "$PROJ" watch=maybe
expect "mode switch" "ERROR: $SHOWN is already enrolled as versioned VC (mode=vc).
  A directory uses one mode at a time and modes are not switched in place.
  To change it: UNENROLL this directory (VC panel -> remove, or the unenroll
  verb), then re-enroll with mode=cachewt.
  (Tip: use different directories for cache-based vs versioned VC.)" -- enroll "$PROJ" mode=cachewt
expect "own home" "ERROR: refusing to enroll the tool's own .Kestrune home" -- enroll "$HOME_DIR"
after=$(cd "$BASE" && find . -path ./err -prune -o -print | sort | md5sum)
truth "refusals wrote nothing" [ "$before" == "$after" ]
expect "same flags retarget" "OK: $SHOWN is already enrolled — now the active directory" -- "Kestrune EnrollVersionControl $PROJ"

# turnlog- files have no mirror.
kx "fsmk:file turnlog-1.md <content>t</content>" >/dev/null
truth "turnlog has no mirror" [ ! -e "$MIRROR/turnlog-1.md" ]

# Two processes saving into one file at once: the store lock keeps every version.
# Which one comes last differs from run to run, so these calls are not in the
# transcript and the race's bytes are not compared.
racers=()
for w in A B; do
  (for ((i = 0; i < 15; i++)); do
    "${KX[@]}" "${KX_PORT_ARGS[@]}" --conf "$HOME_DIR" "fsmk:file race.txt <content>$w$i</content>" \
      >/dev/null 2>&1 </dev/null
  done) &
  racers+=($!)
done
wait "${racers[@]}" # not the resident of the second pass
chain=$(cd "$MIRROR" && cat race.txt .race.txt.oldversions/race.txt.xx* | grep -oE '[AB][0-9]+' | sort -u | wc -l)
truth "parallel processes lose no version" [ "$chain" -eq 30 ]
}

TWO_WAYS_UNORDERED="race\.txt"
two_ways vfs_checks "$1"
checks_done vfs
