#!/usr/bin/env bash
# Export throughput of zxblk beside qemu-img convert of the same files, in one
# run: a 1 GiB dynamic VHD with about 60% of its blocks allocated, and a
# two-level differencing chain.
#   bench/export_bench.sh [BUILD_DIR]
set -euo pipefail
build=${1:-build}
zxblk=$build/tools/zxblk chain=$build/tests/support/make_vhd_chain
[ -x "$zxblk" ] || { echo "build first: ./run.sh (or cmake --build $build)"; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mibs() { python3 -c "print(f'{$1 / 1048576 / $2:.1f}')"; }
timed() { local s=$(date +%s.%N); "$@" >/dev/null; python3 -c "print($(date +%s.%N) - $s)"; }

# 1 GiB dynamic VHD, 60% of its 2 MiB blocks written with random data.
python3 - "$work/base.raw" <<'PY'
import os, random, sys
random.seed(1)
with open(sys.argv[1], "wb") as f:
    f.truncate(1 << 30)
    for block in range(512):
        if random.random() < 0.6:
            f.seek(block << 21)
            f.write(os.urandom(1 << 21))
PY
qemu-img convert -q -f raw -O vpc -o force_size=on "$work/base.raw" "$work/dyn.vhd"
rm "$work/base.raw"
"$zxblk" import --store "$work/store" --disk dyn "$work/dyn.vhd" >/dev/null
size=$((1 << 30))
t_q=$(timed qemu-img convert -f vpc -O raw "$work/dyn.vhd" "$work/q.raw")
t_z=$(timed "$zxblk" export --store "$work/store" --disk dyn --out "$work/z.raw" --cache "$work/cache")
cmp "$work/q.raw" "$work/z.raw"
rm "$work/q.raw" "$work/z.raw"
echo "dynamic VHD 1 GiB, 60% allocated: zxblk export $(mibs $size $t_z) MiB/s, qemu-img convert $(mibs $size $t_q) MiB/s"

# Two-level differencing chain of 512 MiB (writer of the test tree).
mkdir -p "$work/chain"
"$chain" "$work/chain" $((512 << 20)) 2097152 2 3 >/dev/null
"$zxblk" import --store "$work/store" --disk chain "$work/chain/snap0.vhd" "$work/chain/snap1.vhd" "$work/chain/snap2.vhd" >/dev/null
size=$((512 << 20))
t_z=$(timed "$zxblk" export --store "$work/store" --disk chain --out "$work/z.raw" --cache "$work/cache2")
cmp "$work/z.raw" "$work/chain/snap2.raw"
echo "differencing chain 512 MiB, 3 levels: zxblk export $(mibs $size $t_z) MiB/s (qemu-img cannot follow VHD parents)"
