# Sourced by the mount tests: skips where FUSE is missing, gives a work
# folder, and unmounts whatever a test left mounted however it ends.
if [ ! -e /dev/fuse ] || ! command -v fusermount3 >/dev/null; then
  echo "skipped: no /dev/fuse or fusermount3 on this machine"
  exit 77
fi
work=$(mktemp -d)
mounts=()
cleanup() {
  for m in "${mounts[@]}"; do fusermount3 -u "$m" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*"; exit 1; }
ok() { echo "ok: $*"; }
# Nothing that touches a mount may hang the suite.
t() { timeout "${step_timeout:-120}" "$@"; }
