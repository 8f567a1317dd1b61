#!/usr/bin/env bash
# A store kept on S3, read and written by zxblk beside the tools a user would
# pick otherwise, all through one shaped network link, against a throw-away
# Ceph cluster of the script's own (tests/s3/ceph_up.sh: one OSD keeping
# objects in memory, radosgw on 127.0.0.1).
#
# The link is tests/s3/net_proxy (built with the tests) between every client
# and radosgw: a one-way delay on every segment and one bandwidth cap that
# all connections share, each direction.
#
#   --profile  one-way delay  cap          round trip
#   none       -              -            (the proxy only counts requests)
#   lan        0.2 ms         10 Gbit/s    0.4 ms
#   region     2 ms           2 Gbit/s     4 ms
#   wan        10 ms          1 Gbit/s     20 ms
#
# The disk looks like a real one: an 8 GiB dynamic VHD holding an ext4 file
# system (mke2fs -d) of about 2 GiB of files, small and large, and a
# differencing VHD in which some files changed, both imported into
# s3://bkt/bench. Jobs, each beside its peers:
#
#   job                                       peers
#   first file, cold: zxblk mount on a new    restore first: curl GET of both
#   cache (and no metadata kept), debugfs     snapshot objects, qemu-img convert
#   -R "cat FILE" on disk.raw                 of the base, the child's blocks
#                                             laid over it, the same debugfs;
#                                             qemu's HTTP block driver reading
#                                             the base object in place
#                                             (qemu-nbd + nbdfuse, the same
#                                             debugfs; qemu cannot follow VHD
#                                             parents, so the base snapshot)
#   the same file on a second mount of a new  -
#   cache folder (what zxblk keeps beside
#   its caches stays)
#   zxblk export of the whole disk            curl GET of both snapshot objects
#                                             (restore-first's download)
#   nbdcopy through zxblk serve               the same GET
#   zxblk import of the base VHD              curl PUT of the same file
#
# and the link's own figures: the round trip it adds (curl requests on one
# connection, through it and around it) and what a curl GET gets through it.
# The waves of requests (requests that had to wait for others' answers,
# counted from the proxy's log by net_proxy waves) from the start of a
# mount until it is ready are printed for the cold and the warm mount.
#
# qemu's HTTP driver asks for the object's size with HEAD, which a URL
# presigned for GET is refused: the base object is made public-read and qemu
# is given its plain URL (a signature costs nothing on the link).
#
# Runs are interleaved (each job, then its peers, round after round) and the
# best of each is kept. Every file read, export, copy and upload is checked
# (untimed) against what was imported. Figures are informational: the script
# fails only when a tool fails or bytes differ. It exits 77, saying why,
# where Ceph is not installed, and skips the mounts where FUSE is missing.
#
#   bench/s3_bench.sh [--profile none|lan|region|wan] [--rounds N] [--budget SECONDS] [BUILD_DIR]
#
# --profile P (or S3_BENCH_PROFILE): the link, default none.
# --rounds N (or S3_BENCH_ROUNDS): runs of each side per job, default 3.
# --budget S (or S3_BENCH_BUDGET): no new round starts once the script
#   would pass S seconds (default 480: on wan, where a round takes over
#   three minutes, two rounds; 0: no limit); the first always runs.
# BUILD_DIR must hold tools/zxblk and tests/s3/net_proxy (a build with the
# tests, the default).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
bench_name=s3_bench
# shellcheck source=bench/bench_common.sh
source "$here/bench_common.sh"
# shellcheck source=bench/s3_bench_disk.sh
source "$here/s3_bench_disk.sh"
# shellcheck source=bench/s3_bench_peers.sh
source "$here/s3_bench_peers.sh"
rounds=${S3_BENCH_ROUNDS:-3} budget=${S3_BENCH_BUDGET:-480} profile=${S3_BENCH_PROFILE:-none}
args=()
while [ $# -gt 0 ]; do
    case $1 in
        --profile) profile=${2:?--profile needs none, lan, region or wan}; shift 2 ;;
        --profile=*) profile=${1#*=}; shift ;;
        *) args+=("$1"); shift ;;
    esac
done
parse_common_args ${args[@]+"${args[@]}"}
case $profile in
    none) delay_ms=0 cap_bits=0 ;;
    lan) delay_ms=0.2 cap_bits=10000000000 ;;
    region) delay_ms=2 cap_bits=2000000000 ;;
    wan) delay_ms=10 cap_bits=1000000000 ;;
    *) die "--profile is one of none, lan, region, wan, not '$profile'" ;;
esac
script_start=$EPOCHREALTIME
bucket=bkt prefix=bench
store=s3://$bucket/$prefix
MiB=$((1 << 20))
# The file read: 6 MiB and a bit, one the child leaves as it was, so that the
# base snapshot qemu reads holds it too.
file=/data/m3/f7.bin

zxblk=$build/tools/zxblk proxy_bin=$build/tests/s3/net_proxy
[ -x "$zxblk" ] || die "no $zxblk: build first (./run.sh, or cmake --build $build)"
[ -x "$proxy_bin" ] || die "no $proxy_bin: build with the tests (cmake -DZXBLK_TESTS=ON, the default)"
for t in curl qemu-img qemu-nbd nbdcopy mke2fs debugfs timeout python3 awk; do
    command -v "$t" >/dev/null || die "$t is missing (scripts/setup.sh installs it)"
done
ceph_up=$here/../tests/s3/ceph_up.sh ceph_down=$here/../tests/s3/ceph_down.sh
{ [ -x "$ceph_up" ] && [ -x "$ceph_down" ]; } || die "no $ceph_up or $ceph_down"
have_fuse=1
{ [ -c /dev/fuse ] && command -v fusermount3 >/dev/null && command -v nbdfuse >/dev/null; } || have_fuse=0
have_http=1
qemu-img --help 2>/dev/null | grep -qw http || have_http=0

work=$(mktemp -d "${TMPDIR:-/tmp}/s3_bench.XXXXXX")
mnt=$work/mnt pmnt=$work/pmnt out=$work/out sock=$work/qemu.sock
mkdir -p "$mnt" "$pmnt" "$out"
daemon='' proxy='' qnbd='' nbdf=''

# wait_gone PID SECONDS: whether PID is gone within SECONDS.
wait_gone() {
    local i
    [ -n "$1" ] || return 0
    for ((i = 0; i < $2 * 50; i++)); do kill -0 "$1" 2>/dev/null || return 0; sleep 0.02; done
    return 1
}
stop_pid() {
    [ -n "$1" ] || return 0
    kill -TERM "$1" 2>/dev/null || return 0
    wait_gone "$1" 5 || kill -KILL "$1" 2>/dev/null
    wait "$1" 2>/dev/null || true
}
cleanup() {
    set +e
    local m
    for m in "$mnt" "$pmnt"; do
        if grep -qsF " $m " /proc/mounts; then
            timeout --foreground 10 fusermount3 -u "$m" 2>/dev/null || fusermount3 -uz "$m" 2>/dev/null
        fi
    done
    # The zxblk daemon writes its last log line after the unmount; let it end
    # before its cache folder goes away, and before the cluster does.
    if [ -n "$daemon" ] && ! wait_gone "$daemon" 5; then
        kill -TERM "$daemon" 2>/dev/null
        wait_gone "$daemon" 5 || kill -KILL "$daemon" 2>/dev/null
    fi
    stop_pid "$nbdf"
    stop_pid "$qnbd"
    stop_pid "$proxy"
    # ceph_down.sh stops only the daemons of this folder's cluster.
    [ -e "$work/ceph/.zxblk-ceph" ] && "$ceph_down" "$work/ceph" >/dev/null 2>&1
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# --- the cluster and the link ---------------------------------------------------
step "starting a throw-away Ceph cluster in $work/ceph ..."
rc=0
# The OSD keeps objects in memory and counts itself full past a size of its
# configuration (2 GiB in ceph_up.sh's); this bench stores several GiB.
CEPH_ARGS="--memstore_device_bytes=$((24 << 30))" "$ceph_up" "$work/ceph" >"$work/ceph_up.log" 2>&1 || rc=$?
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
direct=$AWS_ENDPOINT_URL
curl_s3() {
    curl -sS --fail-with-body --aws-sigv4 "aws:amz:$AWS_REGION:s3" --user "$AWS_ACCESS_KEY_ID:$AWS_SECRET_ACCESS_KEY" \
        -H "x-amz-content-sha256: UNSIGNED-PAYLOAD" "$@"
}
curl_s3 -X PUT "$direct/$bucket" >"$work/bucket.log" 2>&1 || { cat "$work/bucket.log" >&2; die "cannot make bucket $bucket"; }

step "starting the link: net_proxy --profile $profile ..."
"$proxy_bin" "${direct#http://}" "$work/proxy.port" --profile "$profile" --log "$work/proxy.log" 2>"$work/proxy.err" &
proxy=$!
for _ in $(seq 200); do [ -s "$work/proxy.port" ] && break; sleep 0.02; done
[ -s "$work/proxy.port" ] || { cat "$work/proxy.err" >&2; die "net_proxy did not start"; }
link=http://127.0.0.1:$(cat "$work/proxy.port")

# rtt URL: the median and least time of 30 requests on one connection, after
# the first (which also pays for the connection), in ms.
rtt() {
    local a=() i
    for i in $(seq 31); do a+=(-o /dev/null -w '%{time_pretransfer} %{time_starttransfer}\n' "$1/" --next); done
    curl -sS "${a[@]}" "$1/" -o /dev/null | tail -n +2 |
        awk '{ print ($2 - $1) * 1000 }' | sort -g | awk '{ v[NR] = $1 } END { printf "%.3f %.3f\n", v[int((NR + 1) / 2)], v[1] }'
}

# --- the disk (s3_bench_disk.sh) ------------------------------------------------
make_disk
import_disk
export AWS_ENDPOINT_URL=$link

# --- the proxy's log -------------------------------------------------------------
# waves T0 T1: the waves of the requests begun between two $EPOCHREALTIME stamps.
waves() { "$proxy_bin" waves "$work/proxy.log" --epoch --since "$1" --until "$2"; }
# traffic T0 T1: requests, GETs, MiB answered, MiB per GET, the most
# requests in flight at once and how many on average, of the requests begun
# between two stamps.
traffic() {
    python3 - "$work/proxy.log" "$1" "$2" <<'PY'
import json, sys
rows, off = [], 0.0
for line in open(sys.argv[1]):
    r = json.loads(line)
    if "clock" in r:
        off = r["epoch"] - r["mono"]
    else:
        rows.append(r)
t0, t1 = float(sys.argv[2]) - off, float(sys.argv[3]) - off
rows = [r for r in rows if t0 <= r["t_req"] <= t1]
gets = [r for r in rows if r["method"] == "GET"]
mib = sum(r["bytes"] for r in rows) / 1048576
edges = sorted([(r["t_req"], 1) for r in rows] + [(r["t_last"] if r["t_last"] is not None else 1e18, -1) for r in rows],
               key=lambda e: (e[0], e[1]))
now = most = 0
for _, d in edges:
    now += d
    most = max(most, now)
busy = sum(min(r["t_last"] if r["t_last"] is not None else t1, t1) - r["t_req"] for r in rows)
mean = busy / (t1 - t0) if t1 > t0 else 0
print(len(rows), len(gets), f"{mib:.1f}", f"{mib / len(gets):.2f}" if gets else "-", most, f"{mean:.1f}")
PY
}

# --- one run of each side; each sets the figures it names -------------------------
# (zxblk's here, its peers' in s3_bench_peers.sh)
n=0
umount_zx() {
    timeout --foreground 30 fusermount3 -u "$mnt" || die "fusermount3 -u $mnt failed"
    wait_gone "$daemon" 10 || die "the zxblk daemon $daemon did not end after the unmount"
    daemon=
}
# zx_first CACHE -> ready total (seconds), t0 t_ready (stamps); the mount's
# .stats in $work/stats
zx_first() {
    local cache=$1 t2
    rm -f "$out/ttf"; sync
    t0=$EPOCHREALTIME
    timeout --foreground 120 "$zxblk" mount --store "$store" --disk fs --cache "$cache" "$mnt" >"$work/mount.msg" 2>&1 || {
        cat "$work/mount.msg" >&2; [ -f "$cache/mount.log" ] && tail -5 "$cache/mount.log" >&2
        die "zxblk mount of fs from $store failed"
    }
    t_ready=$EPOCHREALTIME
    daemon=$(head -n 1 "$cache/lock" 2>/dev/null | cut -d" " -f1 || true)
    timeout --foreground 300 debugfs -R "cat $file" "$mnt/disk.raw" >"$out/ttf" 2>"$work/debugfs.err" || true
    t2=$EPOCHREALTIME
    timeout --foreground 10 cat "$mnt/.stats" >"$work/stats" || die "cannot read $mnt/.stats"
    umount_zx
    cmp -s "$out/ttf" "$original" || { cat "$work/debugfs.err" >&2; die "through zxblk mount: $file differs from the original"; }
    rm -rf "$cache" "$out/ttf"
    ready=$(secs "$t0" "$t_ready") total=$(secs "$t0" "$t2")
}
stat_of() { awk -v k="$1" '$1 == k { print $2 }' "$work/stats"; }
# zx_export -> last (seconds), t0 t1 (stamps); the output is checked every time
zx_export() {
    local cache=$work/cache.$((n += 1))
    rm -f "$out/z.raw"; sync
    t0=$EPOCHREALTIME
    # Run under a parent that reports the largest resident size it reached (KiB).
    timeout --foreground 1200 python3 -c 'import resource, subprocess, sys
rc = subprocess.call(sys.argv[2:])
open(sys.argv[1], "w").write(str(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss))
sys.exit(rc)' "$work/export.rss" "$zxblk" export --store "$store" --disk fs --cache "$cache" --out "$out/z.raw" -q \
        >"$work/export.log" 2>&1 || { cat "$work/export.log" >&2; die "zxblk export --disk fs from $store failed"; }
    t1=$EPOCHREALTIME
    export_rss=$(( $(cat "$work/export.rss") > ${export_rss:-0} ? $(cat "$work/export.rss") : ${export_rss:-0} ))
    rm -rf "$cache"
    same_bytes "$out/z.raw" "$work/changed.img" || die "zxblk export of fs from $store differs from the disk it must hold"
    rm -f "$out/z.raw"
    last=$(secs "$t0" "$t1")
}
# zx_nbdcopy -> last (seconds), t0 t1 (stamps); the copy is checked every time
zx_nbdcopy() {
    local cache=$work/cache.$((n += 1))
    rm -f "$out/c.raw"; sync
    t0=$EPOCHREALTIME
    timeout --foreground 1200 "$zxblk" serve --store "$store" --disk fs --cache "$cache" -q \
        --run "nbdcopy \"\$uri\" $out/c.raw" >"$work/serve.log" 2>&1 ||
        { cat "$work/serve.log" >&2; die "nbdcopy through zxblk serve of fs failed"; }
    t1=$EPOCHREALTIME
    rm -rf "$cache"
    same_bytes "$out/c.raw" "$work/changed.img" || die "nbdcopy through zxblk serve: the copy differs from the disk"
    rm -f "$out/c.raw"
    last=$(secs "$t0" "$t1")
}
# drop PREFIX: removes every object under PREFIX, and has radosgw free their
# space now rather than hours later.
drop() {
    local k keys
    # The query percent-encoded, as curl's signing wants it.
    keys=$(curl_s3 "$direct/$bucket?list-type=2&prefix=${1//\//%2F}") || die "cannot list the objects under $1"
    for k in $(grep -o '<Key>[^<]*</Key>' <<<"$keys" | sed 's/<[^>]*>//g'); do
        curl_s3 -X DELETE "$direct/$bucket/$k" >/dev/null || die "cannot delete $k"
    done
    radosgw-admin gc process --include-all >/dev/null 2>&1 || true
}
# zx_import -> last (seconds); what was stored is checked with CHECK=1
zx_import() {
    local p=imp$((n += 1)) t0 t1 key
    t0=$EPOCHREALTIME
    timeout --foreground 1200 "$zxblk" import --store "s3://$bucket/$p" --disk fs -q "$work/base.vhd" >"$work/imp.log" 2>&1 ||
        { cat "$work/imp.log" >&2; die "zxblk import of base.vhd through the link failed"; }
    t1=$EPOCHREALTIME
    if [ "$1" = 1 ]; then
        key=$(AWS_ENDPOINT_URL=$direct "$zxblk" list --store "s3://$bucket/$p" --disk fs | grep -o 'snapshots/[^ ]*\.vhd' | head -1)
        [ -n "$key" ] || die "zxblk list names no snapshot of the disk imported through the link"
        curl_s3 -o "$out/back.vhd" "$direct/$bucket/$p/$key" || die "cannot read back $p/$key"
        cmp -s "$out/back.vhd" "$work/base.vhd" || die "zxblk import through the link stored other bytes than base.vhd"
        rm -f "$out/back.vhd"
    fi
    drop "$p/"
    last=$(secs "$t0" "$t1")
}

# --- rounds ------------------------------------------------------------------------
declare -A best
keep_min() { best[$1]=$(min_of "${best[$1]:-}" "$2"); }
b() { echo "${best[$1]:-}"; }
step "the link: round trips and a GET, through it and around it ..."
# radosgw's own answer time drifts from one moment to the next: the two
# sides take turns, and the middle of each side's medians is kept.
through=() around=()
for _ in 1 2 3; do
    through+=("$(rtt "$link" | cut -d' ' -f1)") around+=("$(rtt "$direct" | cut -d' ' -f1)")
done
mid() { printf '%s\n' "$@" | sort -g | sed -n 2p; }
rtt_link=$(mid "${through[@]}") rtt_direct=$(mid "${around[@]}")
# The link's throughput: the base object to /dev/null, so that only the
# link and radosgw count.
link_get=$(curl_s3 -o /dev/null -w '%{speed_download}' "$link/$bucket/$base_key") || die "curl GET through the link failed"
direct_get=$(curl_s3 -o /dev/null -w '%{speed_download}' "$direct/$bucket/$base_key") || die "curl GET around the link failed"
step "timing: best of up to $rounds rounds, each job then its peers$(budget_note) ..."
done_rounds=0 last_round=0 ext='' rec='' fetched='' waves_cold='' waves_warm='' t_export='' t_copy=''
for ((r = 1; r <= rounds; r++)); do
    if [ "$r" -gt 1 ] && ! more_rounds "$script_start" "$last_round"; then break; fi
    round_start=$EPOCHREALTIME
    check=0; [ "$r" = 1 ] && check=1
    if [ "$have_fuse" = 1 ]; then
        # Cold: nothing kept from before, not even what zxblk keeps beside
        # its caches; warm: the same, on a new cache folder.
        export XDG_CACHE_HOME=$work/xdg.$r
        zx_first "$work/ttf-cache.$r"
        keep_min z_ready "$ready"; keep_min z_total "$total"
        waves_cold+="${waves_cold:+ }$(waves "$t0" "$t_ready")"
        [ "$(stat_of read_errors)" = 0 ] || echo "note: the mount counted $(stat_of read_errors) read errors" >&2
        ext=$(stat_of extents_recalled) rec=$(stat_of bytes_recalled) fetched=$(stat_of store_get_bytes)
        read -r cold_reqs _ _ _ cold_most _ < <(traffic "$t0" "$t_ready")
        zx_first "$work/ttf-cache.$r.warm"
        keep_min w_ready "$ready"; keep_min w_total "$total"
        waves_warm+="${waves_warm:+ }$(waves "$t0" "$t_ready")"
        read -r warm_reqs _ _ _ _ _ < <(traffic "$t0" "$t_ready")
        rm -rf "$XDG_CACHE_HOME"
        export XDG_CACHE_HOME=$work/xdg
        if [ "$have_http" = 1 ]; then
            qemu_http
            keep_min h_ready "$ready"; keep_min h_total "$total"
        fi
    fi
    restore_first "$check"
    # Its download is the GET the exports are compared with.
    keep_min c_get "$got"; keep_min q_ready "$ready"; keep_min q_total "$total"
    zx_export; keep_min z_export "$last"
    t_export=$(traffic "$t0" "$t1")
    zx_nbdcopy; keep_min z_copy "$last"
    t_copy=$(traffic "$t0" "$t1")
    zx_import "$check"; keep_min z_import "$last"
    curl_put "$check"; keep_min c_put "$last"
    done_rounds=$r
    last_round=$(secs "$round_start" "$EPOCHREALTIME")
    step "round $r done in $last_round s"
done

# --- report ------------------------------------------------------------------------
mib() { awk -v b="$1" 'BEGIN { if (b == "") print "-"; else printf "%.1f", b / 1048576 }'; }
mibs() { awk -v b="$1" -v t="$2" 'BEGIN { if (t == "" || t + 0 == 0) print "-"; else printf "%.1f", b / 1048576 / t }'; }
target() { printf '  %-58s %9s  %-10s %s\n' "$1" "$2" "$3" "$(verdict "${2%x}" "$4" "$5")"; }
note=$(rounds_note "$done_rounds")
objects=$((base_vhd_bytes + child_vhd_bytes))
echo
echo "link: --profile $profile (one way ${delay_ms} ms, cap $(awk -v c="$cap_bits" 'BEGIN { print c ? c / 1e9 " Gbit/s" : "none" }')), measured:"
added=$(awk -v a="$rtt_link" -v b="$rtt_direct" 'BEGIN { printf "%.3f", a - b }')
printf '  round trip: %s ms through the link, %s ms around it (medians of 30 requests on one connection): the link adds %s ms\n' \
    "$rtt_link" "$rtt_direct" "$added"
mbit() { awk -v s="$1" 'BEGIN { printf "%.0f", s * 8 / 1e6 }'; }
get_mbit=$(mbit "$link_get")
printf '  a curl GET of the base object to /dev/null: %s Mbit/s (%s MiB/s) through the link, %s Mbit/s around it\n' \
    "$get_mbit" "$(mibs "$link_get" 1)" "$(mbit "$direct_get")"
if [ "$profile" != none ]; then
    want=$(awk -v d="$delay_ms" 'BEGIN { print 2 * d }')
    off=$(awk -v a="$added" -v w="$want" 'BEGIN { printf "%.1f", (a > w ? a - w : w - a) / w * 100 }')
    target "added round trip off the profile's $want ms by (%)" "$off" "<= 10" "<=" 10
    share=$(awk -v m="$get_mbit" -v c="$cap_bits" 'BEGIN { printf "%.1f", m * 1e6 / c * 100 }')
    target "GET throughput, share of the cap (%)" "$share" ">= 90" ">=" 90
    if awk -v d="$direct_get" -v c="$cap_bits" 'BEGIN { exit !(d * 8 < 0.9 * c) }'; then
        echo "  (radosgw alone, around the link, gives less than 90% of this cap on this machine)"
    fi
fi

echo
echo "1. time to one file: $file ($(($(stat -c %s "$original") >> 10)) KiB) of an 8 GiB disk, ext4 with $files_mib MiB of files;"
echo "   snapshot objects: base $(mib "$base_vhd_bytes") MiB + child $(mib "$child_vhd_bytes") MiB; $note"
row() { printf '  %-50s %9s %9s\n' "$@"; }
row "" "ready s" "file s"
if [ "$have_fuse" = 1 ]; then
    row "zxblk mount (new cache, cold) + debugfs" "$(b z_ready)" "$(b z_total)"
    row "zxblk mount (new cache, warm) + debugfs" "$(b w_ready)" "$(b w_total)"
    [ "$have_http" = 1 ] && row "qemu-nbd (HTTP driver, base) + nbdfuse + debugfs" "$(b h_ready)" "$(b h_total)"
fi
row "curl GET + qemu-img convert + child + debugfs" "$(b q_ready)" "$(b q_total)"
echo "  (ready: mounted, or served, or downloaded ($(b c_get) s) and restored; file: the file read, from the start)"
if [ "$have_fuse" = 1 ]; then
    echo "  cold mount: $ext extents, $(mib "$rec") MiB recalled, $(mib "$fetched") MiB fetched; until ready: $cold_reqs requests, at most $cold_most at once; warm: $warm_reqs requests"
    echo "  request waves until the mount was ready, each round: cold $waves_cold, warm $waves_warm"
    wc_=$(echo "$waves_cold" | tr ' ' '\n' | sort -n | tail -1) ww_=$(echo "$waves_warm" | tr ' ' '\n' | sort -n | tail -1)
    echo "  (cold: $wc_ waves of a $rtt_link ms round trip are $(awk -v w="$wc_" -v r="$rtt_link" 'BEGIN { printf "%.2f", w * r / 1000 }') s of the $(b z_ready) s to ready)"
    rt=$(ratio "$(b q_total)" "$(b z_total)")
    if [ "$profile" = wan ]; then
        target "restore-first / zxblk cold (file s)" "$rt" ">= 30x" ">=" 30
        rt=$(ratio "$(b h_total)" "$(b z_total)")
        target "qemu HTTP driver / zxblk cold (file s)" "$rt" "> 1x" ">" 1
        target "request waves until ready, cold (most of the rounds)" "$wc_" "<= 3" "<=" 3
        target "request waves until ready, warm (most of the rounds)" "$ww_" "<= 1" "<=" 1
    else
        printf '  %-58s %9s\n' "restore-first / zxblk cold (file s)" "$rt"
    fi
else
    echo "  no FUSE here (/dev/fuse, fusermount3 or nbdfuse missing): mounts not measured"
fi

echo
echo "2. the whole disk ($(mib "$disk_data") MiB of data in 8 GiB); $note"
row2() { printf '  %-50s %9s %10s\n' "$@"; }
row2 "" "seconds" "MiB/s"
row2 "zxblk export (new cache)" "$(b z_export)" "$(mibs "$disk_data" "$(b z_export)")"
row2 "nbdcopy through zxblk serve (new cache)" "$(b z_copy)" "$(mibs "$disk_data" "$(b z_copy)")"
row2 "curl GET of both snapshot objects" "$(b c_get)" "$(mibs "$objects" "$(b c_get)")"
read -r _ e_gets e_mib e_per e_most e_mean <<<"$t_export"
read -r _ c_gets c_mib c_per c_most c_mean <<<"$t_copy"
echo "  (MiB/s of the disk's data for zxblk, of the objects' bytes for curl; the last run of each:"
echo "   export $e_gets GETs of $e_per MiB on average, $e_mean in flight on average (at most $e_most), $e_mib MiB in all;"
echo "   nbdcopy $c_gets GETs of $c_per MiB on average, $c_mean in flight on average (at most $c_most), $c_mib MiB in all)"
rt_e=$(ratio "$(b z_export)" "$(b c_get)") rt_c=$(ratio "$(b z_copy)" "$(b c_get)")
rss_mb=$(awk -v k="$export_rss" 'BEGIN { printf "%.1f", k / 1024 }')
case $profile in
    wan)
        target "export: largest resident size of any run (MiB)" "$rss_mb" "< 64" "<" 64
        target "export / GET (seconds)" "$rt_e" "<= 1.1x" "<=" 1.1
        target "nbdcopy / GET (seconds)" "$rt_c" "<= 1.1x" "<=" 1.1 ;;
    lan) target "export / GET (seconds)" "$rt_e" "<= 1.3x" "<=" 1.3
        printf '  %-58s %9s\n' "nbdcopy / GET (seconds)" "$rt_c" ;;
    *) printf '  %-58s %9s\n' "export / GET (seconds)" "$rt_e" "nbdcopy / GET (seconds)" "$rt_c" ;;
esac

echo
echo "3. import of the base VHD ($(mib "$base_vhd_bytes") MiB); $note"
row2 "" "seconds" "MiB/s"
row2 "zxblk import onto s3://" "$(b z_import)" "$(mibs "$base_vhd_bytes" "$(b z_import)")"
row2 "curl PUT of the file" "$(b c_put)" "$(mibs "$base_vhd_bytes" "$(b c_put)")"
rt=$(ratio "$(b z_import)" "$(b c_put)")
if [ "$profile" = wan ]; then target "import / PUT (seconds)" "$rt" "<= 1.2x" "<=" 1.2
else printf '  %-58s %9s\n' "import / PUT (seconds)" "$rt"; fi
stop_pid "$proxy"
proxy=
echo
echo "$(cat "$work/proxy.err")"
