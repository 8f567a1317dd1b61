#!/usr/bin/env bash
# VHDX files made by qemu-img and written by qemu-io, imported into a store
# of the test's own and exported: each export is byte for byte what
# `qemu-img convert -f vhdx -O raw` reads from the same file. Dynamic and
# fixed files, 1 MiB, 32 MiB and qemu-img's own block size, blocks qemu-img
# leaves ZERO (its default) or NOT_PRESENT (block_state_zero=off), disks that
# are not a whole number of blocks; data in patterns over block edges, ranges
# zeroed (write -z) and discarded after they were written (qemu's VHDX keeps
# both as data). Each export recalls only the extents holding what was
# written, not the rest of a block left as a hole in the file. One disk is
# also read through `zxblk serve`: nbdcopy's copy
# must match, and in nbdinfo's map its unwritten block must be a hole and no
# hole may hold a non-zero byte.
#   qemu_vhdx_test.sh ZXBLK
set -euo pipefail
zxblk=$1
for tool in qemu-img qemu-io python3 cmp; do
  command -v "$tool" >/dev/null || { echo "skipped: $tool is not installed"; exit 77; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export ASAN_OPTIONS=${ASAN_OPTIONS:-}:detect_leaks=1
fail() { echo "FAIL: $*" >&2; exit 1; }
store=$work/store
M=$((1 << 20))

# name | qemu-img create options | disk size | qemu-io commands (';' between them) | what `list` calls it |
# the 1 MiB extents an export recalls: those holding a written byte, not the
# rest of a block (fixed files' too) that the file leaves as a hole
cases=(
  "dyn1m|block_size=1M|$((5 * M + 3584))|write -P 0x11 0 64k; write -P 0x22 1044480 512k; write -z 1114112 128k; write -P 0x33 3M 1M; discard 3M 1M; write -P 0x44 5241344 5120|dynamic VHDX|5"
  "dyn1m_notpresent|block_size=1M,block_state_zero=off|$((4 * M))|write -P 0x55 512 1536; write -P 0x66 3M 1M; write -z 3670016 4k; write -P 0x67 1000 333|dynamic VHDX|2"
  "dyn32m|block_size=32M|$((100 * M))|write -P 0x77 0 1M; write -P 0x88 33M 2M; write -z 34M 64k; write -P 0x99 64M 1M; discard 64M 32M; write -P 0xaa 104853504 4096|dynamic VHDX|5"
  "dyn_default|-|$((64 * M + 512))|write -P 0xbb 0 4k; write -P 0xcc 63M 1M; write -P 0xcd 67108864 512|dynamic VHDX|3"
  "fixed1m|subformat=fixed,block_size=1M|$((3 * M + 512))|write -P 0xdd 1M 8k; write -z 1052672 2k|fixed VHDX|1"
  "fixed32m|subformat=fixed,block_state_zero=off,block_size=32M|$((40 * M))|write -P 0xee 32M 1M; write -z 32M 4k; write -P 0xef 1 511|fixed VHDX|2"
)

for row in "${cases[@]}"; do
  IFS='|' read -r name opts size cmds kind recalls <<<"$row"
  f=$work/$name.vhdx
  if [ "$opts" = - ]; then qemu-img create -q -f vhdx "$f" "$size"; else qemu-img create -q -f vhdx -o "$opts" "$f" "$size"; fi
  args=()
  IFS=';' read -ra list <<<"$cmds"
  for c in "${list[@]}"; do args+=(-c "${c# }"); done
  qemu-io -f vhdx "${args[@]}" "$f" >"$work/qemu-io.log" 2>&1 || { cat "$work/qemu-io.log"; fail "$name: qemu-io failed"; }
  qemu-img convert -f vhdx -O raw "$f" "$work/$name.ref"
  "$zxblk" import -q --store "$store" --disk "$name" "$f" >/dev/null 2>"$work/err" || { cat "$work/err"; fail "$name: import refused"; }
  "$zxblk" export --json --store "$store" --disk "$name" --out "$work/$name.out" --cache "$work/cache-$name" \
    >"$work/summary" 2>"$work/err" || { cat "$work/err"; fail "$name: export failed"; }
  n=$(python3 -c 'import json, sys; print(json.load(open(sys.argv[1]))["extentsRecalled"])' "$work/summary")
  [ "$n" = "$recalls" ] || fail "$name: export recalled $n extents, not $recalls"
  [ "$(stat -c %s "$work/$name.out")" = "$size" ] || fail "$name: export of $(stat -c %s "$work/$name.out") bytes, not $size"
  cmp "$work/$name.out" "$work/$name.ref" || fail "$name: export differs from qemu-img convert"
  "$zxblk" list --store "$store" | grep -- "$name" | grep -q "$kind" || { "$zxblk" list --store "$store"; fail "$name: list does not say $kind"; }
  echo "ok: $name ($kind, $opts, $size bytes): export identical to qemu-img convert"
  [ "$name" = dyn1m ] || rm -f "$work/$name.out" "$f"
done

# The first disk served over NBD: nbdcopy's copy is the same bytes, and
# every 64 KiB holding a non-zero byte is data in nbdinfo's map.
if ! command -v nbdcopy >/dev/null || ! command -v nbdinfo >/dev/null || ! command -v nbdkit >/dev/null; then
  echo "ok: (not served: nbdcopy, nbdinfo or nbdkit is not installed)"
  exit 0
fi
export XDG_RUNTIME_DIR=$work/run XDG_CACHE_HOME=$work/xdg-cache OUT=$work/nbd.raw MAP=$work/map.txt
mkdir -m 700 "$XDG_RUNTIME_DIR"
"$zxblk" serve --store "$store" --disk dyn1m --cache "$work/cache-serve" \
  --run 'nbdcopy "$uri" "$OUT" && nbdinfo --map "$uri" >"$MAP"' >"$work/serve.log" 2>&1 ||
  { cat "$work/serve.log"; fail "dyn1m: zxblk serve with nbdcopy and nbdinfo failed"; }
cmp "$work/nbd.raw" "$work/dyn1m.ref" || fail "dyn1m: nbdcopy of the served disk differs from qemu-img convert"
python3 - "$work/map.txt" "$work/dyn1m.ref" <<'PY' || fail "dyn1m: nbdinfo's map is wrong"
import sys
data = open(sys.argv[2], "rb").read()
G, M = 65536, 1 << 20
holes = []
for line in open(sys.argv[1]):
    start, length, kind = (int(v) for v in line.split()[:3])
    if kind & 1:  # a hole
        holes.append((start, start + length))
        for at in range(start, start + length, G):
            assert not any(data[at:min(at + G, start + length)]), f"the hole at {at} holds data"
assert any(a <= 2 * M and 3 * M <= b for a, b in holes), f"block 2, never written (ZERO), is not a hole: {holes}"
PY
echo "ok: dyn1m served through zxblk serve: nbdcopy identical; in nbdinfo's map the ZERO block is a hole, and no hole holds data"
