#!/usr/bin/env bash
# The store against trees and names made to hurt it: links planted where a save puts
# its temporary file, links out of the store inside copied folders, names at the
# file system's length limit, terminal controls in names, and a full disk. Every
# scenario runs twice, once locally and once through a resident, from fresh homes;
# the two transcripts must be the same and nothing outside the store may change.
# Usage: hostile_test.sh <path to kx>
set -u
. "$(dirname "$0")/../lib/checks.sh"
kx_runner "$1"
BASE=$(mktemp -d)
RESIDENTS=()
MOUNTS=()
cleanup() {
  for pid in "${RESIDENTS[@]}"; do kill -TERM "$pid" 2>/dev/null; done
  sleep 0.2
  for pid in "${RESIDENTS[@]}"; do kill -KILL "$pid" 2>/dev/null; done
  for m in "${MOUNTS[@]}"; do umount -l "$m" 2>/dev/null; done
  rm -rf "$BASE"
}
trap cleanup EXIT

free_port() {
  node -e "const s=require('net').createServer().listen(0,'127.0.0.1',()=>{console.log(s.address().port);s.close()})"
}

# start_resident <home>: a resident for that home on a free port; sets PORT.
start_resident() {
  PORT=$(free_port)
  "${KX[@]}" --port "$PORT" --conf "$1" boot >/dev/null 2>&1 &
  RESIDENTS+=($!)
  for _ in $(seq 100); do
    curl -s --max-time 1 "http://127.0.0.1:$PORT/health" >/dev/null && return 0
    sleep 0.1
  done
  echo "resident on $PORT did not come up"
  return 1
}

tree_hash() { (cd "$1" && find . -printf '%p %y %l\n' | sort && find . -type f -exec sha256sum {} + | sort); }
no_control_bytes() { ! LC_ALL=C grep -q $'[\x01-\x08\x0b-\x1f\x7f]' <<<"$1"; }

# scenario <mode> <dir>: runs every attack in <dir> and prints a transcript.
scenario() {
  local mode=$1 dir=$2
  local home=$dir/home proj=$dir/proj outside=$dir/outside
  mkdir -p "$home" "$proj/rawdir" "$outside"
  printf 'victim bytes\n' >"$outside/victim.txt"
  printf 'top secret\n' >"$outside/secret.txt"
  local before
  before=$(tree_hash "$outside")
  local port_args=()
  if [[ $mode == resident ]]; then
    start_resident "$home" || return 1
    port_args=(--port "$PORT")
  fi
  k() {
    if [[ $mode == local ]]; then
      KESTRUNE_LOCAL=1 "${KX[@]}" --conf "$home" "$@" 2>/dev/null </dev/null
    else
      "${KX[@]}" "${port_args[@]}" --conf "$home" "$@" 2>/dev/null </dev/null
    fi
  }
  say() { printf '%s\n' "$*" | sed "s#$dir#<dir>#g"; }

  # Names with terminal controls, present before enrollment.
  printf 'x' >"$proj/esc"$'\x1b'"[31mred.txt"
  printf 'x' >"$proj/title"$'\x1b'"]0;PWNED"$'\x07'".txt"
  printf 'x' >"$proj/nl"$'\n'"  f  v99"$'\t'"SPOOFED.txt"
  say "enroll: $(k enroll "$proj" | head -n1)"

  # A link planted at the old temporary name of the next save.
  say "$(k 'fsmk:file c.txt <content><![CDATA[one]]></content>' | head -n1)"
  ln -s "$outside/victim.txt" "$proj/c.txt.tmp\$"
  say "$(k 'fsmk:file c.txt <content><![CDATA[two]]></content>' | head -n1)"
  say "c.txt is a regular file holding: $([[ -f $proj/c.txt && ! -L $proj/c.txt ]] && cat "$proj/c.txt")"

  # ... and for a restore.
  k 'fsmk:file d.txt <content><![CDATA[dee]]></content>' >/dev/null
  say "$(k fs:rm d.txt)"
  ln -s "$outside/victim.txt" "$proj/d.txt.tmp\$"
  say "$(k fs:restore d.txt)"
  say "d.txt is a regular file holding: $([[ -f $proj/d.txt && ! -L $proj/d.txt ]] && cat "$proj/d.txt")"

  # A move into a folder that is a link out of the store.
  k 'fsmk:file e.txt <content><![CDATA[ee]]></content>' >/dev/null
  ln -s "$outside" "$proj/outlink"
  say "$(k fs:move e.txt outlink/e.txt)"

  # Raw copies of a folder holding links: one out of the store, one inside it.
  ln -s "$outside/secret.txt" "$proj/rawdir/secret-link"
  say "$(k fsraw:copy rawdir copied)"
  say "secret readable: $(k fs:cat copied/secret-link)"
  rm "$proj/rawdir/secret-link"
  ln -s ../c.txt "$proj/rawdir/inner-link"
  say "$(k fsraw:copy rawdir copied2)"
  say "inner link copied as a link: $([[ -L $proj/copied2/inner-link ]] && echo yes || echo no)"

  # Names at the length limit: all versions kept, or refused whole.
  local n v name log answers
  for n in 200 240 242 243 245 250 255 256; do
    name=$(printf 'n%.0s' $(seq $((n - 4)))).txt
    answers=""
    for v in 1 2 3; do
      answers+=$(k "fsmk:file $name <content><![CDATA[v$v]]></content>" | head -n1 | cut -c1-40)"|"
    done
    log=$(k fsvctl:log "$name" | head -n1 | sed 's/^LOG n*/LOG n../; s/file: n*/file: n../')
    say "$n bytes: $answers $log"
  done

  # Controls in names never reach the terminal raw.
  local listing err
  listing=$(k fsstat:paths)
  truth "$mode: listing holds no control bytes" no_control_bytes "$listing"
  truth "$mode: a newline in a name forges no listing line" \
    bash -c '! grep -q "^  f  v99" <<<"$1"' _ "$listing"
  say "$listing" | LC_ALL=C sort
  err=$(k fs:cat "nope"$'\x1b'"[31m.txt")
  truth "$mode: an error echoes no control bytes" no_control_bytes "$err"
  say "$err"

  truth "$mode: nothing outside the store changed" [ "$before" == "$(tree_hash "$outside")" ]
}

scenario local "$BASE/local" >"$BASE/local.txt"
scenario resident "$BASE/resident" >"$BASE/resident.txt"
truth "local and resident transcripts are the same" diff "$BASE/local.txt" "$BASE/resident.txt"
truth "a planted temp link does not stop the save" grep -qx 'OK: created file c.txt' "$BASE/local.txt"
truth "the save replaced the file, not the link's target" grep -qx 'c.txt is a regular file holding: two' "$BASE/local.txt"
truth "the restore replaced the file, not the link's target" grep -qx 'd.txt is a regular file holding: dee' "$BASE/local.txt"
truth "a move through a link out of the store is refused" \
  grep -q "^ERROR: path 'outlink/e.txt' leads outside the store" "$BASE/local.txt"
truth "a raw copy of a folder with a link out is refused, naming it" \
  grep -q "^ERROR: raw copy refused: 'rawdir/secret-link' is a link to outside the store" "$BASE/local.txt"
truth "the secret never became readable" bash -c "! grep -q 'top secret' '$BASE/local.txt'"
truth "a link inside the store is copied as a link" grep -qx 'inner link copied as a link: yes' "$BASE/local.txt"
for n in 200 240 242; do
  truth "$n-byte name keeps all three versions" grep -q "^$n bytes: .*LOG n\.\.\.txt  (3 versions)" "$BASE/local.txt"
done
for n in 243 245 250 255 256; do
  truth "$n-byte name is refused with the limit, every time" \
    grep -q "^$n bytes: \(ERROR: name too long: 'n*|\)\{3\} ERROR: no such file: n\.\.\.txt" "$BASE/local.txt"
done
truth "a name with controls is listed escaped" grep -qF '  f  v1	esc\x1b[31mred.txt' "$BASE/local.txt"
truth "a name with a newline is listed on one line" grep -qF '  f  v1	nl\n  f  v99\tSPOOFED.txt' "$BASE/local.txt"
if [[ $failures -ne 0 ]]; then
  echo "--- local transcript"
  cat "$BASE/local.txt"
  echo "--- resident transcript"
  cat "$BASE/resident.txt"
fi

# A full disk under the home (where the history lives) while the tree has room: a
# save that cannot keep its version fails and leaves the working file as it was;
# every acknowledged version reads back with its own bytes.
SMALL=$BASE/small
mkdir -p "$SMALL"
if [[ $(id -u) -eq 0 ]] && mount -t tmpfs -o size=1m tmpfs "$SMALL" 2>/dev/null; then
  MOUNTS+=("$SMALL")
  mkdir -p "$SMALL/home" "$BASE/fullproj"
  fk() { KESTRUNE_LOCAL=1 "${KX[@]}" --conf "$SMALL/home" "$@" 2>/dev/null </dev/null; }
  fk enroll "$BASE/fullproj" >/dev/null
  declare -A acked=()
  last=""
  save() { # <content>
    local out
    out=$(fk "fsmk:file f.txt <content><![CDATA[$1]]></content>")
    if [[ $out =~ saved\ as\ v([0-9]+) ]]; then
      acked[${BASH_REMATCH[1]}]=$1
      last=$1
    fi
  }
  save g1
  save g2
  dd if=/dev/zero of="$SMALL/filler" bs=4k 2>/dev/null
  refused=$(fk "fsmk:file f.txt <content><![CDATA[g3]]></content>")
  expect_prefix "a save the history cannot hold is refused" "ERROR: version history not written (" \
    printf '%s' "$refused"
  truth "the refused save left the working file as it was" [ "$(cat "$BASE/fullproj/f.txt")" == "$last" ]
  save g4
  rm -f "$SMALL/filler"
  save g5
  save g6
  bad=0
  for v in "${!acked[@]}"; do
    got=$(fk fsvctl:open f.txt "$v")
    [[ $got == "${acked[$v]}" ]] || {
      echo "v$v reads '$got', acknowledged as '${acked[$v]}'"
      bad=1
    }
  done
  truth "every acknowledged version reads back with its own bytes" [ $bad -eq 0 ]
  truth "four saves were acknowledged" [ ${#acked[@]} -eq 4 ]
  versions=$(fk fsvctl:log f.txt | head -n1)
  truth "the log counts exactly the acknowledged saves" [ "$versions" == "LOG f.txt  (${#acked[@]} versions)" ]
else
  echo "skipped: full-disk checks need root and a tmpfs mount"
fi

checks_done "hostile trees"
