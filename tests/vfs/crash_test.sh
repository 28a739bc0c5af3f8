#!/usr/bin/env bash
# Crash test of the save path: a long series of saves, many of them killed with
# SIGKILL at a random moment. Afterwards every working file must hold one complete
# version, and every save that was acknowledged ("OK: created file") before the kill
# must be in the file's chain (mirror copy or an archived ".xx<N>"). The series runs
# once locally, where the kill ends the save itself, and once through a resident,
# where it ends the client that forwarded the save (the save must then run once,
# never twice, and never tear a file).
# Usage: crash_test.sh <path to kx> [number of saves]   (KX_EMULATOR, e.g. wine, runs a
# Windows build)
set -u
read -r -a KX <<<"${KX_EMULATOR:-}"
KX+=("$(realpath "$1")")
SAVES=${2:-200}
FILES=(a.txt sub/b.txt sub/deep/c.txt)
PAD=$(head -c 4000 /dev/zero | tr '\0' 'x')
body() { printf 'BEGIN-%s-%s-END-%s' "$1" "$PAD" "$1"; }
failures=0
acked_total=0

crash_pass() { # <label> [kx options...]: one series against a fresh home
local label=$1
shift
local BASE
BASE=$(mktemp -d)
local HOME_DIR=$BASE/home PROJ=$BASE/proj
mkdir -p "$PROJ"
[[ $# -gt 0 ]] && boot_resident "${2}" "$HOME_DIR"

"${KX[@]}" "$@" --conf "$HOME_DIR" enroll "$PROJ" >/dev/null 2>&1 || { echo "enroll failed"; exit 1; }

local -A acked   # "file|i" -> 1
local killed=0 versions=0 before=$failures i file pid live name dir chain all out key n
for ((i = 1; i <= SAVES; i++)); do
  file=${FILES[$((i % ${#FILES[@]}))]}
  "${KX[@]}" "$@" --conf "$HOME_DIR" "fsmk:file $file <content><![CDATA[$(body "$i")]]></content>" \
    >"$BASE/out.$i" 2>/dev/null </dev/null &
  pid=$!
  # Most saves are killed somewhere between start-up and the last rename.
  if ((RANDOM % 4 != 0)); then
    sleep "$(printf '0.%03d' $((10 + RANDOM % 16)))"  # start-up ~15 ms, then the save
    kill -KILL "$pid" 2>/dev/null && killed=$((killed + 1))
  fi
  wait "$pid" 2>/dev/null
  if grep -qs "^OK: created file $file" "$BASE/out.$i"; then acked["$file|$i"]=1; fi
  rm -f "$BASE/out.$i"
done

local MIRROR
MIRROR=$(ls -d "$HOME_DIR"/.versioncontrol/*/)
for file in "${FILES[@]}"; do
  live="$PROJ/$file"
  [[ -e "$live" ]] || continue
  if ! grep -qE '^BEGIN-([0-9]+)-x{4000}-END-\1$' "$live"; then
    echo "FAIL torn working file $file: $(head -c 40 "$live")..."
    failures=$((failures + 1))
  fi
  name=$(basename "$file")
  dir=$(dirname "$MIRROR$file")
  all=$(cat "$MIRROR$file" "$dir/.$name.oldversions/$name".xx* 2>/dev/null | tr -d '\n' |
        grep -oE 'BEGIN-[0-9]+-' | sort)
  chain=$(uniq <<<"$all")
  versions=$((versions + $(grep -c . <<<"$chain")))
  if [[ "$all" != "$chain" ]]; then
    echo "FAIL a save of $file ran twice: $(uniq -d <<<"$all" | tr '\n' ' ')"
    failures=$((failures + 1))
  fi
  for key in "${!acked[@]}"; do
    [[ ${key%%|*} == "$file" ]] || continue
    n=${key##*|}
    if ! grep -qx "BEGIN-$n-" <<<"$chain"; then
      echo "FAIL acknowledged save $n of $file is not in its chain"
      failures=$((failures + 1))
    fi
  done
done

# A fresh process still reads every file as one complete version.
for file in "${FILES[@]}"; do
  [[ -e "$PROJ/$file" ]] || continue
  out=$("${KX[@]}" "$@" --conf "$HOME_DIR" fs:cat "$file" 2>/dev/null)
  [[ "$out" =~ ^BEGIN-([0-9]+)-x{4000}-END-([0-9]+)$ && ${BASH_REMATCH[1]} == "${BASH_REMATCH[2]}" ]] ||
    { echo "FAIL fs:cat $file after the crashes"; failures=$((failures + 1)); }
done

# Versions beyond the acknowledged ones come from saves killed after their promote
# (or, through a resident, from saves whose client was killed before the answer).
echo "crash test, $label: $SAVES saves, $killed killed, ${#acked[@]} acknowledged," \
  "$((versions - ${#acked[@]})) beyond them, $((failures - before)) failures"
acked_total=$((acked_total + ${#acked[@]}))
[[ ${#acked[@]} -gt 0 ]] || { echo "FAIL $label: no save was acknowledged"; failures=$((failures + 1)); }
rm -rf "$BASE"
}

KESTRUNE_LOCAL=1 crash_pass locally
if [[ -z "${KX_EMULATOR:-}" ]]; then
  # The resident's helpers: a temporary HOME, a free port, cleanup by process id.
  . "$(dirname "$0")/../resident/lib.sh" "$1"
  port=$(free_port)
  crash_pass "through a resident" --port "$port"
  [[ -n "$RESIDENT" && "$RESIDENT" == "$(pid_on_port "$port")" ]] ||
    { echo "FAIL the resident did not serve the whole series"; failures=$((failures + 1)); }
fi
[[ $failures -eq 0 ]]
