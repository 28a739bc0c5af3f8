#!/usr/bin/env bash
# The resident's life seen from the command line: bring-up on first use,
# forwarding, one resident per port, eviction of an older one, a foreign holder,
# shutdown, and the foreground start verbs.
. "$(dirname "$0")/lib.sh"

# --- first use spawns a resident, later calls are forwarded -----------------
P=$(free_port)
mkdir -p "$WORK/cwd"
out=$(cd "$WORK/cwd" && "$KX" --port "$P" --conf "$CONF" pwd 2>"$WORK/err")
same "first call is answered by a spawned resident in the caller's directory" "OK: $WORK/cwd" "$out"
same "nothing is said on stderr when forwarding works" "" "$(cat "$WORK/err")"
RESIDENT=$(track_port "$P")
check "a resident now listens on the port" test -n "$RESIDENT"
check "the resident was told the home override" \
  grep -q -- "--conf" "/proc/$RESIDENT/cmdline"
same "health names the app and version" '{"ok":true,"app":"Kestrune","version":"1.0.11"}' "$(health_sans_home "$P")"
token=$(home_token)
check "the home's token is 64 hex characters" grep -qxE '[0-9a-f]{64}' "$CONF/resident.token"
same "and only its owner may read it" 600 "$(stat -c %a "$CONF/resident.token")"
fingerprint=$(health "$P" | sed -n 's/.*"home":"\([0-9a-f]*\)".*/\1/p')
same "health shows a short fingerprint of the home" 12 "${#fingerprint}"
check "never its path" eval "! health $P | grep -q kx-resident-e2e"

local_out=$(cd /tmp && KESTRUNE_LOCAL=1 "$KX" --port "$P" --conf "$CONF" help fs)
fwd_out=$(cd /tmp && "$KX" --port "$P" --conf "$CONF" help fs)
same "a forwarded command prints what a local run prints" "$local_out" "$fwd_out"
same "the same resident still serves" "$RESIDENT" "$(pid_on_port "$P")"

piped=$(cd /tmp && printf 'pwd\r\n\npwd\n' | "$KX" --port "$P")
same "piped lines are forwarded one by one" $'OK: /tmp\nOK: /tmp' "$piped"

# --- another home on the same port runs locally -----------------------------
mkdir -p "$WORK/homeB"
out=$(cd /tmp && printf 'pwd\npwd\n' | "$KX" --port "$P" --conf "$WORK/homeB" 2>"$WORK/err")
same "a kx of another home is told so once" \
  "Kestrune: port $P serves another home — running this command locally" "$(cat "$WORK/err")"
same "and runs every line locally" $'OK: /tmp\nOK: /tmp' "$out"
check "without touching the resident's home token" test ! -e "$WORK/homeB/resident.token"
home_a() { find "$CONF" "$HOME" -type f -printf '%p %s\n' | sort; }
a_before=$(home_a)
out=$(cd /tmp && "$KX" --port "$P" --conf "$WORK/homeB" memory.add cli, notes, build, , written by B 2>/dev/null)
same "a write of another home is done" "OK: memory 'build' added to context(s): notes" "$out"
check "in that home" grep -rqs "written by B" "$WORK/homeB"
same "and the resident's home is untouched" "$a_before" "$(home_a)"
check "not even by its memory" eval "! grep -rqs 'written by B' '$CONF' '$HOME'"

timeout 20 "$KX" --port "$P" --conf "$CONF" boot
same "a second boot on a served port exits 0 at once" 0 $?

# --- the token survives a restart -------------------------------------------------
same "without the token shutdown is refused with 401" 401 \
  "$(curl -s -o /dev/null -w '%{http_code}' -X POST -H 'X-Kst-Control: shutdown' "http://127.0.0.1:$P/shutdown")"

# --- shutdown -----------------------------------------------------------------
refused=$(kx_curl -X POST "http://127.0.0.1:$P/shutdown")
same "shutdown without the control header is refused" \
  '{"ok":false,"error":"missing X-Kst-Control: shutdown"}' "$refused"
answer=$(shutdown_resident "$P")
same "shutdown is acknowledged" \
  "{\"ok\":true,\"app\":\"Kestrune\",\"version\":\"1.0.11\",\"home\":\"$fingerprint\",\"shutting_down\":true}" "$answer"
check "the resident process ends after shutdown" wait_until 50 pid_gone "$RESIDENT"
check "the port is free again" port_free "$P"

# --- two boots at once: exactly one resident --------------------------------
P2=$(free_port)
"$KX" --port "$P2" --conf "$CONF" boot >/dev/null 2>&1 &
B1=$!
"$KX" --port "$P2" --conf "$CONF" boot >/dev/null 2>&1 &
B2=$!
STARTED_PIDS+=("$B1" "$B2")
wait_until 50 listening "$P2"
sleep 0.5
alive=0
for pid in $B1 $B2; do kill -0 "$pid" 2>/dev/null && alive=$((alive + 1)); done
same "of two simultaneous boots exactly one stays" 1 "$alive"
kill -TERM "$B1" "$B2" 2>/dev/null
wait "$B1" "$B2" 2>/dev/null
check "SIGTERM ends the resident and frees the port" wait_until 30 port_free "$P2"

# --- an older resident is evicted and replaced ------------------------------
P3=$(free_port)
node "$TESTS_DIR/resident/fake_resident.mjs" "$P3" 1.0.9 >/dev/null &
OLD=$!
STARTED_PIDS+=("$OLD")
wait_until 50 listening "$P3"
out=$(cd /tmp && "$KX" --port "$P3" --conf "$CONF" pwd 2>"$WORK/err")
same "the eviction is announced" \
  "Kestrune: evicting stale resident 1.0.9 on port $P3, starting 1.0.11" "$(cat "$WORK/err")"
same "the command is answered by the new resident" "OK: /tmp" "$out"
check "the old resident is gone" wait_until 20 pid_gone "$OLD"
same "the new resident has this version" '{"ok":true,"app":"Kestrune","version":"1.0.11"}' \
  "$(health_sans_home "$P3")"
same "and the same home, whose token was kept" "$token" "$(home_token)"
track_port "$P3" >/dev/null
shutdown_resident "$P3" >/dev/null

# --- a newer resident or a foreign program keeps the port --------------------
P4=$(free_port)
node "$TESTS_DIR/resident/fake_resident.mjs" "$P4" 2.0.0 >/dev/null &
NEWER=$!
STARTED_PIDS+=("$NEWER")
wait_until 50 listening "$P4"
out=$(cd /tmp && "$KX" --port "$P4" --conf "$CONF" pwd 2>"$WORK/err")
same "a newer resident is left alone" \
  "Kestrune: port $P4 is held by a different Kestrune version — running this command locally" \
  "$(cat "$WORK/err")"
same "and the command runs locally" "OK: /tmp" "$out"
check "the newer resident still runs" kill -0 "$NEWER"
kill "$NEWER"

P5=$(free_port)
node "$TESTS_DIR/resident/fake_resident.mjs" "$P5" foreign >/dev/null &
FOREIGN=$!
STARTED_PIDS+=("$FOREIGN")
wait_until 50 listening "$P5"
start=$(date +%s%N)
out=$(cd /tmp && "$KX" --port "$P5" --conf "$CONF" pwd 2>"$WORK/err")
elapsed=$((($(date +%s%N) - start) / 1000000))
same "a foreign holder makes the command run locally" \
  "Kestrune: port $P5 is held by a non-Kestrune process — running this command locally" \
  "$(cat "$WORK/err")"
same "with the local result" "OK: /tmp" "$out"
check "without waiting for a spawn (${elapsed} ms)" test "$elapsed" -lt 3000

# A resident cannot start on a port that something else holds.
KESTRUNE_BIND_RETRY_MS=1000 "$KX" --port "$P5" --conf "$CONF" boot >/dev/null 2>"$WORK/err"
same "boot on a held port exits 1" 1 $?
check "with the bind failure line" grep -qxF \
  "Kestrune: boot could not bind port $P5 (held by another process) — exiting instead of running a listener-less resident" \
  "$WORK/err"
kill "$FOREIGN"

# --- the listening address -------------------------------------------------
bound_address() { ss -Htln "sport = :$1" | awk '{print $4}' | head -n1; }
P8=$(free_port)
"$KX" --port "$P8" --conf "$CONF" boot >/dev/null 2>&1 &
LOCAL_ONLY=$!
STARTED_PIDS+=("$LOCAL_ONLY")
wait_until 50 answering "$P8"
same "by default the resident listens on loopback only" "127.0.0.1:$P8" "$(bound_address "$P8")"
kill -TERM "$LOCAL_ONLY"
wait "$LOCAL_ONLY"
mkdir -p "$WORK/open/config"
printf '[server]\nlisten = 0.0.0.0\n' >"$WORK/open/config/Kestrune.cfg"
P9=$(free_port)
"$KX" --port "$P9" --conf "$WORK/open" boot >/dev/null 2>&1 &
OPEN=$!
STARTED_PIDS+=("$OPEN")
wait_until 50 answering "$P9"
same "server.listen opens it to the network" "0.0.0.0:$P9" "$(bound_address "$P9")"
same "private routes still refuse a foreign origin" '{"ok":false,"error":"/console/exec is loopback-only"}' \
  "$(kx_curl --home "$WORK/open" -H 'Origin: http://evil.example' --data-binary pwd "http://127.0.0.1:$P9/console/exec?bot=cli")"
same "and a host that is not this machine" '{"ok":false,"error":"/console/exec is loopback-only"}' \
  "$(kx_curl --home "$WORK/open" -H 'Host: rebound.example' --data-binary pwd "http://127.0.0.1:$P9/console/exec?bot=cli")"
same "and without the token the answer is 401" 401 \
  "$(curl -s -o /dev/null -w '%{http_code}' --data-binary pwd "http://127.0.0.1:$P9/console/exec?bot=cli")"
kill -TERM "$OPEN"
wait "$OPEN"

# --- foreground start verbs -------------------------------------------------
P6=$(free_port)
# "serve" rather than "gui", which would also open a browser on a desktop.
"$KX" --port "$P6" --conf "$CONF" serve >"$WORK/gui.out" 2>&1 &
GUI=$!
STARTED_PIDS+=("$GUI")
check "serve runs in the foreground" wait_until 50 grep -qsxF \
  "Kestrune orchestration server up — http://127.0.0.1:$P6/" "$WORK/gui.out"
# Without xdg-open on the PATH no browser opens; the login link is printed either way.
same "a second start finds it running and shows the login link" \
  "Kestrune resident already running — http://127.0.0.1:$P6/
Kestrune UI: http://127.0.0.1:$P6/ui/?token=$(home_token)" \
  "$(PATH=/nonexistent "$KX" --port "$P6" --conf "$CONF" gui 2>/dev/null)"
jar="$WORK/cookies"
login=$(curl -s -c "$jar" -o /dev/null -w '%{http_code} %{redirect_url}' "http://127.0.0.1:$P6/ui/?token=$(home_token)")
same "the login link is traded for a cookie and a clean address" "303 http://127.0.0.1:$P6/ui/" "$login"
same "the cookie lets the browser in" '{"ok":true}' "$(curl -s -b "$jar" "http://127.0.0.1:$P6/auth")"
check "the cookie is HttpOnly" grep -q '^#HttpOnly_127.0.0.1' "$jar"
check "the workstation page is served" bash -c "curl -s http://127.0.0.1:$P6/ui/ | grep -q '<title>Kestrune workstation</title>'"
kill -INT "$GUI"
wait "$GUI"
same "an interrupt ends the foreground server with status 0" 0 $?

P7=$(free_port)
"$KX" --port "$P7" --conf "$CONF" orchestration:start >"$WORK/start.out" 2>"$WORK/start.err" &
START=$!
STARTED_PIDS+=("$START")
check "a start verb announces itself" wait_until 50 grep -qsxF \
  "Kestrune orchestration server up — http://127.0.0.1:$P7/" "$WORK/start.out"
check "and notes the missing configuration" grep -qxF \
  "Kestrune: No configuration found — set it up in the tray." "$WORK/start.err"
kill -TERM "$START"
wait "$START"

finish
