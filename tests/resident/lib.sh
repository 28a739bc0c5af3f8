# Helpers for the resident's end-to-end tests (sourced). Every test gets its own
# temporary home, HOME and runtime directory, picks free ports, and ends what it
# started by process id.
set -u

KX=$(realpath "${1:?usage: $0 <path to kx>}")
TESTS_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
WORK=$(mktemp -d "${TMPDIR:-/tmp}/kx-resident-e2e.XXXXXX")
export HOME="$WORK/user" XDG_RUNTIME_DIR="$WORK/run"
unset ProgramData KESTRUNE_LOCAL
mkdir -p "$HOME" "$XDG_RUNTIME_DIR" "$WORK/home"
CONF="$WORK/home"
PASSED=0
FAILED=0
STARTED_PIDS=()

ok() { PASSED=$((PASSED + 1)); echo "ok - $1"; }
not_ok() { FAILED=$((FAILED + 1)); echo "not ok - $1"; }
check() { # <description> <command...>
  local what=$1; shift
  if "$@"; then ok "$what"; else not_ok "$what"; fi
}
same() { # <description> <expected> <actual>
  if [ "$2" == "$3" ]; then ok "$1"; else
    not_ok "$1"; printf '   expected: %q\n   actual:   %q\n' "$2" "$3"; fi
}

same_files() { # <description> <file> <other file>: passes when they match, else shows the diff
  if diff -u "$2" "$3" >"$2.diff"; then ok "$1"; else
    not_ok "$1"; head -n 80 "$2.diff"; fi
}

free_port() {
  node -e "const s=require('net').createServer().listen(0,'127.0.0.1',()=>{console.log(s.address().port);s.close()})"
}

# The pid of whatever listens on the port (empty when nothing does).
pid_on_port() {
  ss -Htlnp "sport = :$1" 2>/dev/null | sed -n 's/.*pid=\([0-9]*\).*/\1/p' | head -n1
}

health() { curl -s --max-time 3 "http://127.0.0.1:$1/health"; }

# The token of a home (default: $CONF), as every client of that home sends it.
home_token() { tr -d '[:space:]' <"${1:-$CONF}/resident.token" 2>/dev/null; }
# curl with the home's token: `kx_curl [--home DIR] <curl args...>`.
kx_curl() {
  local home=$CONF
  if [ "${1:-}" == "--home" ]; then home=$2; shift 2; fi
  curl -s --max-time 10 -H "Authorization: Bearer $(home_token "$home")" "$@"
}
# The /health body without the home's fingerprint, for exact comparisons.
health_sans_home() { health "$1" | sed 's/,"home":"[0-9a-f]*"//'; }
# Ends the resident on a port the way its owner does.
shutdown_resident() { kx_curl "${@:2}" -X POST -H 'X-Kst-Control: shutdown' "http://127.0.0.1:$1/shutdown"; }

wait_until() { # <tenths of a second> <command...>
  local tries=$1; shift
  for ((i = 0; i < tries; i++)); do "$@" && return 0; sleep 0.1; done
  return 1
}
port_free() { [ -z "$(pid_on_port "$1")" ]; }
listening() { [ -n "$(pid_on_port "$1")" ]; }
answering() { [ -n "$(health "$1")" ]; }
pid_gone() { ! kill -0 "$1" 2>/dev/null; }

# Remembers a resident found on a port so that cleanup can end it by pid.
# Also noted in a file: callers often run this inside $(...), a subshell, whose
# additions to STARTED_PIDS the cleanup would never see.
track_port() {
  local pid
  pid=$(pid_on_port "$1")
  if [ -n "$pid" ]; then
    STARTED_PIDS+=("$pid")
    echo "$pid" >>"$WORK/started.pids"
  fi
  echo "$pid"
}

# Boots a resident for <home> on <port> and tracks it; its pid is left in RESIDENT
# (empty when none came up).
boot_resident() { # <port> <home>
  "$KX" --port "$1" --conf "$2" boot >/dev/null 2>&1 &
  wait_until 100 answering "$1"
  track_port "$1" >/dev/null
  RESIDENT=$(pid_on_port "$1")
}

cleanup() {
  local tracked=()
  [ -f "$WORK/started.pids" ] && mapfile -t tracked <"$WORK/started.pids"
  for pid in "${STARTED_PIDS[@]}" "${tracked[@]}"; do kill -TERM "$pid" 2>/dev/null; done
  sleep 0.2
  for pid in "${STARTED_PIDS[@]}" "${tracked[@]}"; do kill -KILL "$pid" 2>/dev/null; done
  rm -rf "$WORK"
}
trap cleanup EXIT

finish() {
  echo "$PASSED passed, $FAILED failed"
  [ "$FAILED" -eq 0 ]
}
