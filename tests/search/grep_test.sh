#!/usr/bin/env bash
# kx grep end to end: every error text, the output cap, where file texts come from
# (store RAM, grep cache, disk), registers, and the same answers locally and
# through a resident.
. "$(dirname "$0")/../resident/lib.sh" "$1"

P=$(free_port)
TREE="$WORK/tree"
PROJ="$WORK/proj"
mkdir -p "$TREE/sub" "$PROJ/src"
printf 'alpha one\nbeta a.b two\naxb three\n' >"$TREE/a.txt"
printf 'x\nalpha\ny\n' >"$TREE/sub/b.txt"
printf 'int main() { return 0; }\n// TODO: alpha\n' >"$PROJ/src/main.c"

local_kx() { (cd "$TREE" && KESTRUNE_LOCAL=1 "$KX" --conf "$CONF" "$@" 2>/dev/null); }
resident_kx() { (cd "$TREE" && "$KX" --port "$P" --conf "$CONF" "$@" 2>/dev/null); }
# Where the texts came from differs between the paths (a resident keeps its grep
# cache), so the summary and tracking lines are compared separately.
results_only() { grep -v -e '^-- [0-9]* matching line(s) in' -e '^-- TrackEditHistory' || true; }
both() { # <description> <expected> <kx args...>: the same answer on both paths
  local what=$1 want=$2
  shift 2
  same "$what (local)" "$want" "$(local_kx "$@" | results_only)"
  same "$what (resident)" "$want" "$(resident_kx "$@" | results_only)"
}

"$KX" --port "$P" --conf "$CONF" boot >/dev/null 2>&1 &
wait_until 100 answering "$P"
track_port "$P" >/dev/null

# Error texts, exactly.
both "-A without a number" "ERROR: -A needs a number" grep -A
both "-m with a word" "ERROR: -m needs a number" grep x -m many
both "-e without a pattern" "ERROR: -e needs a pattern" grep -e
both "--include without a glob" "ERROR: --include needs a glob" grep x --include
both "--exclude without a glob" "ERROR: --exclude needs a glob" grep x --exclude
both "unknown short flag" "ERROR: unknown flag -Z" grep -Z x
both "unknown long flag" "ERROR: unknown flag --frobnicate" grep --frobnicate x
usage=$(local_kx grep --help)
same "usage for --help" "usage: grep [flags] <pattern> [dir|file|glob ...]" "${usage%%$'\n'*}"
same "a missing pattern prints the usage" "$usage" "$(resident_kx grep -n)"
both "missing path is noted and the search goes on" \
  "grep: nope: no such file or directory
a.txt:alpha one" grep alpha nope a.txt --no-track
both "-s hides the note" "" grep -s alpha nope --no-track
both "-F is literal" "a.txt:beta a.b two" grep -F a.b --no-track .
both "a regex dot is not" "a.txt:beta a.b two
a.txt:axb three" grep "a.b" --no-track .
both "context groups and numbers" "a.txt-1-alpha one
a.txt:2:beta a.b two
--
sub/b.txt-1-x
sub/b.txt:2:alpha" grep -n -B1 "two|^alpha$" --no-track .
both "-q on no match" "OK: no match" grep -q zzzz
both "-q on a match" "OK: match" grep -q alpha

# A second identical disk search is served from the grep cache (resident only:
# a local process starts with an empty cache).
FRESH="$WORK/fresh"
mkdir -p "$FRESH"
printf 'alpha\n' >"$FRESH/1.txt"
printf 'beta alpha\n' >"$FRESH/2.txt"
first=$(resident_kx grep -c alpha "$FRESH")
second=$(resident_kx grep -c alpha "$FRESH")
check "first search reads disk" grep -q 'searched 2: 0 store-cached, 0 grep-cached, 2 disk' <<<"$first"
check "second search is grep-cached" grep -q 'searched 2: 0 store-cached, 2 grep-cached, 0 disk  \[cache 1KB\]' <<<"$second"
check "the searched tree is remembered once" grep -q "TrackEditHistory: remembering $FRESH —" <<<"$first"
check "... and not announced again" bash -c '! grep -q TrackEditHistory <<<"$1"' _ "$second"
check "the tracked set is kept in the home" grep -qxF "$FRESH" "$CONF/config/grep_tracked.cfg"
printf 'alpha changed on disk\n' >"$FRESH/2.txt"
touch -d '+2 seconds' "$FRESH/2.txt"
check "a file changed on disk is read again" grep -q '1 grep-cached, 1 disk' <<<"$(resident_kx grep alpha "$FRESH")"
check "--no-cache reads disk and does not report the cache" \
  grep -qx -- '-- 2 matching line(s) in 2 file(s); searched 2: 0 store-cached, 2 grep-cached, 0 disk' \
  <<<"$(resident_kx grep --no-cache alpha "$FRESH" | tail -n 1)"

# An enrolled tree is searched in the store's RAM, and edits through fs: are seen
# without reading the disk.
(cd "$WORK" && "$KX" --port "$P" --conf "$CONF" enroll "$PROJ" >/dev/null 2>&1)
enrolled=$(cd "$PROJ" && "$KX" --port "$P" --conf "$CONF" grep -n alpha 2>/dev/null)
same "enrolled tree is store-cached" "src/main.c:2:// TODO: alpha
-- 1 matching line(s) in 1 file(s); searched 1: 1 store-cached, 0 grep-cached, 0 disk  [cache 1KB]" "$enrolled"
(cd "$PROJ" && "$KX" --port "$P" --conf "$CONF" "fsmk:file src/main.c <content>gamma only</content>" >/dev/null 2>&1)
after=$(cd "$PROJ" && "$KX" --port "$P" --conf "$CONF" grep -c gamma 2>/dev/null)
check "an fs: edit is seen from RAM" grep -q '^src/main.c:1$' <<<"$after"
check "... without a disk read" grep -q 'searched 1: 1 store-cached, 0 grep-cached, 0 disk' <<<"$after"

# -p publishes one register per hit; structured commands take them.
hits=$(resident_kx grep -p -n alpha a.txt sub/b.txt --no-track)
check "-p says what it published" grep -q 'published 2 hit(s) as \$\[\] registers \$\[0..1\]' <<<"$hits"

# The cap: past 98,304 bytes the output ends with the truncation line, then the summary.
for ((i = 0; i < 4000; i++)); do printf 'line %05d of a long file with a match in it\n' "$i"; done >"$TREE/big.txt"
for path in local resident; do
  out=$(${path}_kx grep -n match big.txt --no-track)
  body=${out%%'[output truncated'*}
  check "cap: body within 98304 bytes ($path)" [ "$(printf '%s' "$body" | wc -c)" -le 98304 ]
  check "cap: body ends with a whole line ($path)" [ "${body: -1}" == $'\n' ]
  same "cap: truncation line, then summary ($path)" \
    "[output truncated at 96KB -- narrow the pattern, or use -l / -c]
-- 4000 matching line(s) in 1 file(s); searched 1: 0 store-cached, 0 grep-cached, 1 disk  [cache 1KB]" \
    "$(tail -n 2 <<<"$out" | sed 's/\[cache [0-9]*KB\]/[cache 1KB]/')"
done
check "-c is not capped" grep -qx 'big.txt:4000' <<<"$(resident_kx grep -c match . --no-track)"

# Binary files say so instead of printing their lines.
printf 'alpha\0beta\n' >"$TREE/bin.dat"
both "binary file" "Binary file bin.dat matches" grep alpha bin.dat --no-track
finish
