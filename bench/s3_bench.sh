#!/usr/bin/env bash
# Reading a store kept on S3 with zxblk beside plain downloads of the same
# objects, against a throw-away Ceph cluster of the script's own
# (tests/s3/ceph_up.sh: one OSD keeping objects in memory, radosgw on
# 127.0.0.1), measured in one run:
#
#   job                                     peer
#   time to the first file: zxblk mount     restore first: curl GET of the
#   of the demo's ext4 disk (256 MiB in a   snapshot object, qemu-img convert
#   dynamic VHD), then debugfs -R "cat      -f vpc -O raw of it, then the same
#   FILE" on disk.raw, timed from the       debugfs cat on the raw file, timed
#   start of the mount                      from the start of the GET
#   zxblk export of a 1 GiB dynamic VHD     curl GET of its snapshot object to
#   with 60% data                           a file (time and MiB/s of the
#                                           object's bytes)
#
# Both sides read the very objects in the bucket, over the same local HTTP
# connection; curl signs its requests (SigV4) with the cluster's keys. Every
# zxblk run starts on a new, empty extent cache, so every run recalls from S3.
# Runs are interleaved (zxblk, peer, zxblk, peer, ...) and the best of each is
# kept. The file read back, every export and the first download of each
# object are checked (untimed) against what was imported. Figures are
# informational: the script fails only when a tool fails or bytes differ. It
# exits 77, saying why, where Ceph is not installed, and skips the mount where
# FUSE is missing.
#
#   bench/s3_bench.sh [--rounds N] [--budget SECONDS] [BUILD_DIR]
#
# --rounds N (or S3_BENCH_ROUNDS): runs of each side per job, default 5.
# --budget S (or S3_BENCH_BUDGET): no new round starts once the script
#   would pass S seconds (default 240; 0: no limit); the first always runs.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
bench_name=s3_bench
# shellcheck source=bench/bench_common.sh
source "$here/bench_common.sh"
rounds=${S3_BENCH_ROUNDS:-5} budget=${S3_BENCH_BUDGET:-240}
parse_common_args "$@"
script_start=$EPOCHREALTIME
# The file read off the demo's disk, as in mount_bench.sh: 4 MiB and a bit.
file=/data/file8.bin
bucket=bkt prefix=bench
store=s3://$bucket/$prefix
MiB=$((1 << 20))

zxblk=$build/tools/zxblk
[ -x "$zxblk" ] || die "no $zxblk: build first (./run.sh, or cmake --build $build)"
for t in curl qemu-img mke2fs debugfs timeout python3 awk; do
    command -v "$t" >/dev/null || die "$t is missing (scripts/setup.sh installs it)"
done
ceph_up=$here/../tests/s3/ceph_up.sh ceph_down=$here/../tests/s3/ceph_down.sh
{ [ -x "$ceph_up" ] && [ -x "$ceph_down" ]; } || die "no $ceph_up or $ceph_down"
have_fuse=1
{ [ -c /dev/fuse ] && command -v fusermount3 >/dev/null; } || have_fuse=0

work=$(mktemp -d "${TMPDIR:-/tmp}/s3_bench.XXXXXX")
mnt=$work/mnt out=$work/out
mkdir -p "$mnt" "$out"
daemon=''

# wait_gone PID SECONDS: whether PID is gone within SECONDS.
wait_gone() {
    local i
    [ -n "$1" ] || return 0
    for ((i = 0; i < $2 * 50; i++)); do kill -0 "$1" 2>/dev/null || return 0; sleep 0.02; done
    return 1
}
cleanup() {
    set +e
    if grep -qsF " $mnt " /proc/mounts; then
        timeout --foreground 10 fusermount3 -u "$mnt" 2>/dev/null || fusermount3 -uz "$mnt" 2>/dev/null
    fi
    # The zxblk daemon writes its last log line after the unmount; let it end
    # before its cache folder goes away, and before the cluster does.
    if [ -n "$daemon" ] && ! wait_gone "$daemon" 5; then
        kill -TERM "$daemon" 2>/dev/null
        wait_gone "$daemon" 5 || kill -KILL "$daemon" 2>/dev/null
    fi
    # ceph_down.sh stops only the daemons of this folder's cluster.
    [ -e "$work/ceph/.zxblk-ceph" ] && "$ceph_down" "$work/ceph" >/dev/null 2>&1
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# --- the cluster -------------------------------------------------------------
step "starting a throw-away Ceph cluster in $work/ceph ..."
rc=0
"$ceph_up" "$work/ceph" >"$work/ceph_up.log" 2>&1 || rc=$?
if [ "$rc" = 77 ]; then
    say "$bench_name: $(grep -m1 '^skipped' "$work/ceph_up.log" || echo "skipped: Ceph is not installed")"
    exit 77
fi
[ "$rc" = 0 ] || { cat "$work/ceph_up.log" >&2; die "tests/s3/ceph_up.sh failed (exit $rc)"; }
set -a
# shellcheck source=/dev/null
. "$work/ceph/env"
set +a
# Only the cluster's keys: no profile, shared credentials or config file of
# the user's may change what zxblk or curl sends.
unset AWS_PROFILE AWS_SESSION_TOKEN AWS_DEFAULT_REGION
export AWS_SHARED_CREDENTIALS_FILE=$work/none AWS_CONFIG_FILE=$work/none XDG_CACHE_HOME=$work/xdg
curl_s3() {
    curl -sS --fail-with-body --aws-sigv4 "aws:amz:$AWS_REGION:s3" --user "$AWS_ACCESS_KEY_ID:$AWS_SECRET_ACCESS_KEY" \
        -H "x-amz-content-sha256: UNSIGNED-PAYLOAD" "$@"
}
curl_s3 -X PUT "$AWS_ENDPOINT_URL/$bucket" >"$work/bucket.log" 2>&1 || { cat "$work/bucket.log" >&2; die "cannot make bucket $bucket"; }

# --- the disks ---------------------------------------------------------------
step "making the demo's disk and a 1 GiB dynamic VHD with 60% data in $work ..."
# The demo's files (tools/cmd_demo.cpp): 36 files of 1 to 5 MiB of random
# bytes and 20 short notes, in an ext4 file system of 256 MiB made by
# mke2fs -d, turned into a dynamic VHD.
python3 - "$work/files" <<'PY'
import os, random, sys
top = sys.argv[1]
os.makedirs(top + "/data"), os.makedirs(top + "/docs")
for i in range(36):
    with open(f"{top}/data/file{i}.bin", "wb") as f:
        f.write(random.Random(i).randbytes((1 + i % 5) * (1 << 20) + i * 4096))
for i in range(20):
    with open(f"{top}/docs/note{i}.txt", "w") as f:
        f.write(f"note {i}: backed-up disks are readable before they are restored.\n")
PY
original=$work/files$file
mke2fs -q -F -t ext4 -L zxblk-demo -d "$work/files" "$work/demo.img" 256M >"$work/mke2fs.log" 2>&1 ||
    { cat "$work/mke2fs.log" >&2; die "mke2fs failed"; }
qemu-img convert -q -f raw -O vpc -o force_size=on "$work/demo.img" "$work/demo.vhd"
rm "$work/demo.img"
# A raw disk with 60% of its 2 MiB blocks holding random data, as
# export_bench.sh's dyn1g; every export must read it back.
make_data_raw "$work/d1g.raw" $((1024 * MiB)) 0.6 1
qemu-img convert -q -f raw -O vpc -o force_size=on "$work/d1g.raw" "$work/big.vhd"
big_data=$(data_bytes "$work/big.vhd" vpc)

step "importing them into $store ..."
imp() {
    timeout --foreground 600 "$zxblk" import --store "$store" --disk "$1" "$2" >"$work/import.log" 2>&1 ||
        { cat "$work/import.log" >&2; die "zxblk import --disk $1 into $store failed"; }
}
imp demo "$work/demo.vhd"
imp big "$work/big.vhd"
# object_of DISK: the key and size of the newest snapshot object of DISK, as
# zxblk list --json names it (relative to the store's prefix).
"$zxblk" list --store "$store" --json >"$work/list.json" || die "zxblk list --store $store failed"
object_of() {
    python3 - "$work/list.json" "$1" "$prefix" <<'PY'
import json, sys
disks = json.load(open(sys.argv[1]))["disks"]
snap = next(d for d in disks if d["name"] == sys.argv[2])["snapshots"][-1]
print(sys.argv[3] + "/" + snap["file"], snap["fileSize"])
PY
}
read -r demo_key demo_obj < <(object_of demo) || die "zxblk list --json names no snapshot of disk demo"
read -r big_key big_obj < <(object_of big) || die "zxblk list --json names no snapshot of disk big"
for k in "$demo_key" "$big_key"; do
    case $k in "$prefix"/snapshots/*.vhd) ;; *) die "unexpected snapshot object $k" ;; esac
done

# --- one run of each side; each sets the figures it names ------------------
n=0
# zx_first CACHE -> ready total (seconds), and the mount's .stats in $work/stats
zx_first() {
    local cache=$1 t0 t1 t2
    rm -f "$out/ttf"; sync
    t0=$EPOCHREALTIME
    timeout --foreground 60 "$zxblk" mount --store "$store" --disk demo --cache "$cache" "$mnt" >"$work/mount.msg" 2>&1 || {
        cat "$work/mount.msg" >&2; [ -f "$cache/mount.log" ] && tail -5 "$cache/mount.log" >&2
        die "zxblk mount of demo from $store failed"
    }
    t1=$EPOCHREALTIME
    daemon=$(head -n 1 "$cache/lock" 2>/dev/null | cut -d" " -f1 || true)
    timeout --foreground 120 debugfs -R "cat $file" "$mnt/disk.raw" >"$out/ttf" 2>"$work/debugfs.err" || true
    t2=$EPOCHREALTIME
    timeout --foreground 10 cat "$mnt/.stats" >"$work/stats" || die "cannot read $mnt/.stats"
    timeout --foreground 30 fusermount3 -u "$mnt" || die "fusermount3 -u $mnt failed"
    wait_gone "$daemon" 10 || die "the zxblk daemon $daemon did not end after the unmount"
    daemon=
    cmp -s "$out/ttf" "$original" || { cat "$work/debugfs.err" >&2; die "through zxblk mount: $file differs from the original"; }
    rm -rf "$cache" "$out/ttf"
    ready=$(secs "$t0" "$t1") total=$(secs "$t0" "$t2")
}
stat_of() { awk -v k="$1" '$1 == k { print $2 }' "$work/stats"; }
# restore_first CHECK -> got ready total (seconds)
restore_first() {
    local t0 t1 t2 t3
    rm -f "$out/dl.vhd" "$out/q.raw" "$out/ttf"; sync
    t0=$EPOCHREALTIME
    curl_s3 -o "$out/dl.vhd" "$AWS_ENDPOINT_URL/$bucket/$demo_key" 2>"$work/curl.err" ||
        { cat "$work/curl.err" >&2; die "curl GET of $demo_key failed"; }
    t1=$EPOCHREALTIME
    qemu-img convert -f vpc -O raw "$out/dl.vhd" "$out/q.raw" 2>"$work/convert.log" ||
        { cat "$work/convert.log" >&2; die "qemu-img convert of $demo_key failed"; }
    t2=$EPOCHREALTIME
    timeout --foreground 120 debugfs -R "cat $file" "$out/q.raw" >"$out/ttf" 2>"$work/debugfs.err" || true
    t3=$EPOCHREALTIME
    cmp -s "$out/ttf" "$original" || { cat "$work/debugfs.err" >&2; die "restored first: $file differs from the original"; }
    if [ "$1" = 1 ]; then cmp -s "$out/dl.vhd" "$work/demo.vhd" || die "the object $demo_key differs from the VHD imported"; fi
    rm -f "$out/dl.vhd" "$out/q.raw" "$out/ttf"
    got=$(secs "$t0" "$t1") ready=$(secs "$t0" "$t2") total=$(secs "$t0" "$t3")
}
# zx_export -> last (seconds); the output is checked every time
zx_export() {
    local cache=$work/cache.$((n += 1)) t0 t1
    rm -f "$out/z.raw"; sync
    t0=$EPOCHREALTIME
    timeout --foreground 600 "$zxblk" export --store "$store" --disk big --cache "$cache" --out "$out/z.raw" -q >"$work/export.log" 2>&1 ||
        { cat "$work/export.log" >&2; die "zxblk export --disk big from $store failed"; }
    t1=$EPOCHREALTIME
    rm -rf "$cache"
    same_bytes "$out/z.raw" "$work/d1g.raw" || die "zxblk export of big from $store differs from the disk it must hold"
    rm -f "$out/z.raw"
    last=$(secs "$t0" "$t1")
}
# curl_get CHECK -> last (seconds); the object is checked with CHECK=1
curl_get() {
    local t0 t1 size
    rm -f "$out/big.vhd"; sync
    t0=$EPOCHREALTIME
    curl_s3 -o "$out/big.vhd" "$AWS_ENDPOINT_URL/$bucket/$big_key" 2>"$work/curl.err" ||
        { cat "$work/curl.err" >&2; die "curl GET of $big_key failed"; }
    t1=$EPOCHREALTIME
    size=$(stat -c %s "$out/big.vhd")
    [ "$size" = "$big_obj" ] || die "curl GET of $big_key gave $size bytes; zxblk list says $big_obj"
    if [ "$1" = 1 ]; then same_bytes "$out/big.vhd" "$work/big.vhd" || die "the object $big_key differs from the VHD imported"; fi
    rm -f "$out/big.vhd"
    last=$(secs "$t0" "$t1")
}

# --- rounds ------------------------------------------------------------------
declare -A best
keep_min() { best[$1]=$(min_of "${best[$1]:-}" "$2"); }
b() { echo "${best[$1]:-}"; }
step "timing: best of up to $rounds rounds, each job zxblk then peer$(budget_note) ..."
done_rounds=0 last_round=0 ext='' rec='' gets='' get_bytes=''
for ((r = 1; r <= rounds; r++)); do
    if [ "$r" -gt 1 ] && ! more_rounds "$script_start" "$last_round"; then break; fi
    round_start=$EPOCHREALTIME
    check=0; [ "$r" = 1 ] && check=1
    if [ "$have_fuse" = 1 ]; then
        zx_first "$work/ttf-cache.$r"
        keep_min z_ready "$ready"; keep_min z_total "$total"
        [ "$(stat_of read_errors)" = 0 ] || echo "note: the mount counted $(stat_of read_errors) read errors" >&2
        # Every run starts empty and reads the same; keep the last run's counts.
        ext=$(stat_of extents_recalled) rec=$(stat_of bytes_recalled) gets=$(stat_of store_gets) get_bytes=$(stat_of store_get_bytes)
    fi
    restore_first "$check"
    keep_min q_got "$got"; keep_min q_ready "$ready"; keep_min q_total "$total"
    zx_export; keep_min z_export "$last"
    curl_get "$check"; keep_min c_get "$last"
    done_rounds=$r
    last_round=$(secs "$round_start" "$EPOCHREALTIME")
    step "round $r done in $last_round s"
done

# --- report ------------------------------------------------------------------
mib() { awk -v b="$1" 'BEGIN { if (b == "") print "-"; else printf "%.1f", b / 1048576 }'; }
mibs() { awk -v b="$1" -v t="$2" 'BEGIN { if (t == "" || t + 0 == 0) print "-"; else printf "%.1f", b / 1048576 / t }'; }
note=$(rounds_note "$done_rounds")

echo
echo "1. time to the first file: the demo's ext4 disk (256 MiB; a dynamic VHD object of $(mib "$demo_obj") MiB on S3), $file ($(($(stat -c %s "$original") >> 10)) KiB); $note"
row() { printf '%-38s %9s %9s %8s %13s %12s %6s\n' "$@"; }
row "" "ready s" "file s" "extents" "MiB recalled" "MiB fetched" "GETs"
if [ "$have_fuse" = 1 ]; then
    row "zxblk mount (new cache) + debugfs" "$(b z_ready)" "$(b z_total)" "$ext" "$(mib "$rec")" "$(mib "$get_bytes")" "$gets"
fi
row "curl GET + qemu-img convert + debugfs" "$(b q_ready)" "$(b q_total)" "-" "-" "$(mib "$demo_obj")" "1"
echo "(ready: mounted, or downloaded ($(b q_got) s) and converted; file: the file read by debugfs, from the start;"
echo " fetched: bytes of GET replies, the mount's last run; the byte checks are not timed)"
if [ "$have_fuse" = 1 ]; then
    rt=$(ratio "$(b q_total)" "$(b z_total)")
    printf '%-52s %8s   %-9s %s\n' "ratio restore-first / zxblk (file s)" "$rt" ">= 10x" "$(verdict "${rt%x}" ">=" 10)"
else
    echo "no FUSE here (/dev/fuse or fusermount3 missing): zxblk mount not measured"
fi

echo
pct() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.0f%%", 100 * a / b }'; }
echo "2. the whole 1 GiB dynamic VHD ($(pct "$big_data" $((1024 * MiB))) data; an object of $(mib "$big_obj") MiB on S3); $note"
row2() { printf '%-38s %9s %14s %9s\n' "$@"; }
row2 "" "seconds" "MiB" "MiB/s"
row2 "zxblk export (new cache)" "$(b z_export)" "$(mib "$big_data") data" "$(mibs "$big_data" "$(b z_export)")"
row2 "curl GET of the object" "$(b c_get)" "$(mib "$big_obj") object" "$(mibs "$big_obj" "$(b c_get)")"
rt=$(ratio "$(b z_export)" "$(b c_get)")
printf '%-52s %8s   %-9s %s\n' "ratio zxblk / curl (seconds)" "$rt" "<= 1.5x" "$(verdict "${rt%x}" "<=" 1.5)"
echo "(seconds: wall time of the whole command; MiB/s of the disk's data for zxblk, of the object's bytes for curl;"
echo " every export is checked byte for byte against the raw disk, untimed)"
