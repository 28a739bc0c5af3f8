#!/usr/bin/env bash
# kx grep against GNU grep -E / -F: random patterns over random and real text,
# compared line for line for the selected lines, -c, -l, -L, -o and context.
# Usage: oracle_test.sh <kx> [patterns]
#
# Known flavour differences, kept out of the generated patterns on purpose:
#  - -w: kx wraps the pattern as \b(?:p)\b; GNU grep retries other matches on the
#    line, and a pattern edged with a non-word character differs. Patterns used
#    with -w begin and end with word characters.
#  - \w, \b and -i are ASCII in the ECMAScript flavour, Unicode in GNU grep under a
#    UTF-8 locale; random text here is ASCII, and the real text is compared in C.UTF-8
#    with ASCII patterns only.
#  - Back-references, \d, lookaround and lazy quantifiers exist in one flavour only.
#  - -o with context: GNU prints "--" separators, kx prints matches only.
#
# Every kx grep also runs through a resident (a native build only), which must
# print exactly what the local run printed.
set -u
. "$(dirname "$0")/../lib/checks.sh"
if [[ -z "${KX_EMULATOR:-}" ]]; then
  # The resident's helpers: WORK, a temporary HOME, a free port, cleanup by process id.
  . "$(dirname "$0")/../resident/lib.sh" "$1"
else
  WORK=$(mktemp -d "${TMPDIR:-/tmp}/kx-grep-oracle.XXXXXX")
  trap 'rm -rf "$WORK"' EXIT
fi
kx_runner "$1"
ROUNDS=${2:-150}
export HOME="$WORK/user" KESTRUNE_LOCAL=1 LC_ALL=C.UTF-8
mkdir -p "$HOME" "$WORK/tree/sub" "$WORK/home"
RESIDENT_KX=()
if [[ -z "${KX_EMULATOR:-}" ]]; then
  port=$(free_port)
  boot_resident "$port" "$WORK/home"
  [[ -n "$RESIDENT" ]] || { echo "FAIL no resident came up"; exit 1; }
  RESIDENT_KX=(env -u KESTRUNE_LOCAL "${KX[@]}" --port "$port" --conf "$WORK/home")
fi
RANDOM=${ORACLE_SEED:-4242}

words=(alpha beta gamma delta foo bar baz qux a.b x+y "(p)" "[q]" "c|d" "e^f" "g\$h" Foo BAR)
random_line() {
  local n=$((RANDOM % 9)) line="" i
  for ((i = 0; i < n; i++)); do
    case $((RANDOM % 6)) in
      0) line+="${words[RANDOM % ${#words[@]}]}" ;;
      1) line+="$((RANDOM % 100))" ;;
      2) line+=" " ;;
      3) line+="${words[RANDOM % ${#words[@]}]} " ;;
      4) line+="-_." ;;
      *) line+="$(printf '%x' $RANDOM)" ;;
    esac
  done
  printf '%s\n' "$line"
}
for f in r1 r2 sub/r3; do
  for ((i = 0; i < 120; i++)); do random_line; done >"$WORK/tree/$f.txt"
done
printf 'no newline at end foo' >"$WORK/tree/sub/tail.txt"
: >"$WORK/tree/empty.txt"
real=$(ls /usr/include/stdio.h /usr/include/stdlib.h 2>/dev/null | head -n 1)
[[ -n "$real" ]] && cp "$real" "$WORK/tree/real.h"

atoms=(foo bar alpha 'a\.b' '[0-9]+' '[a-f]{2}' 'x\+y' '\(p\)' 'ba[rz]' 'q?ux' '[[:digit:]]'
       'de.ta' '[^ ]+' '(foo|bar)' 'g\$h' '\[q\]' 'c\|d' include define int char)
fixed=('a.b' 'x+y' '(p)' '[q]' 'c|d' 'e^f' 'g$h' 'foo' '.' '*')
random_pattern() {
  local kind=$((RANDOM % 6)) p
  case $kind in
    0) p=${atoms[RANDOM % ${#atoms[@]}]} ;;
    1) p="${atoms[RANDOM % ${#atoms[@]}]}${atoms[RANDOM % ${#atoms[@]}]}" ;;
    2) p="${atoms[RANDOM % ${#atoms[@]}]}|${atoms[RANDOM % ${#atoms[@]}]}" ;;
    3) p="^${atoms[RANDOM % ${#atoms[@]}]}" ;;
    4) p="${atoms[RANDOM % ${#atoms[@]}]}\$" ;;
    *) p="${atoms[RANDOM % ${#atoms[@]}]} ?[a-z]*" ;;
  esac
  printf '%s' "$p"
}
word_pattern() {
  local w=(foo bar alpha beta baz qux Foo define int 'ba[rz]' 'fo+' '[a-f]+')
  printf '%s' "${w[RANDOM % ${#w[@]}]}"
}

strip_summary() { grep -v -e '^-- [0-9]* matching line(s) in' -e '^-- TrackEditHistory' || true; }
# kx prints "sub/r3.txt" where grep -r prints "./sub/r3.txt"; order may differ.
norm_sorted() { sed 's#^\./##' | LC_ALL=C sort; }

compare() { # <name> <kx args...> -- <grep args...>
  local name=$1; shift
  local kx_args=() grep_args=()
  while [[ $1 != -- ]]; do kx_args+=("$1"); shift; done
  shift
  grep_args=("$@")
  local want got
  want=$(cd "$WORK/tree" && grep "${grep_args[@]}" 2>/dev/null | norm_sorted)
  got=$(cd "$WORK/tree" && "${KX[@]}" --conf "$WORK/home" grep "${kx_args[@]}" | strip_summary | norm_sorted)
  if [[ "$got" == "$want" ]]; then passes=$((passes + 1)); else
    report_failure "$name: kx grep ${kx_args[*]}" "$got" "$(printf %q "$want")"
  fi
  same_through_resident "$name" grep "${kx_args[@]}"
}

# The same kx grep through the resident prints what the local run printed, but for
# where the summary says the text came from (that process's caches).
same_through_resident() { # <name> <kx args...>
  [[ ${#RESIDENT_KX[@]} -gt 0 ]] || return 0
  local name=$1; shift
  local here there
  local sources='s/^(-- .*; searched [0-9]+):.*$/\1/'
  here=$(cd "$WORK/tree" && "${KX[@]}" --conf "$WORK/home" "$@" 2>&1; echo "status $?")
  there=$(cd "$WORK/tree" && "${RESIDENT_KX[@]}" "$@" 2>&1; echo "status $?")
  here=$(sed -E "$sources" <<<"$here")
  there=$(sed -E "$sources" <<<"$there")
  if [[ "$there" == "$here" ]]; then passes=$((passes + 1)); else
    report_failure "$name through the resident: kx $*" "$there" "$(printf %q "$here")"
  fi
}

# Ordered comparison on one file (context groups and -o keep their order).
compare_file() { # <name> <file> <flags...> -- <pattern>
  local name=$1 file=$2; shift 2
  local flags=()
  while [[ $1 != -- ]]; do flags+=("$1"); shift; done
  local pattern=$2 mode=-E
  for f in "${flags[@]}"; do [[ $f == -F ]] && mode=""; done
  local want got
  want=$(cd "$WORK/tree" && grep $mode "${flags[@]}" -e "$pattern" "$file" 2>/dev/null)
  got=$(cd "$WORK/tree" && "${KX[@]}" --conf "$WORK/home" grep "${flags[@]}" -e "$pattern" "$file" | strip_summary)
  if [[ "$got" == "$want" ]]; then passes=$((passes + 1)); else
    report_failure "$name: grep ${flags[*]} -e $(printf %q "$pattern") $file" "$got" \
      "$(printf %q "$want")"
  fi
  same_through_resident "$name" grep "${flags[@]}" -e "$pattern" "$file"
}

files=(r1.txt r2.txt sub/r3.txt real.h sub/tail.txt)
for ((round = 0; round < ROUNDS; round++)); do
  p=$(random_pattern)
  file=${files[RANDOM % ${#files[@]}]}
  case $((round % 9)) in
    0) compare_file lines "$file" -n -- "$p" ;;
    1) compare_file invert "$file" -v -n -- "$p" ;;
    2) compare_file caseless "$file" -i -- "$p" ;;
    3) compare_file whole-line "$file" -x -c -- "$p" ;;
    4) compare_file only "$file" -o -n -- "$p" ;;
    5) compare_file context "$file" -n -C $((RANDOM % 3)) -- "$p" ;;
    6) compare_file fixed "$file" -F -n -- "${fixed[RANDOM % ${#fixed[@]}]}" ;;
    7) compare_file words "$file" -w -n -- "$(word_pattern)" ;;
    8) compare_file max "$file" -m $((RANDOM % 4 + 1)) -n -A 1 -- "$p" ;;
  esac
  case $((round % 5)) in
    0) compare listing -l "$p" -- -rlE -e "$p" . ;;
    1) compare missing -L "$p" -- -rLE -e "$p" . ;;
    2) compare counts -c "$p" -- -rcE -e "$p" . ;;
    3) compare tree-lines -n -i "$p" -- -rniE -e "$p" . ;;
    4) q=${fixed[RANDOM % ${#fixed[@]}]}
       compare fixed-tree -F -c "$q" -- -rcF -e "$q" . ;;
  esac
done
checks_done "grep oracle"
