#!/usr/bin/env bash
# Writes the seed corpora of the fuzz targets (they are kept in the tree; run
# this only to make them again). Needs qemu-img and a normal build of the
# tree for zxblk and make_vhd_chain:
#
#   fuzz/make_seeds.sh [BUILD_DIR]      (default: build)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
zxblk=$build/tools/zxblk
chain=$build/tests/support/make_vhd_chain
for tool in "$zxblk" "$chain"; do
  [ -x "$tool" ] || { echo "missing $tool: build the tree first (./run.sh or scripts/setup.sh $build)" >&2; exit 1; }
done
command -v qemu-img >/dev/null || { echo "missing qemu-img" >&2; exit 1; }

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

du -b "$vhd" "$cat" "$meta"
