#!/usr/bin/env bash
# End-to-end checks of the memory verbs through the real kx binary: every command
# is its own process, so whatever a later command sees came through data.mem.
# Usage: memory_cli_test.sh <path to kx>   (KX_EMULATOR, e.g. wine, runs a Windows build)
set -u
# These checks are about local runs: never forward to (or spawn) a resident.
export KESTRUNE_LOCAL=1
. "$(dirname "$0")/../lib/checks.sh"
kx_runner "$1"
HOME_DIR=$(mktemp -d)
trap 'rm -rf "$HOME_DIR"' EXIT
PORT=$((20000 + RANDOM % 20000))  # no resident listens there: commands run here
CTX="$HOME_DIR/.contexts/cli@notes"
# The contexts folder as kx prints it (a Windows path under the emulator).
SHOWN_CONTEXTS=$(shown_path "$HOME_DIR/.contexts")

kx() { "${KX[@]}" --conf "$HOME_DIR" --port "$PORT" "$@" 2>/dev/null; }

expect "add" "OK: memory 'build' added to context(s): notes" \
  kx memory.add cli, notes, build, , how to build: cmake --preset release
expect "retrieve in a new process" "how to build: cmake --preset release" kx memory.retrieve cli, notes, build
truth "data file begins with the magic" [ "$(head -c 4 "$CTX/data.mem")" = KST2 ]
truth "context.id holds the name" [ "$(cat "$CTX/context.id")" = notes ]

expect "addmemo" "OK: memo procedure|usage appended to 'steps' in context(s): notes" \
  kx memory.addmemo cli, notes, steps, , procedure\|usage, configure then build
kx memory.addmemo cli, notes, steps, , , run the tests > /dev/null
expect "memos" "OK: 'steps' — 2 memo(s)
  1. [procedure|usage] configure then build
  2. [untyped] run the tests" kx memory.memos cli, notes, steps
expect "getmemo" "OK: memo 2 of 2 in 'steps' [untyped]
run the tests" kx memory.getmemo cli, notes, steps, 2
expect "getmemo out of range" "ERROR: 'steps' has 2 memo(s) in context 'notes' — n is 1-based" \
  kx memory.getmemo cli, notes, steps, 3

cp "$CTX/data.mem" "$HOME_DIR/before-delete"
expect "delete" "OK: deleted 'build' from context 'notes' (previous file kept at data.mem.last)" \
  kx memory.delete cli, notes, build
truth "crash net is the file before the deletion" cmp -s "$HOME_DIR/before-delete" "$CTX/data.mem.last"
expect "deleted topic is gone" "" kx memory.retrieve cli, notes, build
expect "deletememo" "OK: memo 1 [procedure|usage] deleted from 'steps' (1 memo(s) left; previous file kept at data.mem.last)" \
  kx memory.deletememo cli, notes, steps, 1

# A file cut in the middle of its last record still loads what came before it; the
# command that finds the damage says so, and the cut original is kept aside.
kx memory.add cli, notes, later, , written last > /dev/null
size=$(stat -c %s "$CTX/data.mem")
truncate -s $((size - 5)) "$CTX/data.mem"
cp "$CTX/data.mem" "$HOME_DIR/cut"
out=$(kx memory.retrieve cli, notes, steps)
truth "truncated file keeps earlier records" [ "${out%%$'\n'*}" = "run the tests" ]
kept=$(ls "$CTX"/data.mem.damaged-* 2>/dev/null | head -1)
truth "the warning names the kept copy" grep -qF "warning: data.mem of context 'notes' did not load whole" <<<"$out"
truth "the kept copy is the cut file" cmp -s "$HOME_DIR/cut" "$kept"
expect "cut record is not loaded, and the warning is given once" "" kx memory.retrieve cli, notes, later

expect "keywords" "OK: keyword 'tests' — 1 memo hit(s):
  steps #1 [untyped]" kx memory.keywords cli, notes, Tests
expect "keyword bar form" "ERROR: keyword 'zebra' not in context 'notes'" kx 'memory.keywords|cli|notes|zebra'
expect "striptotokens" "OK: 3 token(s): hello world report.pdf" kx memory.striptotokens Hello, WORLD! hello Report.PDF
expect "usage" "ERROR: usage  memory.add <botid>, {contexts}, <topic>, <keywords>, <content>" kx memory.add cli, notes
expect "unknown verb" "ERROR: unknown memory verb 'frob'" kx memory.frob x
expect "contexts listing loads nothing" "OK: 1 context(s) under $SHOWN_CONTEXTS for bot 'cli'
  notes  $(stat -c %s "$CTX/data.mem") bytes on disk (not loaded)" kx memory.contexts cli

# A large context (16 MiB of records or more) opens from its derived index,
# data.mem.idx, and answers exactly as a load that reads every record. (Linux only:
# a hundred thousand adds under an emulator take too long for this suite.)
if [[ -z "${KX_EMULATOR:-}" ]]; then
  BIG="$HOME_DIR/.contexts/cli@big"
  awk 'BEGIN { for (i = 1; i <= 100000; i++)
    printf "memory.addmemo cli, big, t%d, , , memo %d about harbor%d and the release pipeline of build %d\n",
      i % 3000, i, i % 40, i % 97 }' | kx >/dev/null
  first=$(kx memory.keywords cli, big, Harbor7)
  truth "a large context's first load writes its index" [ -s "$BIG/data.mem.idx" ]
  expect "the next load, from the index, answers alike" "$first" kx memory.keywords cli, big, Harbor7
  kx memory.addmemo cli, big, late, , note, harbor7 arrives late >/dev/null
  expect_prefix "an append behind the index is found" "OK: keyword 'harbor7' — 2501 memo hit(s):" \
    kx memory.keywords cli, big, harbor7
  expect "a memo appended behind the index reads back" "OK: 'late' — 1 memo(s)
  1. [note] harbor7 arrives late" kx memory.memos cli, big, late
  # Damage anywhere in the index never changes an answer.
  answer=$(kx memory.keywords cli, big, harbor12)
  size=$(stat -c %s "$BIG/data.mem.idx")
  for at in 40 200 $((size / 2)) $((size - 5)); do
    printf '\x5a' | dd of="$BIG/data.mem.idx" bs=1 seek="$at" conv=notrunc 2>/dev/null
    expect "index damaged at byte $at" "$answer" kx memory.keywords cli, big, harbor12
  done
  expect "a deletion after a load from the index" "OK: deleted 't12' from context 'big' (previous file kept at data.mem.last)" \
    kx memory.delete cli, big, t12
  after=$(kx memory.keywords cli, big, harbor12)
  rm -f "$BIG/data.mem.idx"
  expect "a load that reads every record agrees" "$after" kx memory.keywords cli, big, harbor12
fi

out=$(kx memory.help)
is_generated_help() { [[ "$1" == "OK: memory"*"it can't go stale."*"memory.clone"* ]]; }
truth "help is generated" is_generated_help "$out"
truth "bare memory is help" [ "$(kx memory)" = "$out" ]

checks_done memory
