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

# Zero extents stay holes in the image, found without reading them.
python3 - "$work/dyn.ref" "$work/dyn.out" <<'PY' || fail "dynamic VHD export is not sparse where the disk is zero"
import os, sys
E = 1 << 20
ref = open(sys.argv[1], "rb").read()
fd = os.open(sys.argv[2], os.O_RDONLY)
zero = [e for e in range(0, len(ref), E) if not any(ref[e:e + E])]
assert len(zero) >= 6, len(zero)
for e in zero:
    try:
        data = os.lseek(fd, e, os.SEEK_DATA)
    except OSError:
        data = len(ref)
    assert data >= min(e + E, len(ref)), f"extent at {e} holds data at {data}"
held = len(range(0, len(ref), E)) - len(zero)
assert os.fstat(fd).st_blocks * 512 <= held * E, "more allocated than the extents holding data"
PY
ok "zero extents of the dynamic VHD are holes in the exported image"

# A huge disk that holds little: 2000 GiB with three stretches written by
# qemu-io (one at an odd offset, one in the last MiB) exports as the same
# image as qemu-img's, sparse, recalling only the extents of the four 2 MiB
# blocks that qemu-io allocated: eight of 1 MiB.
huge=$work/huge
qemu-img create -q -f vpc -o force_size=on "$huge.vhd" 2000G
qemu-io -f vpc -c 'write -P 0x5a 0 4M' -c 'write -P 0xa5 1099511628288 3000' \
  -c 'write -P 0x33 2147482599424 1M' "$huge.vhd" >/dev/null
"$zxblk" import --store "$work/store" --disk huge "$huge.vhd" >/dev/null
qemu-img convert -q -f vpc -O raw "$huge.vhd" "$huge.ref"
"$zxblk" export --store "$work/store" --disk huge --out "$huge.out" --cache "$work/cache-huge" --json >"$huge.json"
qemu-img compare -q -f raw -F raw "$huge.out" "$huge.ref" || fail "the 2000 GiB disk exports other bytes than qemu-img's"
recalled=$(python3 -c 'import json, sys; print(json.load(open(sys.argv[1]))["extentsRecalled"])' "$huge.json")
[ "$recalled" = 8 ] || fail "the 2000 GiB disk recalled $recalled extents, not the 8 of its allocated blocks"
[ "$(du -k "$huge.out" | cut -f1)" -le $((8 * 1024)) ] || fail "the 2000 GiB disk's image is not sparse ($(du -h "$huge.out"))"
"$zxblk" read --store "$work/store" --disk huge --offset 1T --length 4M --cache "$work/cache-huge" |
  cmp - <(dd if="$huge.ref" bs=1M skip=1048576 count=4 status=none) || fail "read at 1 TiB of the 2000 GiB disk differs"
ok "a 2000 GiB disk with four allocated blocks exports sparse and identical, recalling 8 extents"

# Outputs that are not plain files are written in place, never renamed over.
ref="$work/dyn.ref"
exp() { "$zxblk" export --store "$work/store" --disk dyn --cache "$work/cache-out" "$@"; }
exp --out - >"$work/stdout.img" 2>"$work/stderr" && cmp "$work/stdout.img" "$ref" || fail "export to - differs"
grep -q "^exported dyn snapshot 0 to standard output" "$work/stderr" || fail "export to -: summary not on stderr"
exp --out /dev/stdout 2>/dev/null | cmp - "$ref" || fail "export to /dev/stdout through a pipe differs"
[ -L /dev/stdout ] || fail "/dev/stdout is no longer a link"
mkfifo "$work/fifo"
cat "$work/fifo" >"$work/fifo.img" &
exp --out "$work/fifo" >/dev/null && wait $! && cmp "$work/fifo.img" "$ref" || fail "export into a FIFO differs"
[ -p "$work/fifo" ] || fail "the FIFO was replaced"
printf 'old bytes that must go' >"$work/target.img"
ln -s target.img "$work/link.img"
exp --out "$work/link.img" >/dev/null && cmp "$work/target.img" "$ref" || fail "export through a link differs"
[ -L "$work/link.img" ] || fail "the link was replaced by a file"
ok "standard output, /dev/stdout, a FIFO and a link are written in place"
for bad in "$work" "$work/no/such/folder/x.img"; do
  if exp --out "$bad" >/dev/null 2>"$work/err"; then fail "export to $bad succeeded"; fi
  [ "$(wc -l <"$work/err")" = 1 ] || { cat "$work/err"; fail "export to $bad: not one line"; }
done
[ -z "$(find "$work" -maxdepth 1 -name '.*zxblk-*')" ] || fail "a failed export left a temporary file"
ok "a folder or a missing folder as output is refused in one line, leaving nothing"

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
