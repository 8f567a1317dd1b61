#!/usr/bin/env bash
# Time to the first file of the demo's backed-up ext4 disk (256 MiB), in one
# run: through `zxblk mount` (only the extents the read touches are
# recalled) beside `qemu-img convert` of the whole VHD to raw followed by
# the same debugfs read.
#   bench/mount_bench.sh [BUILD_DIR]
# Both sides read snapshot 0, the dynamic VHD (qemu-img does not follow a
# differencing VHD to its parent), from the page cache, as both were just
# written; nothing system-wide is dropped. The mount's extent cache starts
# empty, and a second mount over the same cache shows the warm figure.
set -euo pipefail
build=${1:-build}
zxblk=$build/tools/zxblk
die() { echo "mount_bench: $*" >&2; exit 1; }
[ -x "$zxblk" ] || die "no $zxblk: build first (./run.sh, or cmake --build $build)"
for t in qemu-img debugfs timeout; do
    command -v "$t" >/dev/null || die "$t is missing (scripts/setup.sh installs it)"
done
have_fuse=1
[ -c /dev/fuse ] && command -v fusermount3 >/dev/null || have_fuse=0
file=/data/file8.bin

work=$(mktemp -d)
mnt=$work/mnt
daemon=
cleanup() {
    if grep -qsF " $mnt " /proc/mounts; then
        timeout 10 fusermount3 -u "$mnt" 2>/dev/null || fusermount3 -uz "$mnt" 2>/dev/null || true
    fi
    wait_daemon
    rm -rf "$work"
}
# The daemon still writes its last log line after the unmount; let it finish
# before its cache directory goes away.
wait_daemon() {
    local _
    [ -n "$daemon" ] || return 0
    for _ in $(seq 100); do kill -0 "$daemon" 2>/dev/null || break; sleep 0.05; done
    daemon=
}
trap cleanup EXIT
trap 'exit 130' INT TERM
secs() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }

mkdir -p "$mnt"
echo "building the demo's sample in $work/demo ..."
"$zxblk" demo --dir "$work/demo" >"$work/demo.out" 2>&1 || { cat "$work/demo.out" >&2; die "zxblk demo failed"; }
vhd=$work/demo/store/snapshots/demo-snap0.vhd
[ -f "$vhd" ] || die "the demo made no $vhd"
original=$work/demo/files$file
vhd_mib=$(du -m "$vhd" | cut -f1)
disk_bytes=$(qemu-img info --output=json "$vhd" | awk -F'[:,]' '/"virtual-size"/ { print $2 + 0 }')
size_mib=$((disk_bytes >> 20))

# qemu-img: the whole image to raw, then the read.
t0=$EPOCHREALTIME
qemu-img convert -f vpc -O raw "$vhd" "$work/q.raw"
t1=$EPOCHREALTIME
timeout 120 debugfs -R "dump $file $work/q.out" "$work/q.raw" 2>"$work/q.err" || true
t2=$EPOCHREALTIME
cmp -s "$work/q.out" "$original" || { cat "$work/q.err" >&2; die "qemu-img path: $file differs from the original"; }
q_ready=$(secs "$t0" "$t1") q_total=$(secs "$t0" "$t2")
rm "$work/q.raw" "$work/q.out"

echo "the demo's ext4 disk, snapshot 0: $size_mib MiB in a dynamic VHD of $vhd_mib MiB; timed file $file ($(($(stat -c %s "$original") >> 10)) KiB)"
row() { printf '%-30s %9s %9s %9s %14s %8s\n' "$@"; }

if [ "$have_fuse" = 0 ]; then
    row "" "ready s" "file s" "extents" "MiB recalled" "of disk"
    row "qemu-img convert + debugfs" "$q_ready" "$q_total" "-" "$size_mib (all)" "100.0%"
    echo "no FUSE here (/dev/fuse or fusermount3 missing): zxblk mount not measured"
    exit 0
fi

# One mount and read over CACHE; sets ready, total and the recall figures.
mount_read() {
    local cache=$1 out=$work/m.out t0 t1 t2
    rm -f "$out"
    t0=$EPOCHREALTIME
    timeout 60 "$zxblk" mount --store "$work/demo/store" --disk demo --snapshot 0 --cache "$cache" "$mnt" >"$work/mount.msg" 2>&1 || {
        cat "$work/mount.msg" >&2; [ -f "$cache/mount.log" ] && tail -5 "$cache/mount.log" >&2
        die "zxblk mount failed"
    }
    t1=$EPOCHREALTIME
    daemon=$(cat "$cache/lock" 2>/dev/null || true)
    timeout 120 debugfs -R "dump $file $out" "$mnt/disk.raw" 2>"$work/m.err" || true
    t2=$EPOCHREALTIME
    cmp -s "$out" "$original" || {
        cat "$work/m.err" >&2; tail -5 "$cache/mount.log" >&2
        die "through the mount: $file differs from the original"
    }
    timeout 10 cat "$mnt/.stats" >"$work/stats" || die "cannot read $mnt/.stats"
    timeout 30 fusermount3 -u "$mnt" || die "fusermount3 -u $mnt failed"
    wait_daemon
    ready=$(secs "$t0" "$t1") total=$(secs "$t0" "$t2")
    figure() { awk -v k="$1" '$1 == k { print $2 }' "$work/stats"; }
    extents=$(figure extents_recalled) recalled=$(figure bytes_recalled)
    [ "$(figure disk_bytes)" = "$disk_bytes" ] || die "the mount reports disk_bytes $(figure disk_bytes), not $disk_bytes"
    [ "$(figure read_errors)" = 0 ] || echo "note: the mount counted $(figure read_errors) read errors" >&2
}
mib() { awk -v b="$1" 'BEGIN { printf "%.1f", b / 1048576 }'; }
pct() { awk -v b="$1" -v d="$disk_bytes" 'BEGIN { printf "%.1f%%", 100 * b / d }'; }

mount_read "$work/cache"
c_ready=$ready c_total=$total c_ext=$extents c_rec=$recalled
mount_read "$work/cache"
w_ready=$ready w_total=$total w_ext=$extents w_rec=$recalled

row "" "ready s" "file s" "extents" "MiB recalled" "of disk"
row "zxblk mount, cold cache" "$c_ready" "$c_total" "$c_ext" "$(mib "$c_rec")" "$(pct "$c_rec")"
row "zxblk mount, warm cache" "$w_ready" "$w_total" "$w_ext" "$(mib "$w_rec")" "$(pct "$w_rec")"
row "qemu-img convert + debugfs" "$q_ready" "$q_total" "-" "$size_mib (all)" "100.0%"
awk -v q="$q_total" -v c="$c_total" -v w="$w_total" 'BEGIN {
    printf "time to the file, qemu-img path / zxblk mount: %.1fx cold, %.1fx warm\n", q / c, q / w }'
echo "(ready: mount returned or convert done; file: the file dumped, from the start; the byte check is not timed)"
