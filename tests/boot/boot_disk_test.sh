#!/usr/bin/env bash
# The small bootable disk of make_boot_disk.sh: its table, boot code and
# files read back by other tools; its two-snapshot chain presents the disk;
# booted under qemu (TCG: the CPUs here lack virtualisation), first from IDE,
# then from virtio-blk, it prints the marker and "data OK" on ttyS0 and,
# after powering off, the image holds /written-by-guest with its boot count.
#   boot_disk_test.sh ZXBLK MAKE_DIFF_VHD
set -euo pipefail
zxblk=$1 diff_vhd=$2
for tool in qemu-system-x86_64 qemu-img sfdisk debugfs; do
  command -v $tool >/dev/null || { echo "skipped: $tool is not installed"; exit 77; }
done
here=$(cd "$(dirname "$0")" && pwd)
export ZXBLK_TEST_CACHE=${ZXBLK_TEST_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/zxblk-test}
work=$(mktemp -d)
qemu_pid=""
cleanup() {
  [ -z "$qemu_pid" ] || kill "$qemu_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*"; exit 1; }
ok() { echo "ok: $*"; }
export XDG_CACHE_HOME=$work/xdg

rc=0
"$here/make_boot_disk.sh" "$work/d" --size 64 --chain "$diff_vhd" 2>"$work/make.err" || rc=$?
[ $rc = 77 ] && { grep '^skipped:' "$work/make.err"; exit 77; }
[ $rc = 0 ] || fail "make_boot_disk.sh: $(cat "$work/make.err")"
. "$work/d/disk.env"
d=$work/d
ok "made a $((disk_bytes >> 20)) MiB disk, kernel $kernel_version, modules: $modules"

# The table as sfdisk reads it, the boot code as syslinux ships it, the
# boot sector as extlinux wrote it (its partition offset patched in).
[ "$(sfdisk -d "$disk" | grep -c 'start=')" = 1 ] || fail "the disk should have one partition"
sfdisk -d "$disk" | grep -q "start= *$part_start, size= *$part_sectors, type=83, bootable" ||
  fail "the partition is not the active Linux one at $part_start: $(sfdisk -d "$disk" | grep start=)"
cmp -n 440 "$disk" /usr/lib/syslinux/mbr/mbr.bin || fail "the MBR's boot code is not mbr.bin"
[ "$(od -An -tu4 -j $((part_offset + 28)) -N4 "$disk" | tr -d ' ')" = "$part_start" ] ||
  fail "the partition's boot sector does not hold its offset"
fs="$disk?offset=$part_offset"
debugfs -R "ls /boot/extlinux" "$fs" 2>/dev/null | grep -q ldlinux.sys || fail "extlinux is not installed"

# Every file of the root, dumped by debugfs, against the sums the script gave.
mkdir "$work/root"
debugfs -R "rdump / $work/root" "$fs" >/dev/null 2>&1
(cd "$work/root" && sha256sum --quiet -c "$d/files.sha256") || fail "files of the root differ from files.sha256"
[ "$(sha256sum <"$disk" | cut -d' ' -f1)" = "$disk_sha256" ] || fail "disk_sha256 is not the disk's"
ok "one active partition, mbr.bin, extlinux, $(wc -l <"$d/files.sha256") files as files.sha256 says"

# The chain: the base holds an older data file, the child the disk's.
qemu-img compare -q -f raw -F vpc "$d/base.raw" "$d/base.vhd" || fail "base.vhd does not present base.raw"
base_data=$(debugfs -R "cat $data_path" "$d/base.raw?offset=$part_offset" 2>/dev/null | sha256sum | cut -d' ' -f1)
[ "$base_data" != "$data_sha256" ] || fail "the base should hold another data file"
"$zxblk" import -q --store "$work/store" --client boot --disk sys "$d/base.vhd" "$d/child.vhd" >/dev/null ||
  fail "zxblk import of base.vhd + child.vhd"
"$zxblk" export --store "$work/store" --disk sys --out "$work/chain.raw" --cache "$work/cache" >/dev/null ||
  fail "zxblk export of the chain"
cmp "$work/chain.raw" "$disk" || fail "the chain does not present disk.raw"
ok "base.vhd + child.vhd present disk.raw; the base alone holds an older data file"

# boot IF COUNT: boots the disk attached as IF, expects the marker, "data
# OK" and /written-by-guest saying boot=COUNT after the guest powered off.
boot() {
  local log=$work/serial-$1.log start t=""
  rm -f "$log"
  start=$(date +%s%N)
  qemu-system-x86_64 -machine accel=tcg -m 256 -display none -monitor none -nic none -no-reboot \
    -drive "file=$disk,format=raw,if=$1" -serial "file:$log" 2>"$work/qemu-$1.err" &
  qemu_pid=$!
  for _ in $(seq 1200); do
    [ -z "$t" ] && grep -q "^$marker" "$log" 2>/dev/null && t=$((($(date +%s%N) - start) / 1000000))
    kill -0 $qemu_pid 2>/dev/null || break
    sleep 0.1
  done
  if kill -0 $qemu_pid 2>/dev/null; then
    kill $qemu_pid
    fail "$1 boot did not power off within 120 s; serial: $(tr -d '\033' <"$log" | tail -5)"
  fi
  wait $qemu_pid || fail "qemu ($1): $(cat "$work/qemu-$1.err")"
  qemu_pid=""
  [ -n "$t" ] || fail "$1 boot printed no marker; serial: $(tr -d '\033' <"$log" | tail -5)"
  grep -q "^zxblk-test-guest: data OK" "$log" || fail "$1 boot: the data file's check failed: $(grep data "$log")"
  local written
  written=$(debugfs -R "cat $written_path" "$fs" 2>/dev/null)
  [ "$written" = "boot=$2" ] || fail "$1 boot: $written_path holds '$written', not boot=$2"
  ok "booted from $1 (TCG): marker after $((t / 1000)).$((t % 1000 / 100)) s, data OK, $written_path: $written"
}
boot ide 1
boot virtio 2
