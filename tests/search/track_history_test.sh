#!/usr/bin/env bash
# Trees grep remembered keep history of raw edits: fsraw: copy over a file and
# remove another, and the prior bytes are in the file's mirror history; a tree that
# was not remembered gets nothing; a history that cannot be written refuses the
# edit. Every step answers the same locally and through a resident.
. "$(dirname "$0")/../resident/lib.sh" "$1"

P=$(free_port)
"$KX" --port "$P" --conf "$CONF" boot >/dev/null 2>&1 &
wait_until 100 answering "$P"
track_port "$P" >/dev/null

run_kx() { # <mode> <dir> <kx args...>
  local mode=$1 dir=$2
  shift 2
  if [ "$mode" = local ]; then
    (cd "$dir" && KESTRUNE_LOCAL=1 "$KX" --conf "$CONF" "$@" 2>/dev/null)
  else
    (cd "$dir" && "$KX" --port "$P" --conf "$CONF" "$@" 2>/dev/null)
  fi
}
# The one history file of the whole home whose bytes are <text>, by name pattern.
history_with() { # <find -path pattern> <text>
  find "$CONF/.versioncontrol" -type f -path "$1" | while read -r f; do
    [ "$(cat "$f")" = "$2" ] && echo "$f"
  done
}

declare -A answers
for mode in local resident; do
  T="$WORK/$mode/tree"
  U="$WORK/$mode/untracked"
  mkdir -p "$T" "$U"
  printf 'old a %s\n' "$mode" >"$T/a.txt"
  printf 'old b %s\n' "$mode" >"$T/b.txt"
  printf 'new\n' >"$T/new.txt"
  printf 'old d %s\n' "$mode" >"$T/d.txt"
  printf 'old c %s\n' "$mode" >"$U/c.txt"
  printf 'new\n' >"$U/new.txt"

  run_kx "$mode" "$T" grep -c old . >/dev/null
  run_kx "$mode" "$U" grep -c old . --no-track >/dev/null
  out=$(run_kx "$mode" "$T" fsraw:copy new.txt a.txt)
  out+=$'\n'$(run_kx "$mode" "$T" fsraw:remove b.txt)
  out+=$'\n'$(run_kx "$mode" "$U" fsraw:copy new.txt c.txt)

  same "$mode: copy over a tracked file" "new" "$(cat "$T/a.txt")"
  archived=$(history_with '*/.a.txt.oldversions/a.txt.xx*' "old a $mode")
  check "$mode: the overwritten bytes are archived" test -n "$archived"
  mirror_dir=$(dirname "$(dirname "$archived")")
  same "$mode: the mirror copy holds the new bytes" "new" "$(cat "$mirror_dir/a.txt" 2>/dev/null)"
  check "$mode: the removed file is gone" test ! -e "$T/b.txt"
  same "$mode: the removed bytes stay as its mirror copy" "old b $mode" \
    "$(cat "$mirror_dir/b.txt" 2>/dev/null)"
  check "$mode: ... marked as gone" test -e "$mirror_dir/b.txt.tombstone"
  check "$mode: both edits are in the edit log" \
    bash -c '[ "$(grep -c "\"op\":\"\(modify\|delete\)\"" "$1")" -ge 2 ]' _ \
    "$mirror_dir/.oldversions/edits.jsonl"
  same "$mode: an untracked tree is edited" "new" "$(cat "$U/c.txt")"
  check "$mode: ... and keeps no history" \
    test -z "$(history_with '*/c.txt*' "old c $mode")"

  # A history that cannot take the prior bytes refuses the edit.
  printf 'older d\n' >"$mirror_dir/d.txt"
  printf 'not a directory\n' >"$mirror_dir/.d.txt.oldversions"
  out+=$'\n'$(run_kx "$mode" "$T" fsraw:copy new.txt d.txt)
  same "$mode: the refused copy left the file alone" "old d $mode" "$(cat "$T/d.txt")"
  answers[$mode]=$out
done

same "the answers" "OK: raw copy new.txt -> a.txt
-- TrackEditHistory: prior bytes of 1 file(s) archived under .Kestrune\\.versioncontrol
OK: raw remove b.txt
-- TrackEditHistory: prior bytes of 1 file(s) archived under .Kestrune\\.versioncontrol
OK: raw copy new.txt -> c.txt
ERROR: fsraw:copy refused: could not archive the prior bytes of 'WORK/TREE/d.txt' (fsraw archive failed for 'WORK/TREE/d.txt' — keeping baseline, will retry); nothing was changed" \
  "$(sed "s|$WORK/local/tree|WORK/TREE|g" <<<"${answers[local]}")"
same "the same answers through a resident" \
  "$(sed "s|$WORK/local/tree|WORK/TREE|g" <<<"${answers[local]}")" \
  "$(sed "s|$WORK/resident/tree|WORK/TREE|g" <<<"${answers[resident]}")"
finish
