#!/usr/bin/env bash
# Terminal sessions end to end over HTTP: the real kx resident, curl as the client.
#   term_http_test.sh <path to kx>
. "$(dirname "$0")/../resident/lib.sh"

P=$(free_port)
"$KX" --port "$P" --conf "$CONF" boot >/dev/null 2>&1 &
wait_until 100 answering "$P" || { echo "resident did not come up"; exit 1; }
track_port "$P" >/dev/null

api() { # <method> <path+query> [curl args...]
  local method=$1 target=$2; shift 2
  kx_curl -X "$method" "$@" "http://127.0.0.1:$P$target"
}
field() { node -e 'let s="";process.stdin.on("data",d=>s+=d).on("end",()=>{const v=JSON.parse(s)[process.argv[1]];process.stdout.write(typeof v==="string"?v:JSON.stringify(v))})' "$1"; }
data_of() { api GET "/term/read?id=$1&since=${2:-0}" | field data; }
# Waits until the session's output holds the text (10 s); output_line: as a whole line.
output_has() { local id=$1 text=$2; for ((i = 0; i < 100; i++)); do
  data_of "$id" | grep -qF -- "$text" && return 0; sleep 0.1; done; return 1; }
output_line() { local id=$1 text=$2; for ((i = 0; i < 100; i++)); do
  data_of "$id" | sed 's/\x1b\[[0-9;?]*[a-zA-Z]//g' | grep -qxF -- "$text" && return 0; sleep 0.1; done; return 1; }
send() { api POST "/term/send?id=$1" --data-urlencode "data=$2" >/dev/null; }

# --- open, type, read back -----------------------------------------------------
id=$(api POST "/term/open" -d "cmd=bash --norc --noprofile&cols=0&rows=50" | field id)
same "the first session is t1" t1 "$id"
send "$id" $'echo hi\r'
check "echo hi comes back as its own output line" output_line "$id" hi
send "$id" $'stty size\r'
check "cols 0 and rows 50 open a 120x50 terminal" output_line "$id" "50 120"
same "resize answers ok" '{"ok":true}' "$(api POST "/term/resize?id=$id&cols=100&rows=40")"
send "$id" $'stty size\r'
check "stty size follows the resize" output_line "$id" "40 100"

# --- offsets: since=len is empty, the trim drops len to 200000 -----------------
len=$(api GET "/term/read?id=$id" | field len)
same "a read from len gives no data" "" "$(data_of "$id" "$len")"
send "$id" $'head -c 300000 /dev/zero | tr "\\0" x; echo; echo trimmed-$((7*6))\r'
check "large output arrives" output_has "$id" "trimmed-42"
after=$(api GET "/term/read?id=$id" | field len)
check "after the trim len fell back below the cap ($after)" test "$after" -le 262144 -a "$after" -ge 200000
lacks() { ! grep -qF -- "$2" <<<"$1"; }
has() { grep -qF -- "$2" <<<"$1"; }
check "the first bytes are gone" lacks "$(data_of "$id")" "echo hi"
same "a reader beyond len gets empty data" "" "$(data_of "$id" $((after + 5000)))"

# --- exit status ends the session; it stays readable -----------------------------
send "$id" $'exit 3\r'
for ((i = 0; i < 100; i++)); do [ "$(api GET "/term/read?id=$id" | field alive)" == false ] && break; sleep 0.1; done
same "exit 3 ends the session" false "$(api GET "/term/read?id=$id" | field alive)"
ends_with() { [[ "$1" == *"$2" ]]; }
check "the end line carries the exit code" ends_with "$(data_of "$id"; echo .)" $'\n[session ended, exit 3]\n.'
same "send to an ended session" '{"ok":false,"error":"no such session or ended"}' \
  "$(api POST "/term/send?id=$id&data=x")"
check "an ended session is still listed" has "$(api GET /term/list)" "{\"id\":\"$id\",\"cmd\":\"bash --norc --noprofile\",\"alive\":false}"

# --- failures ------------------------------------------------------------------
same "a command ending at once is a spawn failure" '{"ok":false,"error":"spawn failed"}' \
  "$(api POST "/term/open" -d "cmd=true")"
same "unknown id on read" '{"ok":false,"error":"no such session"}' "$(api GET "/term/read?id=t999")"
same "unknown id on resize" '{"ok":false,"error":"no such session or ended"}' \
  "$(api POST "/term/resize?id=t999&cols=80&rows=24")"
same "close of an unknown id" '{"ok":true}' "$(api POST "/term/close?id=t999")"
same "a request naming a foreign host is refused" '{"ok":false,"error":"loopback only"}' \
  "$(api POST "/term/open" -H "Host: attacker.example" -d "cmd=bash")"

# --- close ends the whole tree, background jobs included -----------------------
id=$(api POST "/term/open" -d "cmd=bash --norc --noprofile" | field id)
send "$id" $'sleep 1000 & echo "bg=$!"; (setsid -w sleep 1001 &) ; echo started\r'
output_has "$id" "started"
bg=$(data_of "$id" | sed -n 's/^bg=\([0-9]*\).*/\1/p' | head -n1)
check "the background job runs ($bg)" kill -0 "$bg"
api POST "/term/close?id=$id" >/dev/null
check "close kills the background job" wait_until 50 pid_gone "$bg"
same "a closed session is gone" '{"ok":false,"error":"no such session"}' "$(api GET "/term/read?id=$id")"

# --- a session outlives the client that opened it; ids sort as text ------------
ids=()
for n in 1 2 3 4 5 6 7 8; do ids+=("$(api POST "/term/open" -d "cmd=sleep 600" | field id)"); done
order=$(api GET /term/list | node -e 'let s="";process.stdin.on("data",d=>s+=d).on("end",()=>console.log(JSON.parse(s).sessions.map(x=>x.id).join(" ")))')
same "list is in the byte order of the ids" "t1 t10 t3 t4 t5 t6 t7 t8 t9" "$order"
printf 'echo opener-$((1+2))\n' | timeout 20 "$KX" --port "$P" --conf "$CONF" kxterm run bash --norc >"$WORK/kxterm.out"
check "kxterm line mode prints the attach line" grep -qF "attached — ::detach leaves it running, ::close kills it, ::list lists sessions]" "$WORK/kxterm.out"
check "kxterm line mode shows the output" grep -qF "opener-3" "$WORK/kxterm.out"
opened=$(sed -n 's/.*reattach: kx kxterm \(t[0-9]*\)\].*/\1/p' "$WORK/kxterm.out")
check "the session kxterm opened survives it ($opened)" has "$(api GET "/term/read?id=$opened")" '"alive":true'
same "kxterm reports an unknown session" "kxterm: no such session t777 (kx kxterm list)" \
  "$("$KX" --port "$P" --conf "$CONF" kxterm t777 </dev/null)"
Q=$(free_port)
same "kxterm without a resident says so" "kxterm: no Kestrune resident on port $Q (start one: kx gui)" \
  "$("$KX" --port "$Q" --conf "$CONF" kxterm list </dev/null)"

finish
