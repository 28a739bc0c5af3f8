#!/usr/bin/env bash
# A second process changes what is enrolled or watched while a resident runs: a local
# kx enrolls, unenrolls, watches and unwatches, and the running resident follows each
# change before it answers its next command, as a restarted one would.
# Usage: config_follow_test.sh <path to kx>
set -u
. "$(dirname "$0")/lib.sh" "$1"
. "$(dirname "$0")/../lib/checks.sh"
TREE=$WORK/tree
OTHER=$WORK/other
mkdir -p "$TREE" "$OTHER"
printf 'a\n' >"$TREE/a.txt"
printf 'one\n' >"$OTHER/notes.txt"
P=$(free_port)

kx() { (cd "$TREE" && "$KX" --port "$P" --conf "$CONF" "$@" 2>/dev/null); }
kx_local() { (cd "$TREE" && KESTRUNE_LOCAL=1 "$KX" --port "$P" --conf "$CONF" "$@" 2>/dev/null); }
# The answers that show what is enrolled and watched, the same on both paths.
state() { "$@" fsstat:stores; "$@" Kestrune watches | sed 's/([0-9]* archived version(s))//'; }
agree() { # <what>
  local resident local_answer
  resident=$(state kx)
  local_answer=$(state kx_local)
  if [[ "$resident" == "$local_answer" ]]; then passes=$((passes + 1)); else
    report_failure "resident and local agree $1" "$resident" "$(printf %q "$local_answer")"
  fi
}
# Every file of the history kept under the home, with its size.
history_files() { find "$CONF/.versioncontrol" -type f -printf '%P %s\n' | sort; }
archived() { kx Kestrune watches | grep -q "notes.txt  ($1 archived version(s))"; }

"$KX" --port "$P" --conf "$CONF" serve >"$WORK/resident.out" 2>"$WORK/resident.err" &
STARTED_PIDS+=($!)
wait_until 100 answering "$P"
expect_prefix "the resident starts with nothing enrolled" "0 store(s)" kx fsstat:stores

kx_local Kestrune EnrollVersionControl "$TREE" >/dev/null
expect_prefix "an enrollment by another process is followed" "1 store(s)" kx fsstat:stores
expect "its files are served" "a" kx fs:cat a.txt
agree "after the enrollment"
# The resident owns the tree's watch now: an outside edit becomes a version.
printf 'b\n' >>"$TREE/a.txt"
truth "the followed tree is watched" wait_until 50 \
  bash -c "[[ \"\$(cd '$TREE' && '$KX' --port $P --conf '$CONF' fsvctl:log a.txt 2>/dev/null | head -1)\" == 'LOG a.txt  (2 versions)' ]]"

kx_local Kestrune watch "$OTHER/notes.txt" >/dev/null
expect_prefix "a watch by another process is followed" "OK: 1 watched file(s)" kx Kestrune watches
agree "after the watch"
printf 'two\n' >>"$OTHER/notes.txt"
truth "the resident versions the followed file" wait_until 50 archived 1

kx_local Kestrune unwatch "$OTHER/notes.txt" >/dev/null
expect_prefix "an unwatch by another process is followed" "OK: 0 watched file(s)" kx Kestrune watches
history_before=$(history_files)
printf 'three\n' >>"$OTHER/notes.txt"
sleep 1.5
expect "no version is taken once the file is unwatched" "$history_before" history_files

kx_local Kestrune unenroll "$TREE" >/dev/null
expect_prefix "an unenrollment by another process is followed" "0 store(s)" kx fsstat:stores
agree "after the unenrollment"
history_before=$(history_files)
printf 'c\n' >>"$TREE/a.txt"
sleep 1.5
expect "no version is taken once the tree is unenrolled" "$history_before" history_files
truth "the resident reports what it followed" grep -q "unenrolled by another process" "$WORK/resident.err"

checks_done "config follow"
