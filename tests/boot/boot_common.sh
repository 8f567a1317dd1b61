# Sourced by the boot tests after `zxblk=$1 diff_vhd=$2` and
# `needs TOOL...`-style checks: skips where a tool is missing, gives a work
# folder of the test's own (its caches and runtime folder in it), stops a
# boot left running however the test ends, and makes the small bootable
# disk. Tests that start a Ceph cluster set up their folder with
# ../s3/e2e_scratch.sh and take only needs and make_disk from here.
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# The kernel package is kept outside the work folder, shared by every run.
export ZXBLK_TEST_CACHE=${ZXBLK_TEST_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/zxblk-test}
fail() { echo "FAIL: $*"; exit 1; }
ok() { echo "ok: $*"; }
# TEXT as an extended regular expression matching only itself: a work
# folder's path in a pgrep pattern, whatever $TMPDIR holds.
literal() { printf '%s' "$1" | sed 's/[][\\.*^$+?(){}|]/\\&/g'; }
needs() {
  for tool in "$@"; do
    command -v "$tool" >/dev/null || { echo "skipped: $tool is not installed"; exit 77; }
  done
}
# make_disk DIR [make_boot_disk.sh options]: the chain in DIR (base.vhd,
# child.vhd, disk.env), or the test skipped where it cannot be made.
make_disk() {
  local rc=0
  "$here/make_boot_disk.sh" "$1" --size 64 --chain "$diff_vhd" "${@:2}" 2>>make.err || rc=$?
  [ $rc = 77 ] && { grep '^skipped:' make.err; exit 77; }
  [ $rc = 0 ] || fail "make_boot_disk.sh: $(tail -3 make.err)"
}
# A work folder, unless the test has one (e2e_scratch.sh).
if [ -z "${work:-}" ]; then
  work=$(mktemp -d)
  boot_pid=""
  cleanup() {
    # qemu and nbdkit end with the zxblk that started them.
    [ -z "$boot_pid" ] || kill -KILL "$boot_pid" 2>/dev/null || true
    rm -rf "$work"
  }
  trap cleanup EXIT
  cd "$work"
fi
export XDG_CACHE_HOME=$work/xdg XDG_RUNTIME_DIR=$work/run
mkdir -p "$work/run"
