#!/usr/bin/env bash
# The workstation's routes with curl against a real resident: each body and each
# refusal. Usage: routes_test.sh <path to kx>
source "$(dirname "$0")/../resident/lib.sh"

P=$(free_port)
B="http://127.0.0.1:$P"
"$KX" --port "$P" --conf "$CONF" boot >/dev/null 2>&1 &
STARTED_PIDS+=($!)
wait_until 100 answering "$P" || { echo "resident did not come up"; exit 1; }

# The home's token once the resident has one; harmless before.
auth=()
[ -f "$CONF/resident.token" ] && auth=(-H "Authorization: Bearer $(tr -d '[:space:]' <"$CONF/resident.token")")
# "<status> <body>" of one request.
call() { curl -s "${auth[@]}" -o "$WORK/body" -w '%{http_code}' "$@" >"$WORK/code"; echo "$(cat "$WORK/code") $(cat "$WORK/body")"; }
get() { call "$B$1"; }
post() { local path=$1; shift; call -X POST "$B$path" "$@"; }
field() { jq -r "$1" <"$WORK/body"; }

PROJECT="$WORK/project"
mkdir -p "$PROJECT/src"
printf 'alpha\nbeta\ngamma\n' >"$PROJECT/src/a.txt"
printf 'crlf\r\nline\r\n' >"$PROJECT/win.txt"

# --- enrolment: refusals, then /vc/add and /vc/list ------------------------------
same "nothing enrolled" '200 {"ok":true,"dirs":[],"stores":[]}' "$(get /vc/list)"
same "/vc/add without dir" '400 {"ok":false,"error":"dir required"}' "$(post /vc/add)"
check "/vc/add of a missing directory is an ERROR result" \
  grep -q '^409 {"ok":false,"error":"ERROR: ' <<<"$(post /vc/add -d "dir=$WORK/none")"
check "/vc/add enrolls" grep -q '^200 {"ok":true,"out":"OK: enrolled ' <<<"$(post /vc/add --data-urlencode "dir=$PROJECT")"
get /vc/list >/dev/null
same "/vc/list names it" "$PROJECT" "$(field '.dirs[0]')"
same "with its policy, count and activity" "scope=all ext=default watch=on mode=vc 2 true" \
  "$(field '.stores[0] | "\(.policy) \(.files) \(.active)"')"

get "/vc/dirs?path=$WORK" >/dev/null
same "/vc/dirs lists sub-directories and the parent" "$WORK $(dirname "$WORK") true" \
  "$(field "\"\(.path) \(.parent) \(.dirs | index(\"project\") != null)\"")"
check "/vc/dirs refuses a relative path" grep -q '^404 ' <<<"$(get '/vc/dirs?path=relative/dir')"

# --- the store views ------------------------------------------------------------
"$KX" --port "$P" --conf "$CONF" fsvctl:checkin \
  '<path>src/a.txt</path><content><![CDATA[alpha
BETA
gamma
]]></content>' >/dev/null
get "/store/tree" >/dev/null
same "tree: paths, version counts, current, tombstones" \
  "src/a.txt 2 2 false|win.txt 1 1 false" \
  "$(field '[.files[] | "\(.path) \(.versions) \(.current) \(.tombstone)"] | join("|")')"
get "/store/log?path=src/a.txt" >/dev/null
same "log: the second version's operation and seat" "2 checkin cli" \
  "$(field '.versions[1] | "\(.n) \(.op) \(.who)"')"
get "/store/diff?path=src/a.txt&a=1&b=2" >/dev/null
same "diff rows pair the changed line" "same:1:1:alpha removed:2::beta added::2:BETA same:3:3:gamma" \
  "$(field '[.rows[] | "\(.t):\(.a // ""):\(.b // ""):\(.text)"] | join(" ")')"
curl -s "${auth[@]}" -o "$WORK/v1" "$B/store/version?store=$PROJECT&path=win.txt&n=1"
check "a version's bytes come back unchanged (CR kept)" cmp -s "$WORK/v1" "$PROJECT/win.txt"
same "no such file" '404 {"ok":false,"error":"no such file: nope.txt"}' "$(get '/store/log?path=nope.txt')"
same "no such version" '404 {"ok":false,"error":"no v9 of src/a.txt"}' "$(get '/store/diff?path=src/a.txt&a=1&b=9')"
same "unknown store" "404 {\"ok\":false,\"error\":\"not enrolled: $WORK\"}" "$(get "/store/tree?store=$WORK")"
before=$(get /store/changes)
"$KX" --port "$P" --conf "$CONF" fs:rm '<path>src/a.txt</path>' >/dev/null
check "the change stamp moves after an edit" test "$before" != "$(get /store/changes)"

# --- emits: request, list, approve once ---------------------------------------------
check "/vc/emit queues a request" grep -q '^200 {"ok":true,"out":"PENDING #1' \
  <<<"$(post /vc/emit -d path=src -d bot=agent7)"
get /vc/pending >/dev/null
same "/vc/pending lists it by number" "1 agent7" "$(field '.emits[0] | "\(.number) \(.text | split(" ") | .[-4])"')"
same "/vc/approve without number" '400 {"ok":false,"error":"number required"}' "$(post /vc/approve)"
# Approval is a person's: the bearer token from a script is not enough; the UI's
# cookie (the owner's browser) or a kx on a terminal is.
same "/vc/approve from a script is refused" \
  '409 {"ok":false,"error":"ERROR: emit approval needs a person at the console or the UI — run this from kx on a terminal, or approve it in the UI (kx gui)"}' \
  "$(post /vc/approve -d number=1 -d mode=A)"
ui_session=(-H "Cookie: kst_token=$(tr -d '[:space:]' <"$CONF/resident.token")")
check "/vc/approve from the UI's session carries it out over the current files" \
  grep -q '"out":"APPROVED: emit #1' <<<"$(post /vc/approve "${ui_session[@]}" -d number=1 -d mode=A)"
same "nothing pending afterwards" "0" "$(get /vc/pending >/dev/null; field '.emits | length')"
same "a second approval is refused" '409 {"ok":false,"error":"ERROR: no pending emit #1"}' \
  "$(post /vc/approve "${ui_session[@]}" -d number=1)"
same "/vc/unenroll without dir" '400 {"ok":false,"error":"dir required"}' "$(post /vc/unenroll)"
check "/vc/unenroll takes the directory out" grep -qF "200 {\"ok\":true,\"out\":\"OK: unenrolled $PROJECT — no longer versioned or watched" \
  <<<"$(post /vc/unenroll --data-urlencode "dir=$PROJECT")"
same "/vc/list no longer names it" '200 {"ok":true,"dirs":[],"stores":[]}' "$(get /vc/list)"
check "its history stays on disk" test -d "$CONF/.versioncontrol"
same "a second /vc/unenroll is refused" \
  "409 {\"ok\":false,\"error\":\"ERROR: $PROJECT is not enrolled (fsstat:stores lists the enrolled directories)\"}" \
  "$(post /vc/unenroll --data-urlencode "dir=$PROJECT")"
check "/vc/add brings the history back" grep -q '^200 {"ok":true,"out":"OK: enrolled ' <<<"$(post /vc/add --data-urlencode "dir=$PROJECT")"
same "with the versions saved before" "2" "$(get "/store/log?path=src/a.txt" >/dev/null; field '.versions | length')"

# --- a bot's memory -------------------------------------------------------------------
check "/bots/memory POST adds a memo" grep -q '^200 {"ok":true,"bot":"cli","out":"OK' \
  <<<"$(post /bots/memory -d bot=cli -d ctx=notes -d topic=build --data-urlencode 'text=rerun the parser generator after grammar edits')"
same "/bots/contexts names the context" "notes" "$(get '/bots/contexts?bot=cli' >/dev/null; field '.names | join(",")')"
same "/bots/memories names the topic" "build" "$(get '/bots/memories?bot=cli&ctx=notes' >/dev/null; field '.names | join(",")')"
same "/bots/search finds the memo by keyword, with its text" "build 1 rerun the parser generator after grammar edits" \
  "$(get '/bots/search?bot=cli&ctx=notes&q=grammar' >/dev/null; field '.hits[0] | "\(.topic) \(.n) \(.text)"')"
same "/bots/memory needs ctx and topic" '400 {"ok":false,"error":"ctx and topic required"}' "$(get '/bots/memory?bot=cli')"
same "fields cannot smuggle a comma" '400 {"ok":false,"error":"bad bot, ctx or topic"}' \
  "$(get '/bots/memory?bot=cli&ctx=a,b&topic=x')"

# --- chat, console, dialog ------------------------------------------------------------
same "/chat/next needs a bot" '400 {"error":"bot required"}' "$(get /chat/next)"
post /chat/say -d channel=orchestration -d from=lead -d 'text=take task 4' >/dev/null
same "/chat/next gives the next record from someone else" "lead: take task 4" \
  "$(get '/chat/next?bot=worker' >/dev/null; field '.msg | "\(.from): \(.text)"')"
same "/chat/next skips the bot's own" "null" "$(get '/chat/next?bot=lead' >/dev/null; field '.msg')"
same "/chat/say to an unknown user" "404 no such user: ghost" "$(post /chat/say -d to=ghost -d text=hi)"
same "/chat/draft is marked a draft" "draft" "$(post /chat/draft -d bot=worker -d text=proposal >/dev/null; field '.msg.kind')"
same "/console/tail needs a bot" '400 {"ok":false,"error":"bot required"}' "$(get /console/tail)"
mkdir -p "$HOME/.Kestrune/bots/worker"
printf 'one\ntwo\nthree\n' >"$HOME/.Kestrune/bots/worker/inbox.log"
same "/console/tail gives the inbox's last lines" "two,three" "$(get '/console/tail?bot=worker&tail=2' >/dev/null; field '.lines | join(",")')"
same "/console/bots lists the bots" "worker" "$(get /console/bots >/dev/null; field '.bots | join(",")')"
same "/bots/files refuses a climbing name" '400 {"ok":false,"error":"bad bot name"}' "$(get '/bots/files?bot=..')"
post /dialog/bind -d channel=general -d ctx=notes -d topic=build >/dev/null
same "/dialog/bindings lists the binding" "general notes build" \
  "$(get /dialog/bindings >/dev/null; field '.bindings[0] | "\(.channel) \(.ctx) \(.topic)"')"
same "/dialog/bind with no ctx unbinds" "0" \
  "$(post /dialog/bind -d channel=general >/dev/null; get /dialog/bindings >/dev/null; field '.bindings | length')"

# --- the manual that ships beside kx ----------------------------------------------------
same "/manual/list has the user pages" "agent-setup agents commands getting-started memory search terminals trust versions" \
  "$(get /manual/list >/dev/null; field '[.pages[].name] | join(" ")')"
check "/manual/page serves one as markdown" grep -q '^200 # The trust model' <<<"$(get '/manual/page?name=trust')"

# --- the loopback rule: a foreign Host is refused with each row's own text --------------
foreign() { call -H 'Host: evil.example' "$@"; }
same "/vc/add refuses" '403 {"ok":false,"error":"/vc/add is loopback-only"}' "$(foreign -X POST -d dir=/ "$B/vc/add")"
same "/vc/dirs refuses" '403 {"ok":false,"error":"/vc/dirs is loopback-only"}' "$(foreign "$B/vc/dirs")"
same "/bots/search refuses" '403 {"error":"bot memory read is loopback-only"}' "$(foreign "$B/bots/search")"
same "/store/ refuses" '403 {"ok":false,"error":"store views are loopback-only"}' "$(foreign "$B/store/tree")"
same "/dialog/bind refuses" '403 {"ok":false,"error":"dialog bind is loopback-only"}' "$(foreign -X POST "$B/dialog/bind")"

finish
