#!/usr/bin/env bash
# zxblk boot of the small bootable disk (make_boot_disk.sh) imported as a
# chain, base + differencing child, into a folder store, under TCG. The
# guest prints the marker and "data OK" (the child's data file: the base's
# alone says BAD), and counts its boots in /written-by-guest: the count is
# in the overlay after the VM stops (read back through qemu-img over the
# original disk and debugfs) and says 2 at the next boot. Another snapshot
# is refused over those writes unless --new-overlay; the store's files hash
# the same at the end; SIGTERM of a boot stops it and leaves no process
# and no socket behind.
#   boot_test.sh ZXBLK MAKE_DIFF_VHD
set -euo pipefail
zxblk=$1 diff_vhd=$2
. "$(dirname "$0")/boot_common.sh"
needs qemu-system-x86_64 qemu-img debugfs
make_disk d
. d/disk.env
store=$work/store ov=$work/overlays
"$zxblk" import -q --store "$store" --client vm --disk sys d/base.vhd d/child.vhd >/dev/null || fail "import"
(cd "$store" && find . -type f | LC_ALL=C sort | xargs sha256sum) >store.before

# boot N LOG [OPTION...]: one boot with the console in LOG, its own words
# in LOG.err; 120 s is far more than a boot of this disk takes under TCG.
boot() {
  local log=$1
  shift
  timeout 120 "$zxblk" boot --store "$store" --client vm --overlay-dir "$ov" --log "$log" "$@" 2>"$log.err"
}
# The guest's file, read from the overlay laid over the disk the chain
# presents (qemu-img) and out of its file system (debugfs).
written() {
  local overlay="{\"driver\":\"file\",\"filename\":\"$ov/sys.qcow2\"}"
  qemu-img convert -O raw "json:{\"driver\":\"qcow2\",\"file\":$overlay,
    \"backing\":{\"driver\":\"raw\",\"file\":{\"driver\":\"file\",\"filename\":\"$disk\"}}}" merged.raw
  debugfs -R "cat $written_path" "merged.raw?offset=$part_offset" 2>/dev/null
}

boot con1.log || fail "first boot, exit $?: $(cat con1.log.err)"
grep -q "$marker" con1.log || fail "no marker on the console: $(tail -5 con1.log)"
grep -q "data OK" con1.log || fail "the guest did not read the child's data file: $(tail -5 con1.log)"
# KVM where the CPU has vmx or svm, else TCG, and the line says which.
accel=TCG
grep -qw -e vmx -e svm /proc/cpuinfo && accel='\(KVM\|TCG\)'
grep -q "booting vm (sys, snapshot 1) with $accel" con1.log.err ||
  fail "the first line should say $accel: $(cat con1.log.err)"
[ "$(written)" = "boot=1" ] || fail "the overlay should hold boot=1, holds '$(written)'"
qemu-img info "$ov/sys.qcow2" | grep -q '^backing file' && fail "the overlay names a backing file"
ok "booted snapshot 1 of the chain: marker, data OK; the overlay holds boot=1"

boot con2.log || fail "second boot, exit $?: $(cat con2.log.err)"
grep -q "boot=2" con2.log || fail "the second boot should count 2: $(tail -3 con2.log)"
ok "a second boot goes on from the overlay: boot=2"

rc=0
boot con3.log --snapshot 0 || rc=$?
[ $rc = 1 ] && [ "$(wc -l <con3.log.err)" = 1 ] && grep -q "snapshot 1, not snapshot 0.*--new-overlay" con3.log.err ||
  fail "another snapshot over the overlays should be refused in one line, exit 1 (got $rc): $(cat con3.log.err)"
boot con4.log --snapshot 0 --new-overlay || fail "--new-overlay, exit $?: $(cat con4.log.err)"
grep -q "data BAD" con4.log && grep -q "boot=1" con4.log ||
  fail "snapshot 0 from a new overlay should say data BAD and boot=1: $(tail -3 con4.log)"
ok "snapshot 0 is refused over snapshot 1's writes; with --new-overlay it boots from the base alone"

rc=0
PATH=/nonexistent "$zxblk" boot --store "$store" --client vm 2>nq.err || rc=$?
[ $rc = 1 ] && [ "$(cat nq.err)" = "zxblk: qemu-system-x86_64 not found; install qemu-system-x86" ] ||
  fail "without qemu: exit $rc, $(cat nq.err)"

# SIGTERM as soon as the VM starts, before its firmware has handed over to
# a kernel that could hear the power button: the guest is stopped after the
# time-out, in one line, and nothing is left running.
"$zxblk" boot --store "$store" --client vm --overlay-dir "$ov" --log con5.log --shutdown-timeout 1 2>con5.err &
boot_pid=$!
for _ in $(seq 600); do grep -q "powers it down" con5.err && break; sleep 0.05; done
kill -TERM $boot_pid
rc=0
wait $boot_pid || rc=$?
boot_pid=""
case $rc in
  1) grep -q "did not power down within 1 s" con5.err || fail "SIGTERM, exit 1: $(cat con5.err)" ;;
  0) grep -q "powered off" con5.err || fail "SIGTERM, exit 0: $(cat con5.err)" ;;
  *) fail "SIGTERM: exit $rc: $(cat con5.err)" ;;
esac
pgrep -f -- "$(literal "$work/")" >/dev/null && fail "processes left: $(pgrep -af -- "$(literal "$work/")")"
[ -z "$(ls run)" ] || fail "the server's folder is left: $(ls run)"
ok "SIGTERM: $(tail -1 con5.err | cut -c8-)"

# (Opening a disk may add the store's index of mount extents beside them.)
(cd "$store" && sha256sum --quiet -c "$work/store.before") || fail "the store's files changed"
ok "the catalog and snapshot files hash the same as before the boots ($(wc -l <store.before) files)"
