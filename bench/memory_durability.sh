#!/usr/bin/env bash
# Memory-store figures through the real kx, SQLite FTS5 side by side in the same run:
#   bench/memory_durability.sh [path to kx]      (MEMOS=100000 by default)
# - memory.add per second, one add per command in one process, in the group-sync
#   (page cache) and each-add-durable modes; SQLite one insert per transaction
#   (synchronous=FULL) and one transaction for all;
# - cold start to the first keyword answer, and peak RSS of that process, for MEMOS memos;
# - keyword query p50/p99 inside one process (a stream of lookups).
set -euo pipefail
KX=$(realpath "${1:-build/src/launcher/kx}")
MEMOS=${MEMOS:-100000}
ADDS=${ADDS:-2000}
export KESTRUNE_LOCAL=1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
port=$((20000 + RANDOM % 20000))
kx() { "$KX" --conf "$work/home" --port "$port" "$@"; }
now() { date +%s.%N; }
rate() { awk -v n="$1" -v a="$2" -v b="$(now)" 'BEGIN { printf "%.0f/s (%d in %.2f s)", n / (b - a), n, b - a }'; }
words=(alpha bravo charlie delta echo foxtrot golf hotel india juliet kilo lima mike november oscar papa)
# Command lines made by one awk process: a shell loop forking per memo would take
# longer than the figures it feeds.
lines() { # <count> <format with %s for the topic number and %s for the memo>
  awk -v n="$1" -v fmt="$2" -v topics="${3:-0}" -v w="${words[*]}" 'BEGIN {
    split(w, word, " ")
    for (i = 1; i <= n; i++) {
      memo = sprintf("memo %d about %s %s and build %d of the release pipeline",
                     i, word[i % 16 + 1], word[int(i / 16) % 16 + 1], i % 97)
      printf fmt "\n", (topics > 0 ? i % topics : i), memo
    }
  }'
}

lines "$ADDS" "memory.add cli, grp, t%s, , %s" >"$work/adds.txt"
sed 's/, grp,/, dur,/' "$work/adds.txt" >"$work/adds_dur.txt"
echo "== memory.add, one add per command, $ADDS adds"
kx memory.sync cli, dur, each >/dev/null
t=$(now); kx <"$work/adds.txt" >/dev/null; echo "kestrune group sync (page cache): $(rate "$ADDS" "$t")"
t=$(now); kx <"$work/adds_dur.txt" >/dev/null; echo "kestrune each add durable:       $(rate "$ADDS" "$t")"
db="$work/fts.db"
sqlite3 "$db" "PRAGMA journal_mode=WAL; CREATE VIRTUAL TABLE memos USING fts5(topic, content);" >/dev/null
awk -F', ' '{ printf "INSERT INTO memos VALUES(\x27%s\x27, \x27%s\x27);\n", $3, $5 }' "$work/adds.txt" >"$work/rows.sql"
t=$(now); { echo "PRAGMA synchronous=FULL;"; cat "$work/rows.sql"; } | sqlite3 "$db"
echo "sqlite FTS5 one insert per transaction (WAL, synchronous=FULL): $(rate "$ADDS" "$t")"
t=$(now); { echo "BEGIN;"; cat "$work/rows.sql"; echo "COMMIT;"; } | sqlite3 "$db"
echo "sqlite FTS5 one transaction for all:                         $(rate "$ADDS" "$t")"

echo "== $MEMOS memos: cold start to the first keyword answer"
lines "$MEMOS" "memory.addmemo cli, big, t%s, , , %s" $((MEMOS / 2 + 1)) >"$work/big.txt"
kx <"$work/big.txt" >/dev/null
size=$(stat -c %s "$work/home/.contexts/cli@big/data.mem")
# Cold: a fresh process with the page cache dropped (as root; otherwise only a fresh
# process). The first open reads every record and writes data.mem.idx beside a large
# data.mem; the next opens use it.
for run in "first open" "with data.mem.idx"; do
  sync; echo 3 2>/dev/null >/proc/sys/vm/drop_caches || true
  t=$(now)
  /usr/bin/time -f "%M" -o "$work/rss" "$KX" --conf "$work/home" --port "$port" memory.keywords cli, big, hotel >/dev/null
  awk -v a="$t" -v b="$(now)" -v s="$size" -v r="$(cat "$work/rss")" -v run="$run" \
    'BEGIN { printf "kestrune (%s): %.3f s, peak RSS %.0f MB for a %.0f MB data.mem (%.2fx)\n", run, b - a, r / 1024, s / 1e6, r * 1024 / s }'
done
awk -F', ' '{ printf "INSERT INTO memos VALUES(\x27%s\x27, \x27%s\x27);\n", $3, $6 }' "$work/big.txt" >"$work/big.sql"
rm -f "$db"; sqlite3 "$db" "CREATE VIRTUAL TABLE memos USING fts5(topic, content);"
{ echo "BEGIN;"; cat "$work/big.sql"; echo "COMMIT;"; } | sqlite3 "$db"
sync; echo 3 >/proc/sys/vm/drop_caches 2>/dev/null || true
t=$(now)
/usr/bin/time -f "%M" -o "$work/rss" sqlite3 "$db" "SELECT count(*) FROM memos WHERE memos MATCH 'hotel';" >/dev/null
awk -v a="$t" -v b="$(now)" -v r="$(cat "$work/rss")" \
  'BEGIN { printf "sqlite FTS5: %.3f s, peak RSS %.0f MB\n", b - a, r / 1024 }'

echo "== keyword query latency (1000 lookups in one process, per command incl. formatting)"
for i in $(seq 1 1000); do echo "memory.keywords cli, big, ${words[$((i % 16))]}$((i % 3 == 0 ? 0 : 1))"; done >"$work/q.txt"
t=$(now); kx <"$work/q.txt" >/dev/null; awk -v a="$t" -v b="$(now)" 'BEGIN { printf "kestrune: %.1f us per lookup on average, load included\n", (b - a) * 1e6 / 1000 }'
