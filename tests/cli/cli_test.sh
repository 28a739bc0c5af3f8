#!/usr/bin/env bash
# End-to-end checks of the real kx binary: exact texts, streams and exit statuses.
# The checks run once locally and once through a resident, with the same answers.
# Usage: cli_test.sh <path to kx>   (KX_EMULATOR, e.g. wine, runs a Windows build)
set -u
. "$(dirname "$0")/../lib/checks.sh"
. "$(dirname "$0")/../lib/two_ways.sh"
kx_runner "$1"

# run_check <name> <expected stdout> <expected stderr> <expected status> -- <command...>
run_check() {
  local name=$1 want_out=$2 want_err=$3 want_rc=$4
  shift 5
  local out err rc
  out=$("$@" 2>"$SIDE/err" </dev/null)
  rc=$?
  err=$(cat "$SIDE/err")
  if [[ "$out" != "$want_out" || "$err" != "$want_err" || $rc -ne $want_rc ]]; then
    echo "FAIL $name"
    echo "  stdout: $(printf %q "$out")"; echo "  want:   $(printf %q "$want_out")"
    echo "  stderr: $(printf %q "$err")"; echo "  want:   $(printf %q "$want_err")"
    echo "  status: $rc (want $want_rc)"
    failures=$((failures + 1))
  else
    passes=$((passes + 1))
  fi
}

kx() { kx_logged "$@"; }
cli_checks() {
HOME_DIR=$SIDE/home
PARSE_ERROR="fs parse error: syntax error — line not understood; plain English works (try: Kestrune help)"
UNKNOWN_FOO="ERROR: unknown namespace 'foo' — use Kestrune:<what you want> (or legacy fs/fsraw/fsvctl/fsmk/fslock/fsstat/fssys · or config/claude/callsigns)"

run_check "unknown namespace" "$UNKNOWN_FOO" "" 0 -- kx foo:bar
run_check "unknown first word" "" "$PARSE_ERROR" 1 -- kx frobnicate now
run_check "mcp with more words is a command line" "" "$PARSE_ERROR" 1 -- kx mcp extra
run_check "guided mode" "OK: guided mode is OFF — say 'Kestrune guided on' or 'Kestrune guided off'." "" 0 -- kx Kestrune guided

out=$(kx fssys:help 2>&1); rc=$?
[[ $rc -eq 0 && "$out" == "OK: Kestrune — one entrypoint;"*"Full reference (generated from the live registry):"* ]] \
  && passes=$((passes + 1)) || { echo "FAIL fssys:help: $out"; failures=$((failures + 1)); }

out=$(kx Kestrune: help 2>&1); rc=$?
[[ $rc -eq 0 && "$out" == "Kestrune — say what you want in plain language;"*"help all       the full generated reference"* ]] \
  && passes=$((passes + 1)) || { echo "FAIL Kestrune: help: $out"; failures=$((failures + 1)); }

# Standard input is a command stream: one result per line, errors on stderr, and
# a bad line does not end the stream.
out=$(printf 'fs: x\nnonsense here\nfoo:bar\n' | kx 2>"$SIDE/err"); rc=$?
[[ "$out" == "ERROR: no verb after 'fs:'"$'\n'"$UNKNOWN_FOO" && "$(cat "$SIDE/err")" == "$PARSE_ERROR" && $rc -eq 1 ]] \
  && passes=$((passes + 1)) || { echo "FAIL piped stream: $out / rc $rc"; failures=$((failures + 1)); }

# A CDATA block in piped input may span lines.
out=$(printf 'Kestrune: write a.txt <![CDATA[one | two\nthree]]>\n' | kx 2>&1)
[[ "$out" != *"shell metacharacters"* && "$out" != *"parse error"* ]] \
  && passes=$((passes + 1)) || { echo "FAIL multi-line CDATA: $out"; failures=$((failures + 1)); }

# A runaway loop is halted, and the process carries on.
out=$(printf 'while (1) x++\nKestrune guided\n' | kx 2>&1)
[[ "$out" == "ERROR: step limit reached (runaway loop?) — script halted"$'\n'"OK: guided mode is OFF"* ]] \
  && passes=$((passes + 1)) || { echo "FAIL runaway loop: $out"; failures=$((failures + 1)); }

# At a console with no arguments: the usage text and status 0.
if [[ -n "${KX_EMULATOR:-}" ]]; then
  echo "skip usage at a console: the emulator does not present the pseudo-terminal as a console"
elif command -v script >/dev/null; then
  out=$(script -qec "${KX[*]} --conf $HOME_DIR" /dev/null </dev/null | tr -d '\r')
  [[ "$out" == "Kestrune (kx) — persistent memory + automatic version control"*"(kx mcp)." ]] \
    && passes=$((passes + 1)) || { echo "FAIL usage at a console: $out"; failures=$((failures + 1)); }
fi

}

two_ways cli_checks "$1"
checks_done cli
