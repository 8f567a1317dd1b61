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
# Whether this exact mount point (the test's own) is a mounted FUSE file system.
mounted() { awk -v m="$1" '$2 == m && $3 ~ /^fuse/ { found = 1 } END { exit !found }' /proc/mounts; }
unmount() {
  fusermount3 -u "$1"
  for _ in $(seq 100); do mounted "$1" || return 0; sleep 0.1; done
  fail "$1 did not unmount"
}
# Waits for the process that served CACHE (its pid heads CACHE/lock) to exit.
wait_stopped() {
  local pid
  pid=$(head -1 "$1/lock" | cut -d' ' -f1)
  for _ in $(seq 300); do kill -0 "$pid" 2>/dev/null || return 0; sleep 0.1; done
  fail "the process serving $1 did not stop"
}
