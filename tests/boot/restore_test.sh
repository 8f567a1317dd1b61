#!/usr/bin/env bash
# zxblk boot --restore-to of the small bootable disk (make_boot_disk.sh, its
# guest kept up a while by --wait) imported as a chain, base + differencing
# child, into a folder store, under TCG.
#  - The restore completes while the guest runs: the server is gone while
#    qemu still runs, and after the guest powers off the restored image
#    stands alone, its bytes before the file system are the disk's, every
#    file of the disk hashes as made, e2fsck finds nothing, and the
#    guest's file holds what the guest wrote before and after the move.
#    The overlay folder is left marked, and a boot of it is refused.
#  - A store that fails under the copy (a snapshot file cut short once the
#    guest is up) ends the restore with one warning; the guest goes on
#    running from the backup and powers off by itself, and the restore
#    folder holds nothing.
#   restore_test.sh ZXBLK MAKE_DIFF_VHD
set -euo pipefail
zxblk=$1 diff_vhd=$2
. "$(dirname "$0")/boot_common.sh"
needs qemu-system-x86_64 qemu-img debugfs e2fsck
# Long enough for a restore of 64 MiB from a folder, short enough for a test.
wait_s=20
make_disk d --wait $wait_s
. d/disk.env
"$zxblk" import -q --store store --client vm --disk sys d/base.vhd d/child.vhd >/dev/null || fail "import"
cp -a store broken

# start NAME [OPTION...]: a boot in the background, console in NAME.log, its
# own words in NAME.err, extent caches of its own; 180 s is far more than
# the guest stays up under TCG.
start() {
  local name=$1
  shift
  XDG_CACHE_HOME=$work/$name.cache timeout 180 "$zxblk" boot --client vm --overlay-dir "$work/$name.ov" \
    --log "$name.log" "$@" 2>"$name.err" &
  boot_pid=$!
}
# until FILE PATTERN: waits (60 s at most) until FILE holds PATTERN.
until_in() {
  for _ in $(seq 1200); do grep -q -- "$2" "$1" 2>/dev/null && return 0; sleep 0.05; done
  fail "no '$2' in $1 after 60 s: $(tail -3 "$1")"
}
finish() {
  rc=0
  wait $boot_pid || rc=$?
  boot_pid=""
}

# At 4 MiB a second the copy takes longer than the guest takes to boot and
# write its boot count, so that (unless the machine is very slow) the count
# is in the overlay before the move and comes over with the copy.
start one --store store --restore-to "$work/r1" --restore-speed 4M/s
until_in one.err "the VM now runs from $work/r1"
before=after
grep -q "zxblk-test-guest: up" one.log && before=before
pgrep -f -- "nbdkit.*$(literal "$work/store")" >/dev/null && fail "nbdkit still runs after the restore"
pgrep -f -- "qemu-system.*$(literal "$work/one.ov")" >/dev/null || fail "qemu should go on running: $(tail -3 one.log)"
grep -q "waited=" one.log && fail "the guest was done before the restore: keep it up longer than $wait_s s"
finish
[ $rc = 0 ] || fail "boot with --restore-to: exit $rc: $(cat one.err)"
grep -q "restored vm to $work/r1/sys.qcow2 ([0-9.]* MiB in [0-9]* s)" one.err || fail "no restored line: $(cat one.err)"
grep -q "vm powered off; its disks are in $work/r1" one.err || fail "no last line: $(cat one.err)"
[ "$(ls -A r1)" = sys.qcow2 ] || fail "r1 should hold sys.qcow2 alone: $(ls -A r1)"
[ ! -e one.ov/sys.qcow2 ] || fail "the overlay should be gone once its writes are in r1"
qemu-img info r1/sys.qcow2 | grep -q '^backing file' && fail "the restored image names a backing file"
qemu-img convert -O raw r1/sys.qcow2 r1.raw
cmp -n $part_offset r1.raw "$disk" || fail "the restored disk's table and boot code differ from the disk's"
dd if=r1.raw of=r1.part bs=512 skip=$part_start count=$part_sectors status=none
e2fsck -fn r1.part >fsck.out 2>&1 || fail "e2fsck of the restored file system: $(tail -3 fsck.out)"
mkdir r1.root
debugfs -R "rdump / r1.root" r1.part 2>/dev/null
(cd r1.root && sha256sum --quiet -c ../d/files.sha256) || fail "files of the restored disk differ from the disk's"
[ "$(cat r1.root/written-by-guest)" = "$(printf 'boot=1\nwaited=%s' $wait_s)" ] ||
  fail "the guest's file should say boot=1 and waited=$wait_s, says '$(cat r1.root/written-by-guest)'"
ok "restored while the guest ran, then the server gone; $(wc -l <d/files.sha256) files hash as made; the guest's" \
  "boot count (written $before the move) and its last write are in the image"

rc=0
"$zxblk" boot --store store --client vm --overlay-dir "$work/one.ov" --log no.log 2>no.err || rc=$?
[ $rc = 1 ] && [ "$(wc -l <no.err)" = 1 ] && grep -q "restored to $work/r1.*--new-overlay" no.err ||
  fail "a boot of the restored folder should be refused in one line, exit 1 (got $rc): $(cat no.err)"
ok "a boot of the overlays the VM left for r1 is refused"

# A second of copying a second: the store breaks long before the copy ends,
# and with no readahead what the copy has not read is not cached either.
start two --store "$work/broken" --restore-to "$work/r2" --restore-speed 1M/s --readahead 0
until_in two.log "$marker"
until_in two.err "restore vm sys: "
truncate -s 1M broken/snapshots/sys-snap0.vhd
until_in two.err "warning: live restore of vm failed"
ups=$(grep -c "zxblk-test-guest: up" two.log || true)
finish
[ $rc = 0 ] || fail "boot with a store that breaks under the copy: exit $rc: $(cat two.err)"
[ "$(grep -c warning two.err)" = 1 ] || fail "one warning wanted: $(cat two.err)"
grep -q "warning: live restore of vm failed: sys: .* (the server: .*could not be recalled: .*); the VM goes on running from the backup$" two.err ||
  fail "the warning: $(grep warning two.err)"
[ "$(grep -c "zxblk-test-guest: up" two.log)" -gt "$ups" ] && grep -q "up $wait_s s" two.log ||
  fail "the guest should go on running after the warning: $(tail -3 two.log)"
grep -q "Power down" two.log || fail "the guest should power off by itself: $(tail -3 two.log)"
[ ! -e r2 ] || fail "r2, made by the boot, should be gone with the failed restore: $(ls -A r2)"
[ -e two.ov/sys.qcow2 ] && ! grep -q restored-to two.ov/overlay.json || fail "the overlay should stay as it was"
ok "a store cut short under the copy: one warning, the guest ran on to its power-off, r2 gone: $(grep warning two.err | cut -c1-240)"
