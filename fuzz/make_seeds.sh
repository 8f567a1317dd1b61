#!/usr/bin/env bash
# Writes the seed corpora of the fuzz targets (they are kept in the tree; run
# this only to make them again). Needs qemu-img, qemu-io and a normal build
# of the tree for zxblk, make_vhd_chain and make_vhdx_chain:
#
#   fuzz/make_seeds.sh [BUILD_DIR]      (default: build)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
zxblk=$build/tools/zxblk
chain=$build/tests/support/make_vhd_chain
xchain=$build/tests/vhdx/make_vhdx_chain
for tool in "$zxblk" "$chain" "$xchain"; do
  [ -x "$tool" ] || { echo "missing $tool: build the tree first (./run.sh or scripts/setup.sh $build)" >&2; exit 1; }
done
for tool in qemu-img qemu-io python3; do
  command -v $tool >/dev/null || { echo "missing $tool" >&2; exit 1; }
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# A small disk whose bytes are the same on every run.
python3 -c 'import sys; sys.stdout.buffer.write(bytes((i * 37 + i // 512) & 255 for i in range(2048)))' >"$work/disk.raw"
head -c 65536 /dev/zero >"$work/zero.raw"

# VHD reader: a fixed and an empty dynamic VHD from qemu-img, and a dynamic
# parent with a differencing child (1 KiB blocks) from the tests' writer.
vhd=fuzz/vhd_reader/corpus
rm -rf "$vhd" && mkdir -p "$vhd"
qemu-img convert -q -f raw -O vpc -o subformat=fixed,force_size=on "$work/disk.raw" "$vhd/fixed.vhd"
qemu-img convert -q -f raw -O vpc -o subformat=dynamic "$work/zero.raw" "$vhd/dynamic_empty.vhd"
mkdir "$work/chain"
"$chain" "$work/chain" 2048 1024 1 5 >/dev/null
cp "$work/chain/snap0.vhd" "$vhd/dynamic.vhd"
cp "$work/chain/snap1.vhd" "$vhd/differencing.vhd"

# VHDX reader: files packed as the target reads them (a u32 file size, then
# segments of u32 offset, u16 length and bytes over zeros), with each payload
# block's data cut to its first 512 bytes: the target compares what it reads
# with the file whatever the bytes are. From qemu-img a dynamic disk (unwritten
# blocks ZERO, a short last block) and a fixed one; from the tests' writer a
# differencing file of 512-byte and one of 4096-byte sectors (every block
# state, sector bitmaps, a parent locator) and the base of the first; and
# the dynamic disk not closed cleanly, its table's truth in two log entries.
vhdx=fuzz/vhdx_reader/corpus
rm -rf "$vhdx" && mkdir -p "$vhdx" "$work/x"
qemu-img create -q -f vhdx -o block_size=1M,log_size=1M "$work/x/dynamic.vhdx" 3584K
qemu-io -f vhdx -c 'write -P 0x5a 0 4k' -c 'write -P 0xa5 1536k 512' -c 'write -P 0x3c 3583k 1k' "$work/x/dynamic.vhdx" >/dev/null
qemu-img create -q -f vhdx -o subformat=fixed,block_state_zero=off,block_size=1M,log_size=1M "$work/x/fixed.vhdx" 2M
qemu-io -f vhdx -c 'write -P 0x77 1m 4k' "$work/x/fixed.vhdx" >/dev/null
mkdir "$work/x/c512" "$work/x/c4k"
"$xchain" "$work/x/c512" --size 3145728 --block-size 1048576 --levels 2 --seed 1 >/dev/null
"$xchain" "$work/x/c4k" --size 3145728 --block-size 1048576 --logical-sector 4096 --levels 2 --seed 2 >/dev/null
python3 tests/vhdx_log/vhdx_log.py "$work/x/dynamic.vhdx" "$work/x/logged.vhdx" two-entries
python3 - "$vhdx" "$work/x/logged.vhdx:logged" "$work/x/dynamic.vhdx:dynamic" "$work/x/fixed.vhdx:fixed" "$work/x/c512/base.vhdx:base" \
  "$work/x/c512/snap1.avhdx:differencing" "$work/x/c4k/snap1.avhdx:differencing_4k" <<'PY'
import re, struct, sys

def guid(text):
    b = bytes.fromhex(text.replace('-', ''))
    return b[3::-1] + b[5:3:-1] + b[7:5:-1] + b[8:]

def pack(f):
    f = bytearray(f)
    count = struct.unpack_from('<I', f, 0x30008)[0]
    regions = {}
    for i in range(count):
        g, off, length = struct.unpack_from('<16sQI', f, 0x30010 + 32 * i)
        regions[g] = (off, length)
    meta = regions[guid('8B7CA206-4790-4B9A-B8FE-575F050F886E')][0]
    items = {}
    for i in range(struct.unpack_from('<H', f, meta + 10)[0]):
        g, at = struct.unpack_from('<16sI', f, meta + 32 + 32 * i)
        items[g] = meta + at
    block = struct.unpack_from('<I', f, items[guid('CAA16737-FA36-4D43-B3B6-33F0AA44E76B')])[0]
    logical = struct.unpack_from('<I', f, items[guid('8141BF1D-A96F-4709-BA47-F233A8FAAB5F')])[0]
    ratio = (1 << 23) * logical // block
    bat, length = regions[guid('2DC27766-F623-4200-9D64-115E9BFD4A08')]
    for i in range(length // 8):
        e = struct.unpack_from('<Q', f, bat + 8 * i)[0]
        if i % (ratio + 1) != ratio and e & 7 in (6, 7):
            at = (e >> 20) << 20
            f[at + 512:at + block] = bytes(len(f[at + 512:at + block]))
    out = struct.pack('<I', len(f))
    for m in re.finditer(rb'[^\0]+(?:\0{1,15}[^\0]+)*', bytes(f)):
        for at in range(m.start(), m.end(), 65535):
            piece = f[at:min(m.end(), at + 65535)]
            out += struct.pack('<IH', at, len(piece)) + piece
    return out

for arg in sys.argv[2:]:
    path, name = arg.split(':')
    open(sys.argv[1] + '/' + name + '.packed', 'wb').write(pack(open(path, 'rb').read()))
PY

# Catalog: what zxblk import writes for a VHD chain plus a raw image, and for
# a fixed VHD under other names; and the catalog of an empty store. The file
# names are the ones the catalog target puts in its scratch store.
cat=fuzz/catalog/corpus
rm -rf "$cat" && mkdir -p "$cat"
"$zxblk" import --store "$work/s1" --disk chain "$vhd/dynamic.vhd" "$vhd/differencing.vhd" >/dev/null
"$zxblk" import --store "$work/s1" --disk raw --format raw --client web01 --client-id 7 --extent-size 65536 "$work/disk.raw" >/dev/null
"$zxblk" import --store "$work/s2" --disk fixed --subclient-id 4 --instance inst2 --backupset bs2 \
  --extent-size 2097152 "$vhd/fixed.vhd" >/dev/null
cp "$work/s1/catalog.json" "$cat/chain_and_raw.json"
cp "$work/s2/catalog.json" "$cat/fixed.json"
printf '%s\n' '{"backupSets":[],"clients":[],"disks":[],"instances":[],"nextArchiveFileId":1,"nextDiskId":1,"subclients":[],"version":1}' \
  >"$cat/empty.json"

# Recall metadata: strings as the disk library writes them.
meta=fuzz/recall_metadata/corpus
rm -rf "$meta" && mkdir -p "$meta"
recall() { printf '1:2:0:%s:%s:1:%d:%s' "$2" "$3" "${#4}" "$4" >"$meta/$1"; }
recall extent0 1 2048 /localhost/default/chain/snap0/Extent0
recall extent12 7 9 /v/disk0/Extent12
recall extremes -1 -9223372036854775808 x
recall colons 3 1536 /a:b/c:d/Extent1:2

du -b "$vhd" "$vhdx" "$cat" "$meta"
