#!/usr/bin/env bash
# A byte damaged in a stored block after import is never served: the read of
# its extent fails naming the file and the block, other extents still read,
# and `zxblk verify` names exactly that block. A damaged side file is caught;
# a catalog from before checksums were kept still exports.
set -euo pipefail
zxblk=$1 chain=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export ASAN_OPTIONS=${ASAN_OPTIONS:-}:detect_leaks=1
fail() { echo "FAIL: $*"; exit 1; }
E=1048576

python3 - "$work/base.raw" <<'PY'
import os, sys
open(sys.argv[1], "wb").write(os.urandom(12 * 1048576 + 64 * 512))
PY
qemu-img convert -q -f raw -O vpc -o force_size=on "$work/base.raw" "$work/dyn.vhd"
qemu-img convert -q -f raw -O vpc -o subformat=fixed,force_size=on "$work/base.raw" "$work/fixed.vhd"
qemu-img convert -q -f vpc -O raw "$work/dyn.vhd" "$work/dyn.ref"
cp "$work/dyn.ref" "$work/fixed.ref"
"$chain" "$work" $((6 * E)) 524288 1 17 >/dev/null   # snap0.vhd, snap1.vhd and the merged disks
cp "$work/snap1.raw" "$work/chain.ref"
store="$work/store"
"$zxblk" import --store "$store" --disk dyn "$work/dyn.vhd" >/dev/null
"$zxblk" import --store "$store" --disk fixed "$work/fixed.vhd" >/dev/null
"$zxblk" import --store "$store" --disk chain "$work/snap0.vhd" "$work/snap1.vhd" >/dev/null

"$zxblk" verify --store "$store" >"$work/out" || { cat "$work/out"; fail "verify of a clean store did not exit 0"; }
grep -q "^verified 3 disks, 4 snapshots, [0-9]* blocks: all sound$" "$work/out" || { cat "$work/out"; fail "clean summary"; }
echo "ok: clean store -> $(cat "$work/out")"

# Prints the file offset of byte WITHIN of block B's data (or of its sector
# bitmap with "bitmap") of a VHD, from its own footer, header and table.
locate() {
  python3 - "$@" <<'PY'
import struct, sys
path, block, within, part = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), sys.argv[4]
f = open(path, "rb"); f.seek(-512, 2); footer = f.read(512)
if struct.unpack(">I", footer[60:64])[0] == 2:
    print(block * 2097152 + within); sys.exit()
f.seek(struct.unpack(">Q", footer[16:24])[0]); header = f.read(1024)
table, bs = struct.unpack(">Q", header[16:24])[0], struct.unpack(">I", header[32:36])[0]
f.seek(table + 4 * block); sector = struct.unpack(">I", f.read(4))[0]
assert sector != 0xFFFFFFFF, "block not allocated"
bitmap = ((bs // 512 + 7) // 8 + 511) // 512 * 512
print(sector * 512 + within + (0 if part == "bitmap" else bitmap))
PY
}
flip() { printf "$(printf '\\%03o' $(( $(od -An -tu1 -j "$2" -N1 "$1") ^ ${3:-1} )))" | dd of="$1" bs=1 seek="$2" conv=notrunc status=none; }

# disk, stored file, block, byte in it, data|bitmap, an extent inside that
# block, an extent that must still read right.
cases=(
  "dyn    dyn-snap0.vhd    2 4097   data   4 9"
  "dyn    dyn-snap0.vhd    5 0      bitmap 10 0"
  "fixed  fixed-snap0.vhd  1 777777 data   2 0"
  "chain  chain-snap1.vhd  3 1000   data   1 4"
)
for c in "${cases[@]}"; do
  set -- $c
  disk=$1 file=$2 block=$3 within=$4 part=$5 bad=$6 good=$7
  copy="$work/s-$disk-$part"
  cp -a "$store" "$copy"
  at=$(locate "$copy/snapshots/$file" "$block" "$within" "$part")
  flip "$copy/snapshots/$file" "$at"
  touch -r "$store/snapshots/$file" "$copy/snapshots/$file"
  # Extents are read one at a time in a fresh cache: only the damaged one fails.
  if "$zxblk" read --store "$copy" --disk "$disk" --cache "$work/c-$disk-$part-bad" --offset $((bad * E)) --length 4096 \
       >/dev/null 2>"$work/err"; then
    fail "$disk $part: the damaged extent $bad read"
  fi
  grep -q "$file: block $block: checksum mismatch" "$work/err" || { cat "$work/err"; fail "$disk $part: file and block not named"; }
  [ "$(wc -l <"$work/err")" = 1 ] || { cat "$work/err"; fail "$disk $part: not one line"; }
  "$zxblk" read --store "$copy" --disk "$disk" --cache "$work/c-$disk-$part-good" --offset $((good * E)) --length $E \
    >"$work/good" || fail "$disk $part: a sound extent $good did not read"
  cmp "$work/good" <(dd if="$work/$disk.ref" bs=$E skip="$good" count=1 status=none) || fail "$disk $part: extent $good differs"
  rc=0
  "$zxblk" verify --store "$copy" >"$work/out" || rc=$?
  [ "$rc" = 1 ] || { cat "$work/out"; fail "$disk $part: verify exited $rc, not 1"; }
  [ "$(grep -c ': block ' "$work/out")" = 1 ] || { cat "$work/out"; fail "$disk $part: not exactly one block named"; }
  grep -q "^$disk snapshot [01] (snapshots/$file): block $block: checksum mismatch" "$work/out" ||
    { cat "$work/out"; fail "$disk $part: verify did not name the block"; }
  echo "ok: $disk $part byte -> $(grep -m1 "checksum mismatch" "$work/err" | sed 's/.*snapshots\///')"
done

# One bit flipped in a side file: caught when it is loaded, and by verify.
cp -a "$store" "$work/s-sums"
flip "$work/s-sums/sums/dyn-snap0.vhd.sums" 60 16
if "$zxblk" export --store "$work/s-sums" --disk dyn --cache "$work/c-sums" --out "$work/x" >/dev/null 2>"$work/err"; then
  fail "export with a damaged side file succeeded"
fi
grep -q "sums/dyn-snap0.vhd.sums: checksum: the catalog records" "$work/err" || { cat "$work/err"; fail "side file not named"; }
rc=0
"$zxblk" verify --store "$work/s-sums" --disk dyn >"$work/out" || rc=$?
[ "$rc" = 1 ] && grep -q "dyn-snap0.vhd.sums: checksum" "$work/out" || { cat "$work/out"; fail "verify: damaged side file ($rc)"; }
echo "ok: damaged side file -> $(grep -m1 "checksum:" "$work/err" | sed 's/.*sums\///')"

# A catalog written before checksums were kept exports unchecked.
cp -a "$store" "$work/s-old"
python3 - "$work/s-old/catalog.json" <<'PY'
import json, sys
c = json.load(open(sys.argv[1]))
for d in c["disks"]:
    for k in d["copies"]:
        del k["sums"], k["sumsChecksum"]
json.dump(c, open(sys.argv[1], "w"), indent=2)
PY
rm -r "$work/s-old/sums"
"$zxblk" export --store "$work/s-old" --disk chain --cache "$work/c-old" --out "$work/old.raw" >/dev/null
cmp "$work/old.raw" "$work/chain.ref" || fail "old catalog: export differs"
"$zxblk" verify --store "$work/s-old" >"$work/out" || { cat "$work/out"; fail "old catalog: verify did not exit 0"; }
grep -q "4 snapshots without checksums" "$work/out" || { cat "$work/out"; fail "old catalog: summary"; }
echo "ok: catalog without checksums exports and verifies as unchecked"

for args in "" "--store $work/none" "--store $store --disk nosuch" "--store $store extra"; do
  rc=0
  "$zxblk" verify $args >/dev/null 2>"$work/err" || rc=$?
  [ "$rc" = 2 ] && [ "$(wc -l <"$work/err")" = 1 ] || { cat "$work/err"; fail "verify $args: exit $rc, not 2 with one line"; }
done
echo "ok: misuse and a missing store exit 2 with one line"
