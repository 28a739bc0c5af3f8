# Shared by the end-to-end scripts that drive kx: how kx is started, and checks
# that count a pass or print what they got against what they wanted.
# Source it, call kx_runner "$1", run checks, end with checks_done "<area>".

passes=0
failures=0

# KX: the command that starts kx, with the emulator (KX_EMULATOR, e.g. wine) in
# front when a Windows build is tested.
kx_runner() {
  read -r -a KX <<<"${KX_EMULATOR:-}"
  KX+=("$(realpath "$1")")
}

# A path as kx prints it: the Windows form under the emulator.
shown_path() {
  if [[ -n "${KX_EMULATOR:-}" ]]; then winepath -w "$1" 2>/dev/null; else printf '%s' "$1"; fi
}

report_failure() { # <name> <got> <want shown>
  echo "FAIL $1"
  echo "  got:  $(printf %q "$2")"
  echo "  want: $3"
  failures=$((failures + 1))
}

# expect <name> <expected stdout> <command...>   ("--" as the command means kx)
expect() {
  local name=$1 want=$2
  shift 2
  [[ "${1:-}" == -- ]] && { shift; set -- kx "$@"; }
  local got
  got=$("$@")
  if [[ "$got" == "$want" ]]; then passes=$((passes + 1)); else
    report_failure "$name" "$got" "$(printf %q "$want")"
  fi
}

# expect_prefix <name> <expected start of stdout> <command...>
expect_prefix() {
  local name=$1 want=$2
  shift 2
  local got
  got=$("$@")
  if [[ "$got" == "$want"* ]]; then passes=$((passes + 1)); else
    report_failure "$name" "$got" "$(printf %q "$want")..."
  fi
}

# truth <name> <condition...>
truth() {
  local name=$1
  shift
  if "$@"; then passes=$((passes + 1)); else echo "FAIL $name"; failures=$((failures + 1)); fi
}

# Prints the closing count line; the status is that of the whole run.
checks_done() {
  echo "$1 end-to-end: $passes passed, $failures failed"
  [[ $failures -eq 0 ]]
}
