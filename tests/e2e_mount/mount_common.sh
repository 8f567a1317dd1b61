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
# The mount points, one a line (with `fuse`, of FUSE file systems only), as
# their paths are: /proc/mounts writes a space, tab, newline or backslash in
# a path as an octal escape.
mount_points() {
  awk -v fuse="${1:-}" 'fuse == "" || $3 ~ /^fuse/ {
    p = $2; gsub(/\\040/, " ", p); gsub(/\\011/, "\t", p); gsub(/\\012/, "\n", p); gsub(/\\134/, "\\", p); print p }' /proc/mounts
}
# Whether this exact mount point (the test's own) is a mounted FUSE file
# system. grep reads to the end: stopping early could fail the pipe.
mounted() { mount_points fuse | grep -xF -- "$1" >/dev/null; }
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
