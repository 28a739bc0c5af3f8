#!/usr/bin/env bash
# Crash test of the save path: a long series of saves, many of them killed with
# SIGKILL at a random moment. Afterwards every working file must hold one complete
# version, and every save that was acknowledged ("OK: created file") before the kill
# must be in the file's chain (mirror copy or an archived ".xx<N>").
# Usage: crash_test.sh <path to kx> [number of saves]   (KX_EMULATOR, e.g. wine, runs a
# Windows build)
set -u
# These checks are about local runs: never forward to (or spawn) a resident.
export KESTRUNE_LOCAL=1
read -r -a KX <<<"${KX_EMULATOR:-}"
KX+=("$(realpath "$1")")
SAVES=${2:-200}
BASE=$(mktemp -d)
trap 'rm -rf "$BASE"' EXIT
HOME_DIR=$BASE/home
PROJ=$BASE/proj
mkdir -p "$PROJ"
FILES=(a.txt sub/b.txt sub/deep/c.txt)
PAD=$(head -c 4000 /dev/zero | tr '\0' 'x')

"${KX[@]}" --conf "$HOME_DIR" enroll "$PROJ" >/dev/null 2>&1 || { echo "enroll failed"; exit 1; }
body() { printf 'BEGIN-%s-%s-END-%s' "$1" "$PAD" "$1"; }

declare -A acked   # "file|i" -> 1
killed=0
for ((i = 1; i <= SAVES; i++)); do
  file=${FILES[$((i % ${#FILES[@]}))]}
  "${KX[@]}" --conf "$HOME_DIR" "fsmk:file $file <content><![CDATA[$(body "$i")]]></content>" \
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

MIRROR=$(ls -d "$HOME_DIR"/.versioncontrol/*/)
failures=0
versions=0
for file in "${FILES[@]}"; do
  live="$PROJ/$file"
  [[ -e "$live" ]] || continue
  if ! grep -qE '^BEGIN-([0-9]+)-x{4000}-END-\1$' "$live"; then
    echo "FAIL torn working file $file: $(head -c 40 "$live")..."
    failures=$((failures + 1))
  fi
  name=$(basename "$file")
  dir=$(dirname "$MIRROR$file")
  chain=$(cat "$MIRROR$file" "$dir/.$name.oldversions/$name".xx* 2>/dev/null | tr -d '\n' |
          grep -oE 'BEGIN-[0-9]+-' | sort -u)
  versions=$((versions + $(grep -c . <<<"$chain")))
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
  out=$("${KX[@]}" --conf "$HOME_DIR" fs:cat "$file" 2>/dev/null)
  [[ "$out" =~ ^BEGIN-([0-9]+)-x{4000}-END-([0-9]+)$ && ${BASH_REMATCH[1]} == "${BASH_REMATCH[2]}" ]] ||
    { echo "FAIL fs:cat $file after the crashes"; failures=$((failures + 1)); }
done

# Versions beyond the acknowledged ones come from saves killed after their promote.
echo "crash test: $SAVES saves, $killed killed, ${#acked[@]} acknowledged," \
  "$((versions - ${#acked[@]})) killed after the promote, $failures failures"
[[ $failures -eq 0 && ${#acked[@]} -gt 0 ]]
