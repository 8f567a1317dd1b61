#!/usr/bin/env bash
# Makes a small disk that boots by itself under qemu's BIOS: an MBR (syslinux
# mbr.bin) and one active ext4 partition holding extlinux, /boot/vmlinuz (from
# Debian's linux-image-amd64 package, extracted, never installed), a small
# initramfs (busybox-static and the modules that find the root on virtio-blk,
# virtio-scsi, IDE and AHCI) and a root whose /sbin/init prints a marker on
# ttyS0, checks a data file against its sha256 (OK or BAD), counts its boots
# in /written-by-guest, syncs and powers off; with --wait it first stays up
# that many seconds, saying so each second, and then adds "waited=SECONDS"
# to /written-by-guest.
#
#   make_boot_disk.sh OUT_DIR [--size MIB] [--data-size KIB] [--marker TEXT]
#                     [--uuid UUID] [--cache DIR] [--chain MAKE_DIFF_VHD]
#                     [--wait SECONDS]
#   make_boot_disk.sh --fetch-only [--cache DIR]
#
# Writes OUT_DIR/disk.raw, OUT_DIR/disk.env (shell variables: sizes, the
# partition's place, the marker, the data file's sha256, the disk's sha256)
# and OUT_DIR/files.sha256 (every file of the root, as sha256sum -c reads it
# after `cd` into the mounted root). With --chain, also OUT_DIR/base.raw, the
# same disk with an older data file (the guest says BAD on it alone),
# OUT_DIR/base.vhd (dynamic) and OUT_DIR/child.vhd (differencing, over
# base.vhd): the chain presents disk.raw.
#
# The kernel package is downloaded once with `apt-get download` into the
# cache (default ~/.cache/zxblk-test) and the parts used are kept there, so
# later runs need no network. Installing extlinux needs a mounted file system,
# so this needs root (a loop mount). Exit code 77, with one line saying why,
# when the kernel cannot be had or the script cannot mount.
set -euo pipefail

say() { printf '==> %s\n' "$*" >&2; }
die() { echo "make_boot_disk: $*" >&2; exit 1; }
skip() { echo "skipped: $*" >&2; exit 77; }

out="" size_mib=64 data_kib=1024 marker="ZXBLK-GUEST-UP" uuid="" chain_tool="" fetch_only=0 wait_s=0
cache=${ZXBLK_TEST_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/zxblk-test}
while [ $# -gt 0 ]; do
  case $1 in --size | --data-size | --marker | --uuid | --cache | --chain | --wait) [ $# -ge 2 ] || die "$1 needs a value" ;; esac
  case $1 in
    --size) size_mib=$2; shift 2 ;;
    --data-size) data_kib=$2; shift 2 ;;
    --marker) marker=$2; shift 2 ;;
    --uuid) uuid=$2; shift 2 ;;
    --cache) cache=$2; shift 2 ;;
    --chain) chain_tool=$2; shift 2 ;;
    --wait) wait_s=$2; shift 2 ;;
    --fetch-only) fetch_only=1; shift ;;
    -*) die "unknown option $1" ;;
    *) [ -z "$out" ] || die "one output folder only ($out, $1)"; out=$1; shift ;;
  esac
done
case $chain_tool in */*) chain_tool=$(realpath "$chain_tool") ;; esac
[ $fetch_only = 1 ] || [ -n "$out" ] || die "usage: make_boot_disk.sh OUT_DIR [options] (see the script's head)"
case $size_mib in '' | *[!0-9]*) die "--size takes MiB, not '$size_mib'" ;; esac
case $data_kib in '' | *[!0-9]*) die "--data-size takes KiB, not '$data_kib'" ;; esac
case $wait_s in '' | *[!0-9]*) die "--wait takes seconds, not '$wait_s'" ;; esac
[ "$size_mib" -ge 16 ] || die "--size must be at least 16 MiB"
case $marker in *[\'\"\\\$\`]*) die "--marker may not hold quotes, \\, \$ or \`" ;; esac

for tool in busybox dpkg-deb sfdisk mke2fs debugfs flock; do
  command -v $tool >/dev/null || skip "$tool is not installed"
done
mbr=/usr/lib/syslinux/mbr/mbr.bin
[ -r $mbr ] || skip "$mbr is missing (package syslinux-common)"

# The modules the initramfs loads: the root's file system and every disk
# controller a test may give the guest. Their dependencies come from the
# package's own modules.dep.
wanted="crc32c_generic ext4 virtio_pci virtio_blk virtio_scsi ata_piix ata_generic ahci sd_mod"

# kernel_dir: fills `kdir` with the cached kernel (vmlinuz, version,
# modules/*.ko, modules.load in load order), fetching and extracting the
# package the first time. Concurrent runs wait for each other on a lock.
kernel_dir() {
  mkdir -p "$cache/debs" || die "cannot make the cache folder $cache"
  exec 9>"$cache/kernel.lock"
  flock 9
  local deb
  deb=$(ls -t "$cache"/debs/linux-image-*-amd64_*.deb 2>/dev/null | head -1 || true)
  if [ -z "$deb" ]; then
    local pkg
    pkg=$(apt-cache depends linux-image-amd64 2>/dev/null | awk '/Depends: linux-image-/ {print $2; exit}')
    [ -n "$pkg" ] || skip "apt knows no linux-image-amd64 package, and none is cached in $cache/debs"
    say "downloading $pkg into $cache/debs (once)"
    (cd "$cache/debs" && apt-get download -q "$pkg" >/dev/null 2>"$cache/debs/download.log") ||
      skip "apt-get download $pkg failed: $(tail -1 "$cache/debs/download.log")"
    deb=$(ls -t "$cache"/debs/linux-image-*-amd64_*.deb | head -1)
  fi
  local key
  key=$(printf '%s %s' "$(basename "$deb")" "$wanted" | sha256sum | cut -c1-12)
  kdir=$cache/kernel-$key
  if [ ! -f "$kdir/modules.load" ]; then
    say "extracting the kernel and its modules from $(basename "$deb")"
    local x=$cache/extract.$$
    rm -rf "$x" "$kdir.tmp"
    mkdir -p "$x" "$kdir.tmp/modules"
    dpkg-deb --fsys-tarfile "$deb" | tar -x -C "$x" --wildcards './boot/vmlinuz-*' './lib/modules/*/modules.*' \
      './lib/modules/*/kernel/drivers/ata/*' './lib/modules/*/kernel/drivers/block/*' \
      './lib/modules/*/kernel/drivers/scsi/*' './lib/modules/*/kernel/drivers/virtio/*' \
      './lib/modules/*/kernel/fs/*' './lib/modules/*/kernel/lib/*' './lib/modules/*/kernel/crypto/*' \
      './lib/modules/*/kernel/block/*' || die "cannot extract $deb"
    local ver
    ver=$(ls "$x/lib/modules")
    # The package carries no modules.dep (the installer makes it).
    busybox depmod -b "$x" "$ver"
    # Each module with all it needs; a module needs strictly fewer others
    # than any module that needs it, so ordering by that count loads each
    # after its dependencies.
    awk -v wanted="$wanted" '
      BEGIN { n = split(wanted, w, " "); for (i = 1; i <= n; i++) want[w[i]] = 1 }
      function base(p) { sub(/.*\//, "", p); sub(/\.ko$/, "", p); gsub(/-/, "_", p); return p }
      {
        m = $1; sub(/:$/, "", m); count[m] = NF - 1
        if (base(m) in want) { found[base(m)] = 1; take[m] = 1; for (i = 2; i <= NF; i++) take[$i] = 1 }
      }
      END {
        for (k in want) if (!(k in found)) { print "missing module " k > "/dev/stderr"; exit 1 }
        for (m in take) print count[m], m
      }' "$x/lib/modules/$ver/modules.dep" | sort -n -k1,1 -k2,2 | cut -d' ' -f2 >"$x/order" ||
      die "the kernel package lacks a module it needs"
    while read -r m; do
      cp "$x/lib/modules/$ver/$m" "$kdir.tmp/modules/"
      basename "$m" >>"$kdir.tmp/modules.load"
    done <"$x/order"
    cp "$x/boot/vmlinuz-$ver" "$kdir.tmp/vmlinuz"
    echo "$ver" >"$kdir.tmp/version"
    rm -rf "$x" "$kdir"
    mv "$kdir.tmp" "$kdir"
  fi
  flock -u 9
}
if [ $fetch_only = 1 ]; then
  kernel_dir
  echo "$kdir"
  exit 0
fi
[ "$(id -u)" = 0 ] || skip "installing extlinux needs a mounted file system: run as root (a loop mount)"
command -v extlinux >/dev/null || skip "extlinux is not installed"
command -v qemu-img >/dev/null || [ -z "$chain_tool" ] || skip "qemu-img is not installed"
losetup -f >/dev/null 2>&1 || skip "no free loop device"
kernel_dir

mkdir -p "$out"
out=$(cd "$out" && pwd)
work=$(mktemp -d "$out/.make.XXXXXX")
mnt=""
cleanup() {
  [ -z "$mnt" ] || umount "$mnt" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
[ -n "$uuid" ] || uuid=$(cat /proc/sys/kernel/random/uuid)
ver=$(cat "$kdir/version")

# The initramfs: busybox, the modules, and an init that mounts the root
# read-write and hands over to the root's own init.
ird=$work/initramfs
mkdir -p "$ird"/{bin,dev,proc,sys,newroot,lib/modules}
cp "$(command -v busybox)" "$ird/bin/busybox"
for a in $(busybox --list); do [ "$a" = busybox ] || ln -s busybox "$ird/bin/$a"; done
cp "$kdir"/modules/*.ko "$ird/lib/modules/"
cp "$kdir/modules.load" "$ird/modules.load"
cat >"$ird/init" <<'EOF'
#!/bin/sh
export PATH=/bin
mount -t devtmpfs dev /dev
exec </dev/console >/dev/console 2>&1
mount -t proc proc /proc
mount -t sysfs sys /sys
halt() { echo "initramfs: $*"; poweroff -f; }
for m in $(cat /modules.load); do insmod "/lib/modules/$m" || echo "initramfs: cannot load $m"; done
root=
for a in $(cat /proc/cmdline); do case $a in root=*) root=${a#root=} ;; esac; done
[ -n "$root" ] || halt "no root= on the kernel command line"
dev=
for i in $(seq 200); do dev=$(findfs "$root" 2>/dev/null) && break; sleep 0.05; done
[ -n "$dev" ] || halt "no disk holds $root"
mount -t ext4 -o rw "$dev" /newroot || halt "cannot mount $dev"
umount /proc /sys
mount --move /dev /newroot/dev
exec switch_root /newroot /sbin/init
EOF
chmod 755 "$ird/init"

# The root.
root=$work/root
mkdir -p "$root"/{bin,sbin,dev,proc,sys,tmp,data,etc/zxblk-test,boot/extlinux}
cp "$(command -v busybox)" "$root/bin/busybox"
for a in $(busybox --list); do [ "$a" = busybox ] || ln -s busybox "$root/bin/$a"; done
head -c $((data_kib * 1024)) /dev/urandom >"$root/data/payload.bin"
data_sha=$(sha256sum <"$root/data/payload.bin" | cut -d' ' -f1)
echo "$data_sha  /data/payload.bin" >"$root/etc/zxblk-test/data.sha256"
cat >"$root/sbin/init" <<EOF
#!/bin/sh
# Proves the guest ran from this disk: a marker, the data file checked, one
# more boot counted in /written-by-guest, then off.
export PATH=/bin
mount -t proc proc /proc
mount -o remount,rw /
echo "$marker"
if sha256sum -c -s /etc/zxblk-test/data.sha256; then echo "zxblk-test-guest: data OK"; else echo "zxblk-test-guest: data BAD"; fi
n=\$(sed -n 's/^boot=//p' /written-by-guest 2>/dev/null)
n=\$((\${n:-0} + 1))
echo "boot=\$n" >/written-by-guest
sync
$([ "$wait_s" = 0 ] || cat <<WAIT
# Up a while longer, for tests of what happens while a guest runs.
i=0
while [ \$i -lt $wait_s ]; do sleep 1; i=\$((i + 1)); echo "zxblk-test-guest: up \$i s"; done
echo "waited=$wait_s" >>/written-by-guest
sync
WAIT
)
echo "zxblk-test-guest: wrote /written-by-guest boot=\$n, powering off"
poweroff -f
EOF
chmod 755 "$root/sbin/init"
cp "$kdir/vmlinuz" "$root/boot/vmlinuz"
(cd "$ird" && find . | LC_ALL=C sort | busybox cpio -o -H newc -R 0:0 2>/dev/null) | gzip -1 -n >"$root/boot/initrd.img"
cat >"$root/boot/extlinux/extlinux.conf" <<EOF
SERIAL 0 115200
DEFAULT linux
PROMPT 0
TIMEOUT 0
LABEL linux
  KERNEL /boot/vmlinuz
  INITRD /boot/initrd.img
  APPEND root=UUID=$uuid console=ttyS0,115200 quiet panic=-1
EOF
(cd "$root" && find . -type f | LC_ALL=C sort | sed 's/^\.//' |
  while read -r f; do echo "$(sha256sum <".$f" | cut -d' ' -f1)  .$f"; done) >"$work/files.sha256"

# The partition: ext4 made from the folder, extlinux installed through a loop
# mount, and the partition's offset written into its boot sector: extlinux
# takes it from the device, and a loop device reports none. mbr.bin hands the
# offset over at boot anyway; a boot manager that does not needs it there.
start=2048
part_sectors=$((size_mib * 2048 - start))
part=$work/part.img
mke2fs -q -F -t ext4 -b 4096 -L zxboot -U "$uuid" -E "hash_seed=$uuid" -d "$root" "$part" $((part_sectors / 8)) >/dev/null 2>"$work/mke2fs.err" ||
  die "mke2fs: $(tail -1 "$work/mke2fs.err") (the root holds $(du -sm "$root" | cut -f1) MiB: a larger --size?)"
mnt=$work/mnt
mkdir "$mnt"
mount -o loop "$part" "$mnt" || skip "cannot loop-mount the partition image"
extlinux --install "$mnt/boot/extlinux" >/dev/null 2>"$work/extlinux.err" || die "extlinux: $(cat "$work/extlinux.err")"
umount "$mnt"
mnt=""
printf "$(printf '\\%03o' $((start & 255)) $((start >> 8 & 255)) $((start >> 16 & 255)) $((start >> 24 & 255)))" |
  dd of="$part" bs=1 seek=28 conv=notrunc status=none
# Later changes to the data file go into the blocks it already has.
data_blocks=$(debugfs -R "blocks /data/payload.bin" "$part" 2>/dev/null)
[ -n "$data_blocks" ] || die "debugfs cannot list the blocks of /data/payload.bin"

# The disk: table, boot code, partition.
disk=$out/disk.raw
rm -f "$disk"
truncate -s $((size_mib * 1048576)) "$disk"
echo "start=$start, size=$part_sectors, type=83, bootable" | sfdisk -q --label dos "$disk" >/dev/null || die "sfdisk failed"
dd if=$mbr of="$disk" bs=440 count=1 conv=notrunc status=none
dd if="$part" of="$disk" bs=1M seek=1 conv=notrunc,sparse status=none

# overwrite_data DISK FILE: FILE's bytes into the data file's blocks of DISK.
overwrite_data() {
  local from to n
  echo $data_blocks | tr ' ' '\n' | awk '
    $1 != last + 1 { if (n) print from, to, n; from = i + 0; to = $1; n = 0 }
    { n++; i++; last = $1 }
    END { if (n) print from, to, n }' | while read -r from to n; do
    dd if="$2" of="$1" bs=4096 skip=$from seek=$((start / 8 + to)) count=$n conv=notrunc status=none
  done
}
if [ -n "$chain_tool" ]; then
  head -c $((data_kib * 1024)) /dev/urandom >"$work/older.bin"
  cp --sparse=always "$disk" "$out/base.raw"
  overwrite_data "$out/base.raw" "$work/older.bin"
  rm -f "$out/base.vhd" "$out/child.vhd"
  qemu-img convert -f raw -O vpc -o subformat=dynamic,force_size=on "$out/base.raw" "$out/base.vhd" ||
    die "qemu-img convert failed"
  (cd "$out" && "$chain_tool" base.vhd base.raw disk.raw child.vhd >/dev/null) || die "$chain_tool failed"
fi

cp "$work/files.sha256" "$out/files.sha256"
cat >"$out/disk.env" <<EOF
disk=$disk
disk_bytes=$((size_mib * 1048576))
disk_sha256=$(sha256sum <"$disk" | cut -d' ' -f1)
part_start=$start
part_sectors=$part_sectors
part_offset=$((start * 512))
fs_uuid=$uuid
marker='$marker'
data_path=/data/payload.bin
data_sha256=$data_sha
written_path=/written-by-guest
kernel_version=$ver
modules='$(tr '\n' ' ' <"$kdir/modules.load" | sed 's/\.ko//g; s/ $//')'
EOF
say "wrote $disk ($size_mib MiB, kernel $ver)${chain_tool:+ and the chain base.vhd + child.vhd}"
