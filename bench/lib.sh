# Shared by the bench scripts that drive a resident (sourced): a throw-away HOME and
# home, a free port, and an exit trap that ends the resident by its pid.
WORK=$(mktemp -d "${TMPDIR:-/tmp}/kx-bench.XXXXXX")
export HOME="$WORK/user" XDG_RUNTIME_DIR="$WORK/run"
mkdir -p "$HOME" "$XDG_RUNTIME_DIR" "$WORK/home"
PORT=$(node -e "const s=require('net').createServer().listen(0,'127.0.0.1',()=>{console.log(s.address().port);s.close()})")
RESIDENT=
cleanup() {
  [ -n "$RESIDENT" ] && kill -TERM "$RESIDENT" 2>/dev/null && wait "$RESIDENT" 2>/dev/null
  rm -rf "$WORK"
}
trap cleanup EXIT
