# Runs the checks of an end-to-end script twice, each time from a fresh home and
# tree at the same paths: once locally (KESTRUNE_LOCAL=1) and once through a
# resident booted for that home. Every kx call made through kx_logged is written to
# a transcript (arguments, stdout, stderr, status; times of day masked), and the
# two transcripts and the files each run left must be the same: a line gives one
# answer on every path.
# A Windows build under the emulator runs the local pass only.
#
# Source after checks.sh and kx_runner; define a function of checks that keeps its
# files under $SIDE (fresh and empty when it starts) and calls kx through
# kx_logged; then `two_ways <function> <kx path>`.

# kx_logged <args...>: kx against $SIDE/home (and the pass's resident), recorded.
kx_logged() {
  local out err rc
  out=$(mktemp "$TWO_WAYS_TMP/out.XXXXXX")
  err=$(mktemp "$TWO_WAYS_TMP/err.XXXXXX")
  "${KX[@]}" "${KX_PORT_ARGS[@]}" --conf "$SIDE/home" "$@" >"$out" 2>"$err"
  rc=$?
  {
    printf '== kx'
    printf ' %q' "$@"
    printf '\n'
    cat "$out"
    echo "-- stderr"
    cat "$err"
    echo "-- status $rc"
  } | sed -E 's/[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}/<time>/g; s/"ts":[0-9]+/"ts":<time>/g' >>"$TRANSCRIPT"
  cat "$out"
  cat "$err" >&2
  rm -f "$out" "$err"
  return "$rc"
}

# What a pass left: every file of the tree with its hash, and the history's files
# (the edit logs carry times, so only their record count). Files and records whose
# path matches the pattern TWO_WAYS_UNORDERED (written by racing processes, whose
# order and number of versions vary) are left out.
unordered() { [[ -n "${TWO_WAYS_UNORDERED:-}" && "$1" =~ $TWO_WAYS_UNORDERED ]]; }
side_file() { # <path>
  unordered "$1" || echo "$(sha256sum <"$1" | cut -c1-64)  $1"
}
side_files() {
  (cd "$SIDE" && find . -path ./home -prune -o -type f -print | sort | while read -r f; do
    side_file "$f"
  done)
  [[ -d "$SIDE/home/.versioncontrol" ]] || return 0
  (cd "$SIDE/home/.versioncontrol" && find . -type f | sort | while read -r f; do
    case "$f" in
      *.jsonl | *.log) echo "$(grep -cvE "${TWO_WAYS_UNORDERED:-^$}" "$f") records  $f" ;;
      *) side_file "$f" ;;
    esac
  done)
}

two_ways() { # <function of checks> <kx path>
  local checks=$1
  TWO_WAYS_TMP=$(mktemp -d)
  SIDE=$TWO_WAYS_TMP/side
  KX_PORT_ARGS=()
  TRANSCRIPT=$TWO_WAYS_TMP/local.txt
  mkdir -p "$SIDE/home"
  export KESTRUNE_LOCAL=1
  "$checks"
  unset KESTRUNE_LOCAL
  if [[ -n "${KX_EMULATOR:-}" ]]; then
    rm -rf "$TWO_WAYS_TMP"
    return
  fi
  side_files >"$TWO_WAYS_TMP/local-files.txt"
  mv "$SIDE" "$TWO_WAYS_TMP/local-side"
  mkdir -p "$SIDE/home"

  # The resident's helpers: a temporary HOME, a free port, cleanup by process id.
  . "$(dirname "${BASH_SOURCE[0]}")/../resident/lib.sh" "$2"
  trap "cleanup; rm -rf '$TWO_WAYS_TMP'" EXIT
  local port
  port=$(free_port)
  boot_resident "$port" "$SIDE/home"
  truth "a resident serves the second pass" [ -n "$RESIDENT" ]
  KX_PORT_ARGS=(--port "$port")
  TRANSCRIPT=$TWO_WAYS_TMP/resident.txt
  "$checks"
  truth "the resident answered the second pass itself" [ "$RESIDENT" == "$(pid_on_port "$port")" ]
  side_files >"$TWO_WAYS_TMP/resident-files.txt"

  same_files "local and resident passes print the same" \
    "$TWO_WAYS_TMP/local.txt" "$TWO_WAYS_TMP/resident.txt"
  same_files "local and resident passes leave the same files" \
    "$TWO_WAYS_TMP/local-files.txt" "$TWO_WAYS_TMP/resident-files.txt"
  passes=$((passes + PASSED))
  failures=$((failures + FAILED))
}
