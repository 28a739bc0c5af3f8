#!/usr/bin/env bash
# The memory store under damage, several writers, a full disk and kill -9, through
# the real kx. What is on disk is read back by an independent reader of the format
# (read_data_mem.mjs) as well as by kx.
# Usage: memory_durability_test.sh <path to kx>
set -u
export KESTRUNE_LOCAL=1
. "$(dirname "$0")/../lib/checks.sh"
kx_runner "$1"
READER="$(cd "$(dirname "$0")" && pwd)/read_data_mem.mjs"
WORK=$(mktemp -d)
MOUNTED=""
cleanup() {
  [[ -n "$MOUNTED" ]] && umount "$MOUNTED" 2>/dev/null
  rm -rf "$WORK"
}
trap cleanup EXIT
PORT=$((20000 + RANDOM % 20000))  # no resident listens there: commands run here

kxh() { local home=$1; shift; "${KX[@]}" --conf "$home" --port "$PORT" "$@" 2>/dev/null; }
data_of() { echo "$1/.contexts/cli@$2/data.mem"; }
# Topics on disk per the independent reader, sorted; fails when the file does not read whole.
reader_topics() { node "$READER" "$1" | cut -f4 | sort -u; }
# Topics as kx lists them.
kx_topics() {
  kxh "$1" memory.contexts cli, "$2" | sed -n 's/^  \(.*\)  ([0-9]* memo(s))$/\1/p' | sort -u
}

# --- damage at every kind of byte ----------------------------------------------------
SEED="$WORK/seed"
for i in 1 2 3 4 5 6; do
  kxh "$SEED" memory.addmemo cli, ctx, "r$i", "Kw$i", note, "memo number $i with some words" >/dev/null
done
SEED_FILE=$(data_of "$SEED" ctx)
mapfile -t STARTS < <(node "$READER" "$SEED_FILE" | cut -f1)
mapfile -t ENDS < <(node "$READER" "$SEED_FILE" | cut -f2)
truth "seed has six records" [ "${#STARTS[@]}" -eq 6 ]

case_no=0
# damage_case <name> <damage offset: records ending at or before it must survive>
#             <expect a warning: yes|no> <mutation command on $file...>
damage_case() {
  local name=$1 safe_before=$2 warned=$3
  shift 3
  case_no=$((case_no + 1))
  local home="$WORK/case$case_no"
  mkdir -p "$home/.contexts"
  cp -r "$SEED/.contexts/cli@ctx" "$home/.contexts/"
  file=$(data_of "$home" ctx)
  "$@"
  cp "$file" "$WORK/damaged"
  local expected=()
  for k in "${!ENDS[@]}"; do
    if [ "${ENDS[$k]}" -le "$safe_before" ]; then expected+=("r$((k + 1))"); fi
  done
  local out
  out=$(kxh "$home" memory.add cli, ctx, new1, , first after the damage)
  kxh "$home" memory.add cli, ctx, new2, , second after the damage >/dev/null
  kxh "$home" memory.delete cli, ctx, new1 >/dev/null
  expected+=(new2)
  local want got listed copy
  want=$(printf '%s\n' "${expected[@]}" | sort -u)
  got=$(reader_topics "$file")
  listed=$(kx_topics "$home" ctx)
  copy=$(ls "$file".damaged-* 2>/dev/null | head -1)
  if [[ "$warned" == yes ]]; then
    truth "$name: the add answers OK" [ "${out%%$'\n'*}" = "OK: memory 'new1' added to context(s): ctx" ]
    truth "$name: a warning names the kept copy" grep -qF "warning: data.mem of context 'ctx' did not load whole" <<<"$out"
    truth "$name: the kept copy is the damaged file" cmp -s "$copy" "$WORK/damaged"
    truth "$name: the warning names it" grep -qF "$copy" <<<"$out"
  else
    truth "$name: no warning for a whole file" [ "$out" = "OK: memory 'new1' added to context(s): ctx" ]
  fi
  # Every record whole before the damage is there, and the reader agrees with kx.
  for extra in ${EXTRA:-}; do want=$(printf '%s\n%s\n' "$want" "$extra" | sort -u); done
  local missing
  missing=$(comm -23 <(echo "$want") <(echo "$got"))
  [[ -z "$missing" ]] || report_failure "$name: records intact before the damage" "$got" "$want"
  truth "$name: the reader agrees with kx" [ "$got" = "$listed" ]
}

flip() { # <file> <offset> <mask>
  local byte
  byte=$(od -An -tu1 -j "$2" -N1 "$1" | tr -d ' ')
  printf "$(printf '\\%03o' $((byte ^ $3)))" | dd of="$1" bs=1 seek="$2" conv=notrunc status=none
}

for k in "${!STARTS[@]}"; do
  damage_case "cut at record boundary $k" "${STARTS[$k]}" no eval 'truncate -s '"${STARTS[$k]}"' "$file"'
  mid=$(((STARTS[k] + ENDS[k]) / 2))
  damage_case "cut inside record $k" "$mid" yes eval 'truncate -s '"$mid"' "$file"'
done
R3=${STARTS[2]}
TOTAL=${ENDS[5]}
damage_case "bit flip in the magic" "$TOTAL" yes eval 'flip "$file" 0 1'
# Behind a damaged length, flag word or keyword count the later records are found again.
export EXTRA="r4 r5 r6"
damage_case "bit flip in a length field" "$R3" yes eval 'flip "$file" $((R3 + 6)) 16'
damage_case "bit flip in a flag word" "$R3" yes eval 'flip "$file" $((R3 + 2)) 4'
KWCOUNT=$((R3 + 4 + 4 + $(od -An -tu4 -j $((R3 + 4)) -N4 "$SEED_FILE" | tr -d ' ') + 4 + 2))
damage_case "bit flip in the heap (a keyword count)" "$R3" yes eval 'flip "$file" $KWCOUNT 64'
unset EXTRA

# --- two writers and a deleter on one context ----------------------------------------
SHARED="$WORK/shared"
seq 1 1000 | sed 's/.*/memory.addmemo cli, shared, a&, , , memo a&/' >"$WORK/a.txt"
seq 1 1000 | sed 's/.*/memory.addmemo cli, shared, b&, , , memo b&/' >"$WORK/b.txt"
seq 1 40 | sed 's/.*/memory.add cli, shared, victim, , doomed &\nmemory.delete cli, shared, victim/' >"$WORK/d.txt"
kxh "$SHARED" <"$WORK/a.txt" >"$WORK/a.out" &
writer_a=$!
kxh "$SHARED" <"$WORK/b.txt" >"$WORK/b.out" &
writer_b=$!
kxh "$SHARED" <"$WORK/d.txt" >/dev/null &
deleter=$!
wait "$writer_a" "$writer_b" "$deleter"
truth "every add was acknowledged" [ "$(cat "$WORK/a.out" "$WORK/b.out" | grep -c '^OK: memo')" -eq 2000 ]
on_disk=$(reader_topics "$(data_of "$SHARED" shared)")
truth "all 2,000 memos are in the file" [ "$(grep -c '^[ab][0-9]*$' <<<"$on_disk")" -eq 2000 ]
truth "the deleted topic is gone" [ "$(grep -c victim <<<"$on_disk")" -eq 0 ]
expect_prefix "a new process sees all 2,000" "OK: context 'shared' — 2000 topic(s), 2000 memo(s)" \
  kxh "$SHARED" memory.contexts cli, shared

# --- kill -9 during adds and rewrites -----------------------------------------------
kill_tree() {
  kill -STOP "$1" 2>/dev/null
  local child
  for child in $(pgrep -P "$1"); do kill_tree "$child"; done
  kill -KILL "$1" 2>/dev/null
}
KILLS="$WORK/kills"
ACKED="$WORK/acked"
: >"$ACKED"
# The kill points scale with how long one add takes here (a sanitizer build is slower),
# so every run can reach some acknowledged adds before it dies.
started=$(date +%s%N)
[[ "$(kxh "$KILLS" memory.add cli, kills, warmup, , warm)" == OK:* ]] && echo warmup >>"$ACKED"
one_add_ms=$((($(date +%s%N) - started) / 1000000))
for run in $(seq 1 50); do
  (
    for i in $(seq 1 1000); do
      out=$(kxh "$KILLS" memory.add cli, kills, "k${run}_$i", , memo $run $i)
      [[ "$out" == OK:* ]] && echo "k${run}_$i" >>"$ACKED"
      if ((i % 3 == 0)); then  # rewrites: replace a topic, delete one
        kxh "$KILLS" memory.add cli, kills, "k${run}_1", , replaced $run $i >/dev/null
      fi
    done
  ) &
  loop=$!
  sleep "$(awk -v base="$one_add_ms" -v r="$RANDOM" 'BEGIN { printf "%.3f", (base + r % 300) / 1000 }')"
  kill_tree "$loop"  # kx goes down mid-command, wherever it is
  wait "$loop" 2>/dev/null
done
kxh "$KILLS" memory.contexts cli, kills >/dev/null  # mends a torn tail, if any
on_disk=$(reader_topics "$(data_of "$KILLS" kills)")
truth "the file reads whole after the kills" node "$READER" "$(data_of "$KILLS" kills)" >/dev/null
missing=$(comm -23 <(sort -u "$ACKED") <(echo "$on_disk"))
truth "some adds were acknowledged before the kills" [ -s "$ACKED" ]
[[ -z "$missing" ]] || report_failure "every acknowledged memo survives kill -9" "$missing" "(none missing)"

# --- a full disk ----------------------------------------------------------------------
if [[ $(id -u) -eq 0 ]] && mkdir -p "$WORK/small" && mount -t tmpfs -o size=256k tmpfs "$WORK/small" 2>/dev/null; then
  MOUNTED="$WORK/small"
  FULL="$WORK/small/home"
  : >"$ACKED"
  add_full() {
    local out
    out=$(kxh "$FULL" memory.add cli, full, "$1", , "$(head -c 5000 /dev/zero | tr '\0' x) $1")
    [[ "$out" == OK:* ]] && echo "$1" >>"$ACKED"
    echo "$out"
  }
  for i in $(seq 1 20); do add_full "before$i" >/dev/null; done
  dd if=/dev/zero of="$WORK/small/filler" bs=4k status=none 2>/dev/null
  out=$(add_full while_full)
  truth "an add on a full disk fails" [ "${out:0:6}" = "ERROR:" ]
  rm -f "$WORK/small/filler"
  for i in $(seq 1 5); do add_full "after$i" >/dev/null; done
  on_disk=$(reader_topics "$(data_of "$FULL" full)")
  missing=$(comm -23 <(sort -u "$ACKED") <(echo "$on_disk"))
  [[ -z "$missing" ]] || report_failure "every acknowledged memo survives a full disk" "$missing" "(none)"
  truth "adds after space returns are acknowledged" grep -q after5 "$ACKED"
  truth "the file reads whole" node "$READER" "$(data_of "$FULL" full)" >/dev/null
else
  echo "skipped: full-disk check (needs root to mount a small tmpfs)"
fi

checks_done "memory durability"
