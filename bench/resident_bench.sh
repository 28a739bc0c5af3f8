#!/usr/bin/env bash
# Figures for the resident, printed as a small report:
#   - `kx fsstat:exists x` as a process: forwarded to a running resident vs run
#     locally (KESTRUNE_LOCAL=1), median wall time of 50 runs each (hyperfine when
#     present), with an empty home and with an enrolled tree of 2,000 small files
#     (which a local run loads), and where a forwarded run's time goes;
#   - "/health" and an authenticated POST /console/exec of `fsstat:exists x` with wrk
#     at 1, 16 and 64 connections: requests/s and p99 latency (every request is its
#     own connection, as the server answers "Connection: close");
#   - the resident's thread count and resident memory after 100,000 requests of each;
#   - /health and a forwarded kx while 10,000 idle connections (half-sent requests)
#     and 1,100 idle WebSockets are held open.
# Usage: bench/resident_bench.sh [path to a release kx] [seconds per wrk run, default 10]
set -euo pipefail
cd "$(dirname "$0")/.."
KX=$(realpath "${1:-build/release/src/launcher/kx}")
SECONDS_PER_RUN=${2:-10}
[ -x "$KX" ] || { echo "no kx at $KX (build it: cmake --build build/release --target kx)" >&2; exit 1; }
command -v wrk >/dev/null || { echo "wrk is needed (apt-get install wrk)" >&2; exit 1; }

. bench/lib.sh

start_resident() { # <home>
  "$KX" --port "$PORT" --conf "$1" boot >/dev/null 2>&1 &
  RESIDENT=$!
  for _ in $(seq 50); do curl -s "http://127.0.0.1:$PORT/health" >/dev/null && break; sleep 0.1; done
}
stop_resident() {
  kill -TERM "$RESIDENT" && wait "$RESIDENT" 2>/dev/null
  RESIDENT=
}

# Median wall time in milliseconds of 50 runs of the command.
median_ms() {
  if command -v hyperfine >/dev/null; then
    local json="$WORK/hyperfine.json" quoted
    printf -v quoted '%q ' "$@"
    hyperfine -N -i --runs 50 --warmup 3 --export-json "$json" "$quoted" >/dev/null 2>&1
    jq -r '.results[0].median * 1000 | . * 100 | round / 100' "$json"
    return
  fi
  local times=()
  for _ in $(seq 50); do
    local start end
    start=$(date +%s%N)
    "$@" >/dev/null 2>&1 || true
    end=$(date +%s%N)
    times+=($(((end - start) / 1000)))
  done
  printf '%s\n' "${times[@]}" | sort -n | awk '{a[NR]=$1} END {printf "%.2f", (a[25]+a[26])/2/1000}'
}

compare() { # <home> <label>
  local forwarded local_run
  # Locally first, while no resident holds the stores (a local run next to a
  # resident leaves the watched trees to it and loads less).
  local_run=$(cd "$WORK" && KESTRUNE_LOCAL=1 median_ms "$KX" --port "$PORT" --conf "$1" fsstat:exists x)
  start_resident "$1"
  # The same home: a kx of another home is refused by the resident and runs locally.
  forwarded=$(cd "$WORK" && median_ms "$KX" --port "$PORT" --conf "$1" fsstat:exists x)
  printf '%-28s forwarded %7s ms   local %7s ms\n' "$2" "$forwarded" "$local_run"
  stop_resident
}
echo "== kx fsstat:exists x as a process (median of 50)"
compare "$WORK/home" "empty home:"
mkdir -p "$WORK/tree"
for i in $(seq 2000); do echo "line $i" >"$WORK/tree/f$i.txt"; done
KESTRUNE_LOCAL=1 "$KX" --conf "$WORK/enrolled" enroll "$WORK/tree" >/dev/null 2>&1
compare "$WORK/enrolled" "2,000 enrolled files:"
start_resident "$WORK/home"

TOKEN=$(tr -d '[:space:]' <"$WORK/home/resident.token")
cat >"$WORK/exec.lua" <<LUA
wrk.method = "POST"
wrk.body = "fsstat:exists x"
wrk.headers["Authorization"] = "Bearer $TOKEN"
LUA

echo "== where a forwarded kx fsstat:exists x spends its time"
floor=$(median_ms /bin/true)
# "collab" is answered before any home, store or socket is touched: start-up alone.
usage=$(cd "$WORK" && median_ms "$KX" collab)
fwd=$(cd "$WORK" && median_ms "$KX" --port "$PORT" --conf "$WORK/home" fsstat:exists x)
one=$(wrk -t1 -c1 -d3s --latency -s "$WORK/exec.lua" "http://127.0.0.1:$PORT/console/exec?bot=cli" |
  awk '$1 == "50%" {print $2}')
printf 'a process that does nothing (/bin/true): %s ms; kx starting and exiting at once: %s ms\n' "$floor" "$usage"
loader=$(cd "$WORK" && LD_DEBUG=statistics "$KX" collab 2>&1 | awk '/total startup time in dynamic loader/ {print $(NF-1)}' || true)
printf 'of which the dynamic loader: %s cycles\n' "$loader"
printf 'the request itself over loopback (wrk, 1 connection, median): %s; forwarded kx in all: %s ms\n' "$one" "$fwd"

total=0
run_wrk() { # <label> <connections> <seconds> <url> [wrk args...]
  local label=$1 c=$2 seconds=$3 target=$4 threads=$(( $2 < 2 ? 1 : 2 ))
  shift 4
  local out
  out=$(wrk -t"$threads" -c"$c" -d"${seconds}s" --latency "$@" "$target")
  local rps p99 count errors
  rps=$(awk '/^Requests\/sec/ {print $2}' <<<"$out")
  p99=$(awk '$1 == "99%" {print $2}' <<<"$out")
  count=$(awk '/requests in/ {print $1}' <<<"$out")
  errors=$(awk '/Socket errors|Non-2xx/ {printf "%s ", $0}' <<<"$out")
  total=$((total + count))
  printf '%-14s %3d connections: %10s req/s   p99 %8s   (%s requests%s)\n' "$label" "$c" "$rps" "$p99" \
    "$count" "${errors:+; $errors}"
}
report_process() {
  sleep 3  # let lingering closes finish
  local threads rss hwm
  threads=$(awk '/^Threads:/ {print $2}' "/proc/$RESIDENT/status")
  rss=$(awk '/^VmRSS:/ {print $2}' "/proc/$RESIDENT/status")
  hwm=$(awk '/^VmHWM:/ {print $2}' "/proc/$RESIDENT/status")
  echo "   resident after $total requests: threads $threads   memory ${rss} KiB resident (peak ${hwm} KiB)"
}
echo "== resident at rest: threads $(awk '/^Threads:/ {print $2}' "/proc/$RESIDENT/status")   memory $(awk '/^VmRSS:/ {print $2}' "/proc/$RESIDENT/status") KiB"
for route in health exec; do
  total=0
  if [ $route = health ]; then
    target="http://127.0.0.1:$PORT/health" args=()
    echo "== GET /health with wrk (${SECONDS_PER_RUN}s per run)"
  else
    target="http://127.0.0.1:$PORT/console/exec?bot=cli" args=(-s "$WORK/exec.lua")
    echo "== POST /console/exec 'fsstat:exists x' with the token, with wrk (${SECONDS_PER_RUN}s per run)"
  fi
  for c in 1 16 64; do run_wrk "$route" "$c" "$SECONDS_PER_RUN" "$target" "${args[@]}"; done
  while [ "$total" -lt 100000 ]; do
    out=$(wrk -t2 -c16 -d5s "${args[@]}" "$target")
    total=$((total + $(awk '/requests in/ {print $1}' <<<"$out")))
  done
  report_process
done

echo "== while 10,000 idle connections and 1,100 idle WebSockets are held"
ulimit -n "$(ulimit -Hn)"
KX_TOKEN=$TOKEN node bench/hold_idle.mjs "$PORT" 10000 1100 >"$WORK/hold.out" 2>&1 &
HOLDER=$!
for _ in $(seq 600); do grep -q holding "$WORK/hold.out" && break; sleep 0.1; done
echo "   $(cat "$WORK/hold.out"); resident: threads $(awk '/^Threads:/ {print $2}' "/proc/$RESIDENT/status")   memory $(awk '/^VmRSS:/ {print $2}' "/proc/$RESIDENT/status") KiB"
out=$(wrk -t1 -c1 -d5s --latency "http://127.0.0.1:$PORT/health")
printf '   /health, 1 connection: median %s   p99 %s   max %s\n' "$(awk '$1 == "50%" {print $2}' <<<"$out")" \
  "$(awk '$1 == "99%" {print $2}' <<<"$out")" "$(awk '$1 == "Latency" {print $4}' <<<"$out")"
fwd=$(cd "$WORK" && median_ms "$KX" --port "$PORT" --conf "$WORK/home" fsstat:exists x)
echo "   forwarded kx fsstat:exists x (median of 50): $fwd ms"
kill "$HOLDER"
wait "$HOLDER" 2>/dev/null || true
