#!/usr/bin/env bash
# The memory verbs run once locally (KESTRUNE_LOCAL=1) and once through a resident,
# each from a fresh home: what they print (stdout, stderr, status) and the files they
# leave in the contexts folder must be the same, damage included.
# Usage: memory_parity_test.sh <path to kx>
. "$(dirname "$0")/../resident/lib.sh"

CALLS=(
  "memory.add cli, notes, build, , how to build: cmake --preset release"
  "memory.add cli, notes, Deploy, MyKW, ship it with rsync"
  "memory.addmemo cli, notes, steps, , procedure|usage, configure then build"
  "memory.addmemo cli, notes, steps, , , run the tests"
  "memory.memos cli, notes, steps"
  "memory.getmemo cli, notes, steps, 2"
  "memory.getmemo cli, notes, steps, 3"
  "memory.retrieve cli, notes, build"
  "memory.keywords cli, notes, mykw"
  "memory.keywords cli, notes, CMAKE"
  "memory.keywords cli, notes, zebra"
  "memory.add cli, notes, build, , replaced: ninja -C build"
  "memory.retrieve cli, notes, build"
  "memory.deletememo cli, notes, steps, 1"
  "memory.delete cli, notes, Deploy"
  "memory.sync cli, notes, each"
  "memory.add cli, notes, durable, , synced before the answer"
  "memory.sync cli, notes, group"
  "memory.add cli, other, a, , a second context"
  "memory.contexts cli"
  "memory.add cli, notes, later, , written last"
  "@cut"
  "memory.retrieve cli, notes, steps"
  "memory.retrieve cli, notes, later"
  "memory.add cli, notes, after, , added after the damage"
  "memory.retrieve cli, notes, after"
  "memory.frob x"
  "memory.add cli, notes"
)

# What may differ between the two homes: the home's own path, a timestamp in a
# damaged copy's name, and whether memory.contexts finds a context in this process's
# RAM (a resident keeps what it opened; a local run starts empty); the sizes must agree.
normalise() { # <home>
  sed -e "s#$1#<home>#g" -e 's/damaged-[0-9]\{8\}T[0-9]\{6\}Z\(-[0-9]*\)\?/damaged-<time>/g' \
    -e 's/  [0-9]* topic(s), \([0-9]*\) bytes (loaded)$/  \1 bytes/' \
    -e 's/  \([0-9]*\) bytes on disk (not loaded)$/  \1 bytes/'
}

run_side() { # <home> <env...>
  local home=$1 i=0 call
  shift
  for call in "${CALLS[@]}"; do
    i=$((i + 1))
    if [ "$call" == "@cut" ]; then
      # A torn last record, as a crash mid-append leaves it.
      local data="$home/.contexts/cli@notes/data.mem"
      truncate -s $(($(stat -c %s "$data") - 5)) "$data"
      echo "== $i cut data.mem"
      continue
    fi
    env "$@" "$KX" --port "$P" --conf "$home" "$call" >"$WORK/out" 2>"$WORK/err" </dev/null
    echo "== $i status $? : $call"
    normalise "$home" <"$WORK/out"
    echo "-- stderr"
    normalise "$home" <"$WORK/err"
  done
  echo "== files"
  (cd "$home/.contexts" && find . -type f ! -name '*.lock' | sort | while read -r f; do
    echo "$(sha256sum <"$f" | cut -c1-16) $f"
  done) | normalise "$home"
}

P=$(free_port)
LOCAL_HOME=$WORK/home-local
RESIDENT_HOME=$WORK/home-resident
mkdir -p "$LOCAL_HOME" "$RESIDENT_HOME"
run_side "$LOCAL_HOME" KESTRUNE_LOCAL=1 >"$WORK/local.txt"
boot_resident "$P" "$RESIDENT_HOME"
check "a resident serves the port" [ -n "$RESIDENT" ]
run_side "$RESIDENT_HOME" >"$WORK/resident.txt"
same "the resident answered every call itself" "$RESIDENT" "$(pid_on_port "$P")"

same_files "local and resident runs print the same and leave the same files" \
  "$WORK/local.txt" "$WORK/resident.txt"
# Worth comparing only if the verbs did their work.
check "a keyword stored as MyKW is found as mykw" grep -q "keyword 'mykw' — 1 memo hit" "$WORK/resident.txt"
check "the damage was reported" grep -q "^warning: data.mem of context 'notes' did not load whole" "$WORK/resident.txt"
check "the damaged copy was kept" grep -q "cli@notes/data.mem.damaged-<time>$" "$WORK/resident.txt"
check "what was added after the damage is read back" grep -qx "added after the damage" "$WORK/resident.txt"
check "the replaced topic holds the new text" grep -qx "replaced: ninja -C build" "$WORK/resident.txt"
finish
