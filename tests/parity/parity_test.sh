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
    grep -v '^\[\(vc\|versioncontroldirs\|watchedfiles\)\]' "$WORK/err"
  done
  (cd "$PROJ" && piped_input | env "$@" "$KX" --port "$P" --conf "$home" \
    >"$WORK/out" 2>"$WORK/err")
  echo "== piped status $?"
  cat "$WORK/out"
  echo "-- stderr"
  grep -v '^\[\(vc\|versioncontroldirs\|watchedfiles\)\]' "$WORK/err"
  echo "== files"
  (cd "$PROJ" && find . -type f | sort | xargs sha256sum)
}

P=$(free_port)
LOCAL_HOME=$WORK/home-local
RESIDENT_HOME=$WORK/home-resident
mkdir -p "$LOCAL_HOME" "$RESIDENT_HOME"
run_side "$LOCAL_HOME" KESTRUNE_LOCAL=1 >"$WORK/local.txt"
"$KX" --port "$P" --conf "$RESIDENT_HOME" boot >/dev/null 2>&1 &
wait_until 100 answering "$P"
RESIDENT=$(track_port "$P")
check "a resident serves the port" [ -n "$RESIDENT" ]
run_side "$RESIDENT_HOME" >"$WORK/forwarded.txt"
same "the resident answered every call itself" "$RESIDENT" "$(pid_on_port "$P")"

if diff -u "$WORK/local.txt" "$WORK/forwarded.txt" >"$WORK/diff.txt"; then
  ok "local and forwarded runs print the same and leave the same files"
else
  not_ok "local and forwarded runs differ"
  head -n 60 "$WORK/diff.txt"
fi
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
finish
