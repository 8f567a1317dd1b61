#!/usr/bin/env bash
# What readahead costs and saves on the reads of a real file system, replayed
# against Disk::read by bench/replay_reads.cpp (built here):
#
#   the trace  an ext4 file system of many files (mke2fs -d from generated
#              files of mixed sizes), mounted read-only from a loop device
#              (direct I/O) over nbdfuse of an nbdkit server of the raw image,
#              with nbdkit's log filter recording every read that reaches the
#              server while every file is stat'ed (find) and a tenth of the
#              files, picked at random, are read whole in random order. It is
#              the block-level view of a file system at work, as a guest's
#              reads reach `zxblk serve`; it is not a VM's boot.
#   the replay the trace's reads one after another, against the same image as
#              a dynamic VHD in a store, each run on a new extent cache.
#
# Runs: the default window (16 MiB), readahead off, and with --baseline BUILD
# the library of another build (an older tree, its own default) replaying the
# same trace; interleaved, best time of N, the extent counts of the worst run.
# Target: recalled extents at most 1.3x those the reads touched (the extents
# they cover that hold data), and no slower than the baseline (or than
# readahead off, without one). Needs root (losetup, mount) and /dev/fuse.
#
#   bench/readahead_bench.sh [--rounds N] [--budget SECONDS] [--baseline BUILD] [BUILD_DIR]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
bench_name=readahead_bench
# shellcheck source=bench/bench_common.sh
source "$here/bench_common.sh"
rounds=${READAHEAD_BENCH_ROUNDS:-5} budget=${READAHEAD_BENCH_BUDGET:-200}
baseline='' args=()
while [ $# -gt 0 ]; do
    case $1 in
        --baseline) baseline=${2:?--baseline needs a build folder}; shift 2 ;;
        *) args+=("$1"); shift ;;
    esac
done
parse_common_args "${args[@]}"
script_start=$EPOCHREALTIME

zxblk=$build/tools/zxblk
[ -x "$zxblk" ] || die "no $zxblk: build first (./run.sh, or cmake --build $build)"
[ "$(id -u)" = 0 ] || die "recording the trace needs root (losetup and mount)"
[ -e /dev/fuse ] || die "recording the trace needs /dev/fuse (nbdfuse)"
for t in nbdkit nbdfuse losetup mount mke2fs qemu-img python3 c++ awk; do
    command -v "$t" >/dev/null || die "$t is missing (scripts/setup.sh installs it)"
done

work=$(mktemp -d "${TMPDIR:-/tmp}/readahead_bench.XXXXXX")
loop='' nbdkit_pid=''
cleanup() {
    set +e
    mountpoint -q "$work/mnt" && umount "$work/mnt"
    [ -n "$loop" ] && losetup -d "$loop"
    mountpoint -q "$work/fuse" && fusermount3 -u "$work/fuse"
    [ -n "$nbdkit_pid" ] && kill "$nbdkit_pid"
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM
mkdir -p "$work/files" "$work/fuse" "$work/mnt"

# source_of BUILD: the tree a build folder was configured from.
source_of() { sed -n 's/^CMAKE_HOME_DIRECTORY:INTERNAL=//p' "$1/CMakeCache.txt"; }
# build_replay BUILD OUT: bench/replay_reads.cpp against that build's library and header.
build_replay() {
    local src
    src=$(source_of "$1")
    [ -f "$src/include/zxblk/zxblk.h" ] && [ -e "$1/api/libzxblk.so" ] || die "$1: no libzxblk.so or no zxblk.h in $src"
    c++ -O2 -std=c++17 -I"$src/include" -o "$2" "$here/replay_reads.cpp" -L"$1/api" -lzxblk -Wl,-rpath,"$1/api" ||
        die "cannot build bench/replay_reads.cpp against $1"
}
build_replay "$build" "$work/replay"
if [ -n "$baseline" ]; then
    [ -d "$baseline" ] || die "no build folder $baseline"
    build_replay "$(cd "$baseline" && pwd)" "$work/replay-base"
fi

step "making an ext4 file system of many files ..."
python3 - "$work/files" <<'PY'
import os, random, sys
rng = random.Random(11)
root = sys.argv[1]
for d in range(60):
    path = os.path.join(root, f"d{d // 10}", f"s{d}")
    os.makedirs(path, exist_ok=True)
    for f in range(40):
        r = rng.random()
        size = rng.randint(512, 16 << 10) if r < 0.7 else rng.randint(16 << 10, 512 << 10) if r < 0.97 else rng.randint(1 << 20, 6 << 20)
        with open(os.path.join(path, f"f{f}"), "wb") as out:
            out.write(rng.randbytes(size))
PY
mke2fs -q -t ext4 -b 4096 -d "$work/files" "$work/fs.raw" 1G >/dev/null
rm -rf "$work/files"

step "recording the reads of the mounted file system ..."
nbdkit -r -P "$work/nbdkit.pid" -U "$work/nbd.sock" --filter=log file "$work/fs.raw" logfile="$work/nbd.log"
nbdkit_pid=$(cat "$work/nbdkit.pid")
nbdfuse -r "$work/fuse" "nbd+unix:///?socket=$work/nbd.sock" &
for _ in $(seq 100); do [ -e "$work/fuse/nbd" ] && break; sleep 0.05; done
loop=$(losetup -f --show -r --direct-io=on "$work/fuse/nbd")
mount -o ro "$loop" "$work/mnt"
find "$work/mnt" -type f -printf '%p\n' >"$work/all"
python3 - "$work/all" >"$work/picked" <<'PY'
import random, sys
files = open(sys.argv[1]).read().split("\n")[:-1]
rng = random.Random(3)
print("\n".join(rng.sample(files, len(files) // 10)))
PY
xargs -d '\n' cat <"$work/picked" >/dev/null
umount "$work/mnt"
losetup -d "$loop"; loop=''
fusermount3 -u "$work/fuse"
kill "$nbdkit_pid"; nbdkit_pid=''
awk '/ Read / { o = c = ""; for (i = 1; i <= NF; i++) { if ($i ~ /^offset=/) o = substr($i, 8); if ($i ~ /^count=/) c = substr($i, 7) }
     if (o != "" && c != "") print o, c }' "$work/nbd.log" >"$work/trace"
[ -s "$work/trace" ] || die "the log filter recorded no reads"
read -r nreads trace_mib < <(python3 -c '
import sys
rs = [l.split() for l in open(sys.argv[1])]
print(len(rs), "%.1f" % (sum(int(c, 0) for _, c in rs) / 1048576))' "$work/trace")
picked=$(wc -l <"$work/picked") files=$(wc -l <"$work/all")

qemu-img convert -q -f raw -O vpc -o force_size=on "$work/fs.raw" "$work/fs.vhd"
"$zxblk" import --store "$work/store" --disk fs "$work/fs.vhd" >/dev/null || die "zxblk import failed"
rm -f "$work/fs.vhd" "$work/fs.raw"

# replay KIND -> line of replay_reads in $work/KIND.out
n=0
replay() {
    local bin=$work/replay extra=()
    case $1 in
        default) ;;
        off) extra=(--readahead 0) ;;
        baseline) bin=$work/replay-base ;;
    esac
    "$bin" "$work/store" fs "$work/trace" "$work/cache.$((n += 1))" "${extra[@]}" >"$work/$1.out" || die "replay ($1) failed"
}
# value_of KEY: the value of KEY=VALUE in the line of replay_reads on standard input.
value_of() { tr ' ' '\n' | awk -F= -v k="$1" '$1 == k { print $2 }'; }
kinds=(default off)
[ -n "$baseline" ] && kinds+=(baseline)
declare -A best worst_ratio line
step "replaying: best of up to $rounds rounds$(budget_note) ..."
done_rounds=0 last_round=0
for ((r = 1; r <= rounds; r++)); do
    if [ "$r" -gt 1 ] && ! more_rounds "$script_start" "$last_round"; then break; fi
    round_start=$EPOCHREALTIME
    for k in "${kinds[@]}"; do
        replay "$k"
        best[$k]=$(min_of "${best[$k]:-}" "$(value_of seconds <"$work/$k.out")")
        ratio_now=$(value_of ratio <"$work/$k.out")
        if [ -z "${worst_ratio[$k]:-}" ] || awk -v a="$ratio_now" -v b="${worst_ratio[$k]}" 'BEGIN { exit !(a > b) }'; then
            worst_ratio[$k]=$ratio_now line[$k]=$(cat "$work/$k.out")
        fi
    done
    done_rounds=$r
    last_round=$(secs "$round_start" "$EPOCHREALTIME")
done

echo
echo "trace: $nreads reads, $trace_mib MiB, that reached an NBD server (nbdkit's log filter) while ext4 on a loop"
echo "device over nbdfuse was mounted read-only, its $files files stat'ed and $picked of them read whole in random order"
echo "replayed one read at a time against Disk::read, each run on a new cache; $(rounds_note "$done_rounds"), extent counts of the worst run"
printf '%-34s %8s %8s %10s %7s %7s %9s  %s\n' "run" "touched" "recalled" "read ahead" "unused" "ratio" "seconds" "target: ratio <= 1.3x"
for k in "${kinds[@]}"; do
    f() { value_of "$1" <<<"${line[$k]}"; }
    case $k in
        default) what="readahead 16 MiB (the default)" ;;
        off) what="readahead off" ;;
        baseline) what="baseline: $(basename "$baseline"), its default" ;;
    esac
    printf '%-34s %8s %8s %10s %7s %6sx %9s  %s\n' "$what" "$(f touched)" "$(f recalled)" "$(f read_ahead)" "$(f unused)" \
        "${worst_ratio[$k]}" "${best[$k]}" "$(verdict "${worst_ratio[$k]}" "<=" 1.3)"
done
peer=off
[ -n "$baseline" ] && peer=baseline
t=$(ratio "${best[default]}" "${best[$peer]}")
printf 'time of the default beside %s: %s  target <= 1.0x (figures within a few ms are noise)  %s\n' "$peer" "$t" \
    "$(verdict "${t%x}" "<=" 1.0)"
