#!/usr/bin/env bash
# What import takes and what it leaves: other image formats (made by
# qemu-img) refused by name, and taken byte for byte as raw when asked; a raw
# image only with --format raw; holes kept in the store's copy; no trace of a
# refused import; sizes and ids checked as the command line is read.
set -euo pipefail
zxblk=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*"; exit 1; }
store=$work/store
state() { (cd "$store" && find . -printf '%p %s\n' | sort && sha256sum catalog.json); }
# try CODE ARGS...: zxblk exits with CODE and, unless it succeeds, one line on stderr.
try() {
  local code=$1 rc=0
  shift
  "$zxblk" "$@" >"$work/out" 2>"$work/err" || rc=$?
  [ "$rc" = "$code" ] || { cat "$work/err"; fail "zxblk $*: exit $rc, not $code"; }
  [ "$code" = 0 ] || [ "$(wc -l <"$work/err")" = 1 ] || { cat "$work/err"; fail "zxblk $*: not one line"; }
}

head -c 1048576 /dev/urandom >"$work/disk.raw"
truncate -s 4M "$work/disk.raw"
try 0 import --store "$store" --disk base --format raw "$work/disk.raw"
before=$(state)

# The same disk in other formats: refused by name (as VHD, the default or
# asked for), the store untouched; imported as raw, the store's copy is the file.
while read -r fmt name; do
  f=$work/disk.$fmt
  if [ "$fmt" = luks ]; then
    # qemu-img times its key derivation by the thread's CPU time, which on
    # these machines often reads as none, and then refuses; cryptsetup is
    # told how many iterations to take.
    cp "$work/disk.raw" "$f"
    printf pw | cryptsetup luksFormat -q --type luks1 --pbkdf-force-iterations 1000 --key-file - "$f"
  else
    qemu-img convert -q -f raw -O "$fmt" "$work/disk.raw" "$f"
  fi
  for how in auto vhd; do
    try 1 import --store "$store" --disk "d-$fmt" --format "$how" "$f"
    # A container is to be converted (its bytes are not the disk); an
    # encrypted volume may be kept as it is.
    advice="qemu-img convert -O vpc"
    [ "$fmt" = luks ] && advice="--format raw"
    grep -qF "zxblk: $f is $name; " "$work/err" && grep -qF -- "$advice" "$work/err" ||
      { cat "$work/err"; fail "$fmt ($how): not named as $name, or not told to use $advice"; }
    [ "$fmt" = luks ] || ! grep -qF -- "--format raw" "$work/err" || fail "$fmt: told to import the container as raw"
    [ "$(state)" = "$before" ] || fail "$fmt ($how): the refusal changed the store"
  done
  try 0 import --store "$store" --disk "d-$fmt" --format raw "$f"
  cmp "$f" "$store/snapshots/d-$fmt-snap0.raw" || fail "$fmt: the store's copy differs from the file"
  before=$(state)
  echo "ok: $fmt refused as $name, imported as raw when asked"
done <<'EOF'
qcow2 a qcow2 image
qcow a qcow image
vmdk a VMDK image
vdi a VDI image
qed a QED image
parallels a Parallels image
luks a LUKS encrypted volume
EOF
# A VHDX is read as one, not refused; asked for as a VHD, it is refused by name.
qemu-img convert -q -f raw -O vhdx "$work/disk.raw" "$work/disk.vhdx"
try 1 import --store "$store" --disk x --format vhd "$work/disk.vhdx"
grep -qF "is a VHDX image, not a VHD; import it without --format vhd" "$work/err" || { cat "$work/err"; fail "VHDX as --format vhd"; }
[ "$(state)" = "$before" ] || fail "VHDX as --format vhd: the refusal changed the store"
gzip -c "$work/disk.raw" >"$work/disk.raw.gz"
try 1 import --store "$store" --disk z "$work/disk.raw.gz"
grep -qF "is a gzip-compressed file" "$work/err" || { cat "$work/err"; fail "gzip file not named"; }
try 1 import --store "$store" --disk r "$work/disk.raw"
grep -qF "is neither a VHD (no footer) nor a VHDX image; to import a raw disk image give --format raw" "$work/err" ||
  { cat "$work/err"; fail "raw image without --format: $(cat "$work/err")"; }
[ "$(state)" = "$before" ] || fail "refusals changed the store"
echo "ok: a compressed file and a raw image without --format raw are refused"

# A sparse raw image: its holes stay holes in the store, and so does a run
# of zeros written into it; the bytes and the recorded checksums are right.
s=$work/sparse.raw
truncate -s 256M "$s"
for at in 0 37 200 255; do dd if=/dev/urandom of="$s" bs=1M seek=$at count=1 conv=notrunc status=none; done
dd if=/dev/zero of="$s" bs=1M seek=100 count=4 conv=notrunc status=none
try 0 import --store "$work/s-sparse" --disk s --format raw -p "$s"
grep -q "import $s: 256 MiB of 256 MiB (100%)" "$work/err" || { cat "$work/err"; fail "-p: no progress to the end"; }
copy=$work/s-sparse/snapshots/s-snap0.raw
cmp "$s" "$copy" || fail "sparse image: the store's copy differs"
src_kib=$(du -k "$s" | cut -f1) copy_kib=$(du -k "$copy" | cut -f1)
[ "$copy_kib" -le $((4096 + 256)) ] || fail "sparse image: the copy allocates $copy_kib KiB for 4 MiB of data (source $src_kib KiB)"
try 0 verify --store "$work/s-sparse"
echo "ok: sparse image imported in $copy_kib KiB (source $src_kib KiB), identical, checksums sound"

# A refused import leaves no trace: no store folder it made, and nothing in
# an empty folder that was there; refused as an image or as a chain.
mkdir "$work/empty"
for args in "$work/disk.raw" "--format raw $work/disk.raw $work/disk.raw"; do
  for dir in "$work/new" "$work/empty"; do
    # shellcheck disable=SC2086
    try 1 import --store "$dir" --disk d $args
  done
  [ ! -e "$work/new" ] || fail "refused ($args): left $(find "$work/new")"
  [ -z "$(ls -A "$work/empty")" ] || fail "refused ($args): left $(ls -A "$work/empty") in an empty folder"
done
echo "ok: refused imports leave no folder behind"

# Sizes and ids are checked as the command line is read (exit 2), before
# anything is made.
for bad in "--extent-size 100K" "--extent-size 0" "--extent-size -1" "--extent-size 18446744073709551616" \
  "--extent-size 4M" "--client-id 0" "--client-id -1" "--client-id 010" "--subclient-id 4294967296"; do
  # shellcheck disable=SC2086
  try 2 import --store "$work/x" --disk d --format raw $bad "$work/disk.raw"
  [ ! -e "$work/x" ] || fail "$bad: made the store"
done
try 0 import --store "$work/x" --disk d --format raw --extent-size 64K --subclient-id 4294967295 "$work/disk.raw"
python3 -c 'import json, sys; d = json.load(open(sys.argv[1]))["disks"][0]; sys.exit(d["extentSize"] != 65536 or d["subclientId"] != 4294967295)' \
  "$work/x/catalog.json" || { cat "$work/x/catalog.json"; fail "64K extents of subclient 4294967295 not recorded"; }
echo "ok: extent sizes and ids out of range refused, 64K taken"
