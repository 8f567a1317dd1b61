# The disk bench/boot_bench.sh boots: a Debian 12 system (mmdebstrap minbase,
# systemd-sysv, udev, linux-image-amd64 with initramfs-tools) on one ext4
# partition of a 3 GiB MBR disk that boots by itself (syslinux mbr.bin and
# extlinux), its console on ttyS0 with root logged in there automatically,
# as a dynamic VHD, and a differencing VHD over it in which a few files were
# added offline. Built once and kept under the cache, keyed by the recipe's
# version below: raise it when the recipe changes. Sourced by boot_bench.sh,
# never run on its own; uses bench_common.sh and the script's $work and
# $make_diff_vhd.
# shellcheck shell=bash

disk_recipe=1
disk_host=bootbench
# The shell's prompt once root is logged in, and the workload's last line.
login_prompt="root@$disk_host:~# "
workload_done=BENCH-WORKLOAD-DONE

# make_debian_disk: fills img with the folder that holds base.vhd,
# child.vhd, changed.raw (the bytes the chain presents, sparse) and
# disk.env, building them the first time. Exits 77, saying why, where the
# disk cannot be built (not root, no loop device, no mmdebstrap to be had).
make_debian_disk() {
    local top=${ZXBLK_BENCH_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/zxblk-bench}
    img=$top/debian12-r$disk_recipe
    if [ -f "$img/disk.env" ]; then
        step "the Debian disk, kept from an earlier run: $img"
        return
    fi
    [ "$(id -u)" = 0 ] || skip "building the Debian disk needs root (mmdebstrap into a folder, a loop mount for extlinux)"
    for t in mke2fs debugfs sfdisk extlinux losetup flock; do
        command -v "$t" >/dev/null || skip "$t is missing (scripts/setup.sh installs it)"
    done
    local mbr=/usr/lib/syslinux/mbr/mbr.bin
    [ -r $mbr ] || skip "$mbr is missing (package syslinux-common)"
    losetup -f >/dev/null 2>&1 || skip "no free loop device for extlinux's mount"
    if ! command -v mmdebstrap >/dev/null; then
        step "installing mmdebstrap (apt-get install), which only this bench needs ..."
        apt-get install -y -q mmdebstrap >"$work/apt.log" 2>&1 || skip "cannot install mmdebstrap: $(tail -1 "$work/apt.log")"
    fi
    mkdir -p "$top" || die "cannot make the cache folder $top"
    # Two runs at once: the second waits and then finds the disk built.
    exec 8>"$top/build.lock"
    flock 8
    if [ -f "$img/disk.env" ]; then
        flock -u 8
        return
    fi
    local tmp=$img.tmp root uuid ver mnt=''
    rm -rf "$tmp"
    mkdir -p "$tmp"
    root=$tmp/root
    local sources=()
    # The packages come from where this machine's apt takes them.
    [ -r /etc/apt/sources.list.d/debian.sources ] && sources=(/etc/apt/sources.list.d/debian.sources)
    step "building a Debian 12 system with mmdebstrap into $root (once, a few minutes) ..."
    timeout --foreground 1800 mmdebstrap --variant=minbase \
        --include=systemd-sysv,udev,kmod,linux-image-amd64,initramfs-tools bookworm "$root" ${sources[@]+"${sources[@]}"} \
        >"$tmp/mmdebstrap.log" 2>&1 || { tail -20 "$tmp/mmdebstrap.log" >&2; die "mmdebstrap failed (log: $tmp/mmdebstrap.log)"; }
    ver=$(ls "$root/lib/modules")
    if [ ! -f "$root/boot/vmlinuz-$ver" ] || [ ! -f "$root/boot/initrd.img-$ver" ]; then
        die "mmdebstrap left no kernel and initramfs in $root/boot"
    fi
    uuid=$(cat /proc/sys/kernel/random/uuid)

    echo "$disk_host" >"$root/etc/hostname"
    printf '127.0.0.1\tlocalhost\n127.0.1.1\t%s\n' "$disk_host" >"$root/etc/hosts"
    echo "UUID=$uuid / ext4 errors=remount-ro 0 1" >"$root/etc/fstab"
    mkdir -p "$root/etc/systemd/system/serial-getty@ttyS0.service.d"
    cat >"$root/etc/systemd/system/serial-getty@ttyS0.service.d/autologin.conf" <<'EOF'
[Service]
ExecStart=
ExecStart=-/sbin/agetty --autologin root --keep-baud 115200,57600,38400,9600 %I $TERM
EOF
    # What the bench types after the prompt: every package's files checked
    # and every program's checksum, reading much of the system.
    cat >"$root/usr/local/sbin/bench-workload" <<EOF
#!/bin/sh
dpkg -V >/tmp/dpkg-V.txt 2>&1
n=\$(find /usr/bin -type f -exec sha256sum {} + | wc -l)
echo "bench-workload: dpkg -V lists \$(wc -l </tmp/dpkg-V.txt) changed files; \$n programs checksummed"
echo $workload_done
EOF
    chmod 755 "$root/usr/local/sbin/bench-workload"
    mkdir -p "$root/boot/extlinux"
    cat >"$root/boot/extlinux/extlinux.conf" <<EOF
SERIAL 0 115200
DEFAULT debian
PROMPT 0
TIMEOUT 0
LABEL debian
  KERNEL /boot/vmlinuz-$ver
  INITRD /boot/initrd.img-$ver
  APPEND root=UUID=$uuid ro console=ttyS0,115200 quiet
EOF

    # The partition as in tests/boot/make_boot_disk.sh: ext4 made from the
    # folder, extlinux installed through a loop mount, the partition's
    # offset written into its boot sector (a loop device reports none).
    local size=$((3 << 30)) start=2048
    local part_sectors=$((size / 512 - start)) part=$tmp/part.img
    step "making the ext4 partition, extlinux and the MBR ..."
    mke2fs -q -F -t ext4 -b 4096 -L debian -U "$uuid" -E "hash_seed=$uuid" -d "$root" "$part" $((part_sectors / 8)) \
        >"$tmp/mke2fs.log" 2>&1 || { cat "$tmp/mke2fs.log" >&2; die "mke2fs failed"; }
    rm -rf "$root"
    mnt=$tmp/mnt
    mkdir "$mnt"
    mount -o loop "$part" "$mnt" || skip "cannot loop-mount the partition image"
    extlinux --install "$mnt/boot/extlinux" >"$tmp/extlinux.log" 2>&1 || { umount "$mnt"; die "extlinux: $(cat "$tmp/extlinux.log")"; }
    umount "$mnt" || die "cannot unmount $mnt"
    printf "$(printf '\\%03o' $((start & 255)) $((start >> 8 & 255)) $((start >> 16 & 255)) $((start >> 24 & 255)))" |
        dd of="$part" bs=1 seek=28 conv=notrunc status=none
    truncate -s "$size" "$tmp/base.raw"
    echo "start=$start, size=$part_sectors, type=83, bootable" | sfdisk -q --label dos "$tmp/base.raw" >/dev/null ||
        die "sfdisk failed"
    dd if=$mbr of="$tmp/base.raw" bs=440 count=1 conv=notrunc status=none
    dd if="$part" of="$tmp/base.raw" bs=1M seek=1 conv=notrunc,sparse status=none
    rm -f "$part"

    # The second snapshot: a few files added, as a later backup would hold.
    step "the second snapshot: files added offline, a differencing VHD ..."
    cp --sparse=always "$tmp/base.raw" "$tmp/changed.raw"
    head -c $((8 << 20)) /dev/urandom >"$tmp/added.bin"
    echo "snapshot 2 of $disk_host" >"$tmp/snapshot.txt"
    printf '%s\n' "mkdir /var/lib/bench" "write $tmp/added.bin /var/lib/bench/added.bin" \
        "write $tmp/snapshot.txt /etc/bench-snapshot" >"$tmp/debugfs.cmds"
    debugfs -w -f "$tmp/debugfs.cmds" "$tmp/changed.raw?offset=$((start * 512))" >"$tmp/debugfs.log" 2>&1 ||
        { cat "$tmp/debugfs.log" >&2; die "debugfs -w failed"; }
    qemu-img convert -f raw -O vpc -o subformat=dynamic,force_size=on "$tmp/base.raw" "$tmp/base.vhd" ||
        die "qemu-img convert to a dynamic VHD failed"
    (cd "$tmp" && "$make_diff_vhd" base.vhd base.raw changed.raw child.vhd >"$tmp/diff.log" 2>&1) ||
        { cat "$tmp/diff.log" >&2; die "make_diff_vhd failed"; }
    rm -rf "$tmp/base.raw" "$tmp/added.bin" "$tmp/snapshot.txt" "$tmp"/*.log "$tmp/debugfs.cmds" "$mnt"
    cat >"$tmp/disk.env" <<EOF
disk_bytes=$size
part_offset=$((start * 512))
fs_uuid=$uuid
kernel_version=$ver
recipe=$disk_recipe
EOF
    rm -rf "$img"
    mv "$tmp" "$img"
    flock -u 8
    step "the Debian disk is built and kept in $img"
}
