#!/usr/bin/env bash
# Disks made by other tools export through the provider byte for byte.
set -euo pipefail
zxblk=$1 chain=$2
work=$(mktemp -d)
trap 'fusermount3 -u "$work/mnt" 2>/dev/null || true; rm -rf "$work"' EXIT
export ASAN_OPTIONS=${ASAN_OPTIONS:-}:detect_leaks=1
ok() { echo "ok: $*"; }
fail() { echo "FAIL: $*"; exit 1; }

# Random data with zero runs, as dynamic and fixed VHDs made by qemu-img.
python3 - "$work/base.raw" <<'PY'
import os, random, sys
random.seed(5)
size = 24 * 1024 * 1024 + 37 * 512       # not a whole number of extents
data = bytearray(os.urandom(size))
for start in (0, 3 << 20, 9 << 20, 9 * 1024 * 1024 + 4096):
    data[start:start + (2 << 20)] = bytes(min(2 << 20, size - start))
open(sys.argv[1], "wb").write(data)
PY
qemu-img convert -q -f raw -O vpc -o force_size=on "$work/base.raw" "$work/dyn.vhd"
qemu-img convert -q -f raw -O vpc -o subformat=fixed,force_size=on "$work/base.raw" "$work/fixed.vhd"
for kind in dyn fixed; do
  "$zxblk" import --store "$work/store" --disk "$kind" "$work/$kind.vhd" >/dev/null
  qemu-img convert -q -f vpc -O raw "$work/$kind.vhd" "$work/$kind.ref"
  "$zxblk" export --store "$work/store" --disk "$kind" --out "$work/$kind.out" --cache "$work/cache-$kind" >/dev/null
  cmp "$work/$kind.out" "$work/$kind.ref" || fail "$kind VHD export differs from qemu-img"
  ok "$kind VHD from qemu-img exports identical ($(stat -c %s "$work/$kind.out") bytes)"
done

# Chains written by the test writer: extents inside one block and across
# several, a size that is not a whole number of extents.
for plan in "2097152 3 11" "524288 2 12" "65536 2 13"; do
  set -- $plan
  dir="$work/chain-$1"
  mkdir -p "$dir"
  "$chain" "$dir" $((20 * 1048576 + 37 * 512)) "$1" "$2" "$3" >/dev/null
  files=()
  for ((i = 0; i <= $2; i++)); do files+=("$dir/snap$i.vhd"); vhdiinfo "$dir/snap$i.vhd" >/dev/null || fail "vhdiinfo rejects $dir/snap$i.vhd"; done
  "$zxblk" import --store "$work/store" --disk "chain$1" "${files[@]}" >/dev/null
  for ((i = 0; i <= $2; i++)); do
    "$zxblk" export --store "$work/store" --disk "chain$1" --snapshot "$i" --out "$dir/out$i" --cache "$dir/cache$i" >/dev/null
    cmp "$dir/out$i" "$dir/snap$i.raw" || fail "chain with $1-byte blocks, snapshot $i differs from the plan"
  done
  ok "chain with $1-byte blocks exports identical at every snapshot"
done

# Ranges through zxblk read, across extent boundaries and into the last partial extent.
dir="$work/chain-524288"
size=$(stat -c %s "$dir/snap2.raw")
for range in "0 512" "1048000 2000" "3145727 1048578" "$((size - 10000)) 10000"; do
  set -- $range
  "$zxblk" read --store "$work/store" --disk chain524288 --offset "$1" --length "$2" --cache "$dir/cache-read" >"$work/range"
  cmp "$work/range" <(tail -c +$(($1 + 1)) "$dir/snap2.raw" | head -c "$2") || fail "read $1+$2 differs"
done
ok "zxblk read ranges match"

# libvhdi reads an aligned chain of the writer the same way.
if [ -e /dev/fuse ] && command -v vhdimount >/dev/null; then
  dir="$work/aligned"
  mkdir -p "$dir" "$work/mnt"
  "$chain" "$dir" $((8 * 1048576)) 1048576 2 21 --aligned8 >/dev/null
  (cd "$dir" && vhdimount snap2.vhd "$work/mnt" >/dev/null)
  for _ in $(seq 50); do [ -e "$work/mnt/vhdi3" ] && break; sleep 0.1; done
  for i in 0 1 2; do cmp "$work/mnt/vhdi$((i + 1))" "$dir/snap$i.raw" || fail "vhdimount layer $i differs from the writer's plan"; done
  fusermount3 -u "$work/mnt" 2>/dev/null || fusermount -u "$work/mnt"
  ok "vhdimount reads the aligned chain as planned"
else
  echo "skipped: vhdimount cross-check (no /dev/fuse)"
fi
