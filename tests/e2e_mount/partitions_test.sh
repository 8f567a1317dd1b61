#!/usr/bin/env bash
# Partitions of a mounted disk: an MBR disk (sfdisk, with a logical
# partition) and a GPT disk (sgdisk, numbered with a gap), each partition an
# ext4 file system holding a file of its own, and a disk without a table.
# MNT/partN must have the size the partitioning tool gives and the file
# must read back through debugfs. Then the three disks mounted as one
# client's, a folder each.
#   partitions_test.sh ZXBLK
set -euo pipefail
zxblk=$1
source "$(dirname "$0")/mount_common.sh"
for tool in sfdisk sgdisk mke2fs debugfs qemu-img; do
  command -v $tool >/dev/null || { echo "skipped: no $tool"; exit 77; }
done

# An ext4 image of SECTORS sectors holding /file.bin with bytes of its own,
# written into DISK at START (in sectors).
put_fs() {  # DISK START SECTORS NAME
  mkdir -p "$work/src-$4"
  head -c 150000 /dev/urandom >"$work/src-$4/file.bin"
  mke2fs -q -F -t ext4 -d "$work/src-$4" "$work/$4.img" $(($3 / 2))k >/dev/null
  dd if="$work/$4.img" of="$1" bs=512 seek="$2" conv=notrunc status=none
}

# Each row: a disk name and the partitions it should show, as "N:START:SECTORS"
# in the numbers of the tool that made the table.
mbr_parts() { sfdisk -d "$1" | sed -n 's/^.*[^0-9]\([0-9]*\) : start= *\([0-9]*\), size= *\([0-9]*\), type=\([0-9a-f]*\).*/\1:\2:\3:\4/p' |
  awk -F: '$4 != "5" { print $1 ":" $2 ":" $3 }'; }
gpt_parts() {
  local n
  for n in $(sgdisk -p "$1" | awk '/^Number/ { on = 1; next } on && NF { print $1 }'); do
    echo "$n:$(sgdisk -i "$n" "$1" | sed -n 's/^First sector: \([0-9]*\).*/\1/p'):$(sgdisk -i "$n" "$1" |
      sed -n 's/^Partition size: \([0-9]*\) sectors.*/\1/p')"
  done
}

# "start length data|hole" rows of an image, neighbours alike merged.
alloc() { qemu-img map --output=json -f "$1" "$2" | python3 -c '
import json, sys
rows = []
for e in json.load(sys.stdin):
    kind = "data" if e["data"] else "hole"
    if rows and rows[-1][2] == kind: rows[-1][1] += e["length"]
    else: rows.append([e["start"], e["length"], kind])
for r in rows: print(*r)'; }

truncate -s 40M "$work/mbr.raw" "$work/gpt.raw"
printf 'label: dos\nstart=2048, size=12288, type=83\nstart=16384, type=5\nstart=18432, size=16384, type=83\n' |
  sfdisk -q "$work/mbr.raw"
sgdisk -n 1:2048:+6M -n 3:16384:+10M "$work/gpt.raw" >/dev/null
mkdir -p "$work/src-none" && head -c 70000 /dev/urandom >"$work/src-none/file.bin"
mke2fs -q -F -t ext4 -d "$work/src-none" "$work/none.raw" 40M >/dev/null
for disk in mbr gpt none; do
  case $disk in
    mbr) expected=$(mbr_parts "$work/mbr.raw") ;;
    gpt) expected=$(gpt_parts "$work/gpt.raw") ;;
    none) expected= ;;
  esac
  for p in $expected; do
    IFS=: read -r n start sectors <<<"$p"
    put_fs "$work/$disk.raw" "$start" "$sectors" "$disk$n"
  done
  qemu-img convert -f raw -O vpc -o subformat=dynamic,force_size=on "$work/$disk.raw" "$work/$disk.vhd"
  "$zxblk" import --store "$work/store" --disk $disk "$work/$disk.vhd" >/dev/null
  m=$work/m-$disk
  mkdir -p "$m"
  t "$zxblk" mount --store "$work/store" --disk $disk --cache "$work/c-$disk" "$m" >"$work/out" || fail "mount $disk"
  mounts+=("$m")
  # Present as soon as zxblk mount returns.
  names=$(cd "$m" && ls | tr '\n' ' ')
  want="disk.raw $(for p in $expected; do echo -n "part${p%%:*} "; done)"
  [ "$names" = "$want" ] || fail "$disk: the mount shows '$names', not '$want'"
  for p in $expected; do
    IFS=: read -r n start sectors <<<"$p"
    [ "$(stat -c %s "$m/part$n")" = $((sectors * 512)) ] || fail "$disk part$n: $(stat -c %s "$m/part$n") bytes, not $sectors sectors"
    t debugfs -R "cat /file.bin" "$m/part$n" 2>/dev/null | cmp - "$work/src-$disk$n/file.bin" ||
      fail "$disk part$n: /file.bin read through debugfs differs"
    t cmp "$m/part$n" <(dd if="$work/$disk.raw" bs=512 skip="$start" count="$sectors" status=none) ||
      fail "$disk part$n: not the bytes at sector $start of the disk"
  done
  [ "$(awk '$1 == "partitions" { print $2 }' "$m/.stats")" = "$(echo $expected | wc -w)" ] || fail "$disk: .stats partitions"
  # SEEK_DATA/SEEK_HOLE on disk.raw give the VHD's allocated blocks, as
  # qemu-img sees them in the VHD itself.
  t diff <(alloc raw "$m/disk.raw") <(alloc vpc "$work/$disk.vhd") || fail "$disk: disk.raw's holes are not the VHD's"
  ok "$disk: ${want% }${expected:+ (sizes as the partitioning tool gives them, each file read back with debugfs)}, holes as in the VHD"
  unmount "$m"
done

# The three disks are one client's (import's default): mounted together, a
# folder per disk holds that disk's files and partitions, each disk on a
# default cache of its own, and the .control at the top reaches every disk.
export XDG_CACHE_HOME=$work/xdg
m=$work/m-client
mkdir -p "$m"
t "$zxblk" mount --store "$work/store" --client localhost "$m" >"$work/out" || fail "mount --client"
mounts+=("$m")
[ "$(grep -c "^mounted [a-z]* snapshot 0 at $m/[a-z]* (disk.raw" "$work/out")" = 3 ] || fail "$(cat "$work/out")"
[ "$(cd "$m" && ls -A | tr '\n' ' ')" = ".control gpt mbr none " ] || fail "the top of the mount: $(ls -A "$m")"
for disk in mbr gpt none; do
  t cmp "$m/$disk/disk.raw" "$work/$disk.raw" || fail "--client: $disk/disk.raw differs from its image"
done
[ "$(cd "$m/mbr" && ls | tr '\n' ' ')" = "disk.raw part1 part5 " ] && [ "$(cd "$m/gpt" && ls | tr '\n' ' ')" = "disk.raw part1 part3 " ] &&
  [ "$(cd "$m/none" && ls)" = disk.raw ] || fail "--client: partitions $(ls "$m"/*)"
t debugfs -R "cat /file.bin" "$m/none/disk.raw" 2>/dev/null | cmp - "$work/src-none/file.bin" || fail "--client: none's /file.bin"
t debugfs -R "cat /file.bin" "$m/gpt/part3" 2>/dev/null | cmp - "$work/src-gpt3/file.bin" || fail "--client: gpt part3's /file.bin"
[ "$(ls "$XDG_CACHE_HOME/zxblk" | sed 's/^[0-9a-f]*-//' | sort | tr '\n' ' ')" = "gpt-snap0 mbr-snap0 none-snap0 " ] ||
  fail "--client: caches $(ls "$XDG_CACHE_HOME/zxblk")"
echo mount-complete >"$m/.control"
for disk in mbr gpt none; do
  [ "$(awk '$1 == "mount_complete" { print $2 }' "$m/$disk/.stats")" = 1 ] || fail "--client: .control did not reach $disk"
done
"$zxblk" stats "$m/gpt" | grep -q "^partitions  *2$" || fail "zxblk stats of a disk of the mount"
ok "mount --client: mbr, gpt and none each in a folder with their partitions, byte-exact, /file.bin read with debugfs, a cache each, .control to all"
unmount "$m"
