#!/usr/bin/env bash
# Memory-store figures at scale, with SQLite FTS5 on the same memos as the anchor.
#   bench/memory_vs_sqlite.sh            (MEMOS=1000000 by default; MEMOS=100000 for a quick run)
# Prints: generation, load time, resident memory and keyword lookup latency of a
# context of MEMOS 200-byte memos; then SQLite's bulk and per-row insert rates, open
# time and keyword query time on the same data.
set -euo pipefail
cd "$(dirname "$0")/.."
MEMOS=${MEMOS:-1000000}
cmake -S . -B build/bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DKX_BENCH=ON -DKX_TESTS=OFF >/dev/null
cmake --build build/bench --target memory_scale >/dev/null
scale=build/bench/bench/memory_scale
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
ctx="$work/.contexts/cli@big"

now() { date +%s.%N; }
elapsed() { awk -v a="$1" -v b="$(now)" 'BEGIN { printf "%.3f", b - a }'; }

echo "== kestrune memory store, $MEMOS memos of 200 bytes"
"$scale" generate "$ctx" "$MEMOS" "$work/memos.tsv"
# "Cold" = a fresh process, with the page cache dropped first where this runs as root
# (otherwise data.mem and data.mem.idx may still be cached from the previous step).
drop_caches() {
  sync
  if echo 3 2>/dev/null >/proc/sys/vm/drop_caches; then echo "(page cache dropped)"; else echo "(page cache not dropped: not root)"; fi
}
echo "-- first open: no index yet, every record is read and data.mem.idx written"
drop_caches
"$scale" load "$ctx"
echo "-- cold open with the index $(drop_caches)"
"$scale" load "$ctx"
echo "-- warm open with the index"
"$scale" load "$ctx"
echo "index file: $(du -m "$ctx/data.mem.idx" | cut -f1) MB beside a $(du -m "$ctx/data.mem" | cut -f1) MB data.mem"
"$scale" verbs "$work/.contexts" cli big

echo "== sqlite $(sqlite3 --version | cut -d' ' -f1) FTS5, same memos"
db="$work/fts.db"
sqlite3 "$db" "CREATE VIRTUAL TABLE memos USING fts5(topic, content);"
t=$(now)
sqlite3 "$db" ".mode tabs" ".import $work/memos.tsv memos"
s=$(elapsed "$t")
awk -v n="$MEMOS" -v s="$s" 'BEGIN { printf "bulk import (one transaction): %.2f s, %.0f memos/s\n", s, n / s }'
echo "database size: $(du -m "$db" | cut -f1) MB"

# Per-row: each INSERT its own transaction, like one memory.add per command.
rows=${ROWS:-2000}
head -n "$rows" "$work/memos.tsv" |
  awk -F'\t' '{ gsub(/\x27/, "\x27\x27"); printf "INSERT INTO memos VALUES(\x27x%s\x27, \x27%s\x27);\n", $1, $2 }' \
  >"$work/rows.sql"
t=$(now)
sqlite3 "$db" <"$work/rows.sql"
s=$(elapsed "$t")
awk -v n="$rows" -v s="$s" 'BEGIN { printf "per-row autocommit insert (default sync): %.0f memos/s (%d rows in %.2f s)\n", n / s, n, s }'
t=$(now)
{ echo "PRAGMA synchronous=OFF;"; cat "$work/rows.sql"; } | sqlite3 "$db"
s=$(elapsed "$t")
awk -v n="$rows" -v s="$s" 'BEGIN { printf "per-row autocommit insert (synchronous=OFF): %.0f memos/s\n", n / s }'

drop_caches >/dev/null
t=$(now)
/usr/bin/time -f "%M" -o "$work/rss" sqlite3 "$db" "SELECT count(*) FROM memos WHERE memos MATCH 'kalo';" >/dev/null
echo "cold open + first query (new process, page cache dropped as above): $(elapsed "$t") s, peak RSS $(awk '{ printf "%.0f", $1 / 1024 }' "$work/rss") MB"
t=$(now)
sqlite3 "$db" "SELECT count(*) FROM memos WHERE memos MATCH 'kalo';" >/dev/null
echo "warm open + first query (new process): $(elapsed "$t") s"

# Keyword queries inside one open session, the same words as the store's lookups.
words=$(awk -F'\t' 'NR % 997 == 0 { split($2, w, " "); print w[2]; if (++n == 200) exit }' "$work/memos.tsv")
{
  echo ".output /dev/null"
  for w in $words; do echo "SELECT topic FROM memos WHERE memos MATCH '\"$w\"' LIMIT 50;"; done
} >"$work/queries.sql"
n=$(echo "$words" | wc -w)
t=$(now)
sqlite3 "$db" <"$work/queries.sql"
s=$(elapsed "$t")
awk -v n="$n" -v s="$s" 'BEGIN { printf "keyword query (MATCH, LIMIT 50): %.1f us mean over %d queries (incl. one open)\n", s / n * 1e6, n }'
