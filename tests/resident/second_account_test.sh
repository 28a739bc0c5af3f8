#!/usr/bin/env bash
# Another account on the same machine against a resident: as `nobody` it reaches the
# port but not the home's token, so every private route, every WebSocket and a
# forwarded kx get nothing done as the resident's owner, and nothing is written.
# Needs root to become `nobody`; otherwise it says why it is skipped.
. "$(dirname "$0")/lib.sh"

if [ "$(id -u)" != 0 ]; then
  echo "skipped: becoming a second account (nobody) needs root; this run is $(id -un)"
  exit 0
fi
as_nobody() { setpriv --reuid=nobody --regid=nogroup --clear-groups "$@"; }
ROUTER_SOURCE="$TESTS_DIR/../src/server/router.cpp"

P=$(free_port)
"$KX" --port "$P" --conf "$CONF" boot >/dev/null 2>&1 &
STARTED_PIDS+=($!)
wait_until 100 answering "$P" || { echo "resident did not come up"; exit 1; }
B="http://127.0.0.1:$P"
PROJECT="$WORK/project"
mkdir -p "$PROJECT"
echo one >"$PROJECT/a.txt"
kx_curl -X POST "$B/vc/add" --data-urlencode "dir=$PROJECT" >/dev/null
"$KX" --port "$P" --conf "$CONF" fsvctl:emit '<path>/</path>' >/dev/null

# Everything the owner has on disk, to compare after the attacks.
snapshot() { find "$WORK" -path "$WORK/run" -prune -o -printf '%p %s %T@\n' | sort; }
before=$(snapshot)

# nobody's own home, outside the owner's private work directory.
NB=$(mktemp -d /tmp/kx-nobody.XXXXXX)
chown nobody:nogroup "$NB"
trap 'rm -rf "$NB"; cleanup' EXIT
check "nobody cannot read the owner's token" eval "! as_nobody cat '$CONF/resident.token' 2>/dev/null"

forged=$(head -c 32 /dev/urandom | od -An -tx1 | tr -d ' \n')
# "<code>" of a request from nobody, with no token or a forged one.
attack() { # <method> <path> [curl args...]
  local method=$1 path=$2; shift 2
  as_nobody curl -s --max-time 5 -o /dev/null -w '%{http_code}' -X "$method" "$@" "$B$path"
}
pwned="$NB/pwned"
routes=$(sed -n 's/^ *{"\(\/[^"]*\)", [a-z]*, "POST".*/\1/p' "$ROUTER_SOURCE" | sort -u)
check "the route table was read (it has many state-changing routes)" test "$(wc -l <<<"$routes")" -gt 30
bad=""
for route in $routes /term/read /term/list /console/tail /console/bots /debug/stream /chatlog; do
  for creds in none forged; do
    args=(--data-binary "Kestrune: touch $pwned" -H 'X-Kst-Tty: 1' -H 'X-Kst-Control: shutdown')
    [ $creds = forged ] && args+=(-H "Authorization: Bearer $forged" -H "Cookie: kst_token=$forged")
    code=$(attack POST "$route?bot=cli&cmd=fs:ls&number=1&mode=A" "${args[@]}")
    [ "$code" = 401 ] || bad+=" $route($creds):$code"
  done
done
same "every state-changing route and private read answers nobody 401" "" "$bad"
same "a forged token in the query changes nothing" 401 \
  "$(attack POST "/console/exec?bot=cli&token=$forged" --data-binary "Kestrune: touch $pwned")"
same "nor does MCP's tools/call" 401 \
  "$(attack POST /mcp -H 'Content-Type: application/json' \
    --data '{"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"run","arguments":{"line":"pwd"}}}')"

upgrade=(-H 'Connection: Upgrade' -H 'Upgrade: websocket' -H 'Sec-WebSocket-Version: 13'
  -H 'Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==')
same "the chat WebSocket refuses nobody before the handshake" 403 "$(attack GET / "${upgrade[@]}")"
same "and with a forged token" 403 "$(attack GET "/?token=$forged" "${upgrade[@]}")"
same "the terminal WebSocket too" 403 "$(attack GET "/term/ws?id=1&token=$forged" "${upgrade[@]}")"

# A forwarded kx run by nobody: its own home differs, so it runs as nobody, locally.
out=$(cd "$NB" && as_nobody env HOME="$NB" XDG_RUNTIME_DIR="$NB" \
  "$KX" --port "$P" --conf "$NB/home" 'Kestrune: whoami | cat' 2>"$NB/err")
same "nobody's kx runs as nobody, not as the resident's owner" "nobody" "$(tr -d '\r' <<<"$out" | grep -x nobody)"
same "and is told the port serves another home" \
  "Kestrune: port $P serves another home — running this command locally" "$(cat "$NB/err")"

check "no attack left a file behind" test ! -e "$pwned"
same "the resident still runs" 1 "$(answering "$P" && echo 1)"
same "the emit still waits for its owner" "PENDING-EMITS 1" \
  "$("$KX" --port "$P" --conf "$CONF" fsvctl:emitlist | head -n1)"
same "nothing in the owner's home or project changed" "$before" "$(snapshot)"
finish
