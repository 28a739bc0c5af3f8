#!/usr/bin/env bash
# One list of command lines, run once locally and once through a resident, each
# from a fresh home and the same project folder: what they print (stdout, stderr,
# status) and the files they leave must be the same. Usage: parity_test.sh <kx>
. "$(dirname "$0")/../resident/lib.sh"

PROJ=$WORK/proj
BIG=$(head -c 600000 /dev/urandom | base64 -w 76)    # ~800 KB of text lines
ARG_BODY=$(head -c 90000 /dev/urandom | base64 -w 0) # one argument, under the OS's limit
DEEP=$(printf '{%.0s' $(seq 1500))

# The arguments of single kx calls, one call per entry.
CALLS=(
  "fsmk:file src/a.txt <content><![CDATA[hello]]></content>"
  "fs:cat a.txt"
  "fs.cat src/a.txt"
  "fsstat:version src/a.txt"
  "fsmk:file src/nl.txt <content><![CDATA[first
second]]></content>"
  "fs:cat src/nl.txt"
  "fsmk:file src/arg.txt <content><![CDATA[$ARG_BODY]]></content>"
  "x = 1"
  "script x = 1; y++"
  "for (i = 0; i < 2; i++) { fs:cat src/a.txt }"
  "?(keywords()==build*)"
  "memory.add cli, notes, build, , how to build: cmake"
  "memory.retrieve cli, notes, build"
  "Kestrune: write src/b.txt <![CDATA[one | two]]>"
  "Kestrune:"
  "Kestrune guided"
  "Kestrune: echo hi | tr a-z A-Z"
  "frobnicate the thing"
  "$DEEP"
  "fs:cat src/nothing-here.txt"
  "fssys:turns"
  "fssys:promote early 1"
  "fssys:actionrun missing"
)

# Standard input of one kx call: units that span lines, state that carries from
# line to line, and a large body.
piped_input() {
  printf 'Kestrune guided on\nfsstat:version src/a.txt\nKestrune guided\n'
  printf 'n = 2\nwhile (n > 0) {\n  fs:cat src/a.txt\n  n--\n}\n'
  printf 'fsmk:file src/multi.txt <content><![CDATA[line one\n\n  line three ; } {\n]]></content>\n'
  printf 'fsmk:file src/big.txt <content><![CDATA[%s]]></content>\n' "$BIG"
  printf 'fs:cat src/multi.txt\nnonsense words here\nfsstat:version src/big.txt\n'
  printf 'cd src\npwd\nfs:cat multi.txt\n'
}

# A second console: turns, promotion, actions (a failing line, rebound registers,
# a "]]>" round trip, self-recursion) and a ring small enough to spill into the log.
piped_turns() {
  printf 'fsmk:file src/t.txt <content><![CDATA[a ]] > b\n | ; c]]></content>\n'
  # The pattern holds a blank, which the random base64 of big.txt never does.
  printf 'fs:cat src/t.txt\nfs:cat src/nothing-here.txt\ngrep -p "line [ot]" src\n'
  printf 'Kestrune: echo "[$[0]]" | cat\nfssys:turns\n'
  printf 'fssys:promote mk 1..2\nfssys:promote mk 1\nfssys:promote bad/name 1\n'
  printf 'fssys:promote show 5\naction(mk)\naction(show, turn(4).$[1])\n'
  printf 'fssys:promote broken 2..3\nfssys:actionrun broken\n'
  printf 'fsmk:file action_self.md <content><![CDATA[---\nname: action_self\nmetadata:\n  type: action\n---\nfssys:actionrun self\n]]></content>\n'
  printf 'fssys:actionrun self\nfssys:turndepth 2\nfs:cat src/t.txt\nfssys:turns\n'
}

# A session's turn log is named by its start time and a random tag.
untagged() { sed -E 's/turnlog-cli-[0-9]{8}-[0-9]{6}-[0-9a-f]{4}/turnlog-cli-TAG/g'; }

# Runs every call and the piped input against <home>, with kx's environment
# <env...> (KESTRUNE_LOCAL=1 or nothing); prints a transcript.
run_side() { # <home> <env...>
  local home=$1
  shift
  rm -rf "$PROJ"
  mkdir -p "$PROJ/src"
  (cd "$WORK" && env "$@" "$KX" --port "$P" --conf "$home" enroll proj >/dev/null 2>&1)
  local i=0 call
  for call in "${CALLS[@]}"; do
    i=$((i + 1))
    (cd "$PROJ" && env "$@" "$KX" --port "$P" --conf "$home" "$call" \
      >"$WORK/out" 2>"$WORK/err" </dev/null)
    echo "== call $i status $?"
    cat "$WORK/out"
    echo "-- stderr"
    cat "$WORK/err"
  done
  (cd "$PROJ" && piped_input | env "$@" "$KX" --port "$P" --conf "$home" \
    >"$WORK/out" 2>"$WORK/err")
  echo "== piped status $?"
  cat "$WORK/out"
  echo "-- stderr"
  cat "$WORK/err"
  (cd "$PROJ" && piped_turns | env "$@" "$KX" --port "$P" --conf "$home" \
    >"$WORK/out" 2>"$WORK/err")
  echo "== piped turns status $?"
  cat "$WORK/out"
  echo "-- stderr"
  cat "$WORK/err"
  echo "== files"
  (cd "$PROJ" && find . -type f | sort | while read -r f; do
    echo "$(untagged <"$f" | sha256sum | cut -c1-64)  $f"
  done)
}


P=$(free_port)
LOCAL_HOME=$WORK/home-local
RESIDENT_HOME=$WORK/home-resident
mkdir -p "$LOCAL_HOME" "$RESIDENT_HOME"
run_side "$LOCAL_HOME" KESTRUNE_LOCAL=1 | untagged >"$WORK/local.txt"
"$KX" --port "$P" --conf "$RESIDENT_HOME" boot >/dev/null 2>&1 &
wait_until 100 answering "$P"
RESIDENT=$(track_port "$P")
check "a resident serves the port" [ -n "$RESIDENT" ]
run_side "$RESIDENT_HOME" | untagged >"$WORK/forwarded.txt"
same "the resident answered every call itself" "$RESIDENT" "$(pid_on_port "$P")"

same_files "local and forwarded runs print the same and leave the same files" \
  "$WORK/local.txt" "$WORK/forwarded.txt"
# The transcript is only worth comparing if the lines did their work.
check "the large piped body arrived byte for byte" \
  [ "$(cd "$PROJ" && cat src/big.txt)" == "$BIG" ]
check "the large argument body arrived byte for byte" \
  [ "$(cd "$PROJ" && cat src/arg.txt)" == "$ARG_BODY" ]
check "a newline inside one argument is text" \
  [ "$(printf 'first\nsecond')" == "$(cat "$PROJ/src/nl.txt")" ]
check "the multi-line body kept its lines" \
  [ "$(printf 'line one\n\n  line three ; } {\n')" == "$(cat "$PROJ/src/multi.txt")" ]
check "statements ran (the while loop printed twice)" \
  [ "$(grep -c '^hello$' "$WORK/forwarded.txt")" -ge 5 ]
check "nesting past the limit is a parse error" \
  grep -q 'nesting deeper than 1000 levels' "$WORK/forwarded.txt"
check "Kestrune: alone is the empty-query error" \
  grep -qx 'ERROR: empty query (try: Kestrune:help)' "$WORK/forwarded.txt"
check "an action replays a CDATA body holding ]] > byte for byte" \
  [ "$(printf 'a ]] > b\n | ; c')" == "$(cat "$PROJ/src/t.txt")" ]
check "the action file keeps ]]> apart from the CDATA close" \
  grep -qxF 'fsmk:file src/t.txt <content><![CDATA[a ]]  > b' "$PROJ/action_mk.md"
check "rebound registers reached the action" grep -qxF "[src/multi.txt:3]" "$WORK/forwarded.txt"
check "a failing line ends the action and is named" \
  grep -qF "ERROR: action 'broken' stopped at line 2 of 2 (fs:cat src/nothing-here.txt)" "$WORK/forwarded.txt"
check "a self-calling action stops at depth 8" \
  grep -qF 'ERROR: action nesting too deep (8) — refusing' "$WORK/forwarded.txt"
check "turns that left the ring are in the session's turn log" \
  grep -qF '#4  grep -p "line [ot]" src' "$PROJ"/turnlog-cli-*-1.md

# At a terminal the marks of results are coloured, the same on both paths;
# --no-color and NO_COLOR leave them plain.
at_tty() { (cd "$PROJ" && script -qec "$1" /dev/null </dev/null | tr -d '\r' | grep 'ERROR:'); }
MISSING="$KX --port $P --conf $RESIDENT_HOME fs:cat src/nothing-here.txt"
RED=$'\033[31mERROR:\033[0m no such file: src/nothing-here.txt'
same "an error is red at a terminal, forwarded" "$RED" "$(at_tty "$MISSING")"
same "an error is red at a terminal, locally" "$RED" "$(at_tty "KESTRUNE_LOCAL=1 $MISSING")"
same "--no-color leaves it plain" "ERROR: no such file: src/nothing-here.txt" \
  "$(at_tty "$MISSING --no-color")"
same "NO_COLOR leaves it plain" "ERROR: no such file: src/nothing-here.txt" \
  "$(at_tty "NO_COLOR=1 KESTRUNE_LOCAL=1 $MISSING")"
finish
