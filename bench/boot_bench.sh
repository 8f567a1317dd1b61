#!/usr/bin/env bash
# A real VM booted from its backup, beside booting it from a local file and
# beside restoring it first. The VM is Debian 12 (bench/boot_bench_disk.sh:
# mmdebstrap minbase + systemd + the distribution's kernel, extlinux, root
# logged in on the serial console), a dynamic VHD and a differencing child,
# built once and kept in ~/.cache/zxblk-bench; both are imported as client
# vm, disk sys, into a folder store and into an S3 store on a throw-away
# Ceph cluster (tests/s3/ceph_up.sh), reached through tests/s3/net_proxy
# --profile wan (10 ms each way, 1 Gbit/s shared).
#
# Each run drives the VM's console through a pseudo-terminal and times,
# from the command's start, the shell prompt of the automatic login:
#
#   job                                        peer
#   zxblk boot, folder store (new cache)       qemu booting the local base.vhd under a
#                                              qcow2 overlay (the floor; qemu cannot
#                                              follow a VHD's parent, so the base alone)
#                                              restore first: zxblk export of the chain
#                                              to a raw file, then qemu boots that
#   zxblk boot, S3 over wan (new cache, no     restore first over the same link
#   metadata or index kept)
#
# qemu runs as zxblk boot runs it (TCG or KVM alike, 1 GiB, one CPU, virtio).
# Those boots are first boots (--no-prefetch); each is followed by a second
# boot on a new cache that prefetches the mount extents the first recorded.
# Then zxblk boot --restore-to over the link is timed until the VM runs from
# its copy, against restore-first's export. In the first round each first
# boot also runs a fixed workload in the VM (dpkg -V, a checksum of every
# file in /usr/bin); the extents recalled are read from the boot's
# statistics (DISK.stats) at the prompt and after the workload. Every run
# powers the VM off from its shell; every export is checked (untimed)
# against the bytes the chain presents, the restored copy with qemu-img.
#
# Live restore and --prefetch are measured where this zxblk has them, else
# their targets say so.
#
# Runs are interleaved (each job, then its peers, round after round) and the
# best of each is kept. The script fails only when a tool fails or bytes
# differ; it exits 77, saying why, where the disk cannot be built (root, a
# loop device and apt are needed the first time) or Ceph is not installed.
#
#   bench/boot_bench.sh [--rounds N] [--budget SECONDS] [BUILD_DIR]
#
# --rounds N (or BOOT_BENCH_ROUNDS): runs of each side, default 3.
# --budget S (or BOOT_BENCH_BUDGET): no new round starts once the rounds
#   would pass S seconds (default 900; 0: no limit; building the disk the
#   first time, about five minutes, comes before); the first always runs.
# BUILD_DIR (default build) must hold tools/zxblk, tests/s3/net_proxy and
# tests/boot/make_diff_vhd (a build with the tests); a release build.
# ZXBLK_BENCH_CACHE: where the built disk is kept instead.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
bench_name=boot_bench
# shellcheck source=bench/bench_common.sh
source "$here/bench_common.sh"
# shellcheck source=bench/boot_bench_disk.sh
source "$here/boot_bench_disk.sh"
rounds=${BOOT_BENCH_ROUNDS:-3} budget=${BOOT_BENCH_BUDGET:-900}
parse_common_args "$@"
skip() { say "$bench_name: skipped: $*"; exit 77; }
script_start=$EPOCHREALTIME
bucket=bkt prefix=boot
MiB=$((1 << 20))

zxblk=$build/tools/zxblk proxy_bin=$build/tests/s3/net_proxy make_diff_vhd=$build/tests/boot/make_diff_vhd
[ -x "$zxblk" ] || die "no $zxblk: build first (cmake --build $build)"
for t in "$proxy_bin" "$make_diff_vhd"; do
    [ -x "$t" ] || die "no $t: build with the tests (cmake -DZXBLK_TESTS=ON, the default)"
done
for t in qemu-system-x86_64 qemu-img nbdkit curl python3 awk timeout; do
    command -v "$t" >/dev/null || die "$t is missing (scripts/setup.sh installs it)"
done
ceph_up=$here/../tests/s3/ceph_up.sh ceph_down=$here/../tests/s3/ceph_down.sh
{ [ -x "$ceph_up" ] && [ -x "$ceph_down" ]; } || die "no $ceph_up or $ceph_down"
boot_help=$("$zxblk" boot --help)
have_restore=0 have_prefetch=0
grep -q -- '--restore-to' <<<"$boot_help" && have_restore=1
grep -q -- '--prefetch' <<<"$boot_help" && have_prefetch=1

work=$(mktemp -d "${TMPDIR:-/tmp}/boot_bench.XXXXXX")
proxy='' driving=''
stop_pid() {
    local i
    [ -n "$1" ] || return 0
    kill -TERM "$1" 2>/dev/null || return 0
    for ((i = 0; i < 250; i++)); do kill -0 "$1" 2>/dev/null || break; sleep 0.02; done
    kill -KILL "$1" 2>/dev/null || true
    wait "$1" 2>/dev/null || true
}
cleanup() {
    set +e
    # The console driver stops the VM it started (and zxblk its qemu and
    # nbdkit) when it is told to end.
    stop_pid "$driving"
    stop_pid "$proxy"
    # ceph_down.sh stops only the daemons of this folder's cluster.
    [ -e "$work/ceph/.zxblk-ceph" ] && "$ceph_down" "$work/ceph" >/dev/null 2>&1
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# --- the console driver ------------------------------------------------------------
# console.py OUT LOG TIMEOUT STATS WORK WAIT -- COMMAND...: runs COMMAND on
# a pseudo-terminal, its console in LOG (its stderr in LOG.err); at the
# login prompt it notes the seconds since the start and copies the file
# STATS (unless -) to OUT.login once the guest has been idle there 1.5 s
# (the server rewrites it each second), types WORK (unless -) and waits for
# its last line, notes its seconds and copies STATS to OUT.work alike,
# waits for the text WAIT (unless -) in LOG.err (noting when it came,
# before the prompt or after), then types poweroff -f and waits for the
# command to end. "key value" lines in OUT: login, work, waited, rc, and
# timeout (the stage it gave up in) or failed (a warning that came instead
# of WAIT).
cat >"$work/console.py" <<PY
import os, signal, subprocess, sys, time
out, log, timeout, stats, work, wait = sys.argv[1:7]
cmd = sys.argv[8:]
prompt, done = b"$login_prompt", b"$workload_done"

def copy_stats(to):
    if stats != "-":
        time.sleep(1.5)
        with open(stats, "rb") as f, open(to, "wb") as t:
            t.write(f.read())

master, slave = os.openpty()
t0 = time.monotonic()
proc = subprocess.Popen(cmd, stdin=slave, stdout=slave, stderr=open(log + ".err", "wb"), start_new_session=True)
os.close(slave)
res, seen, state = {}, b"", "boot"
deadline = t0 + float(timeout)
with open(log, "wb") as f:
    while True:
        try:
            data = os.read(master, 65536) if __import__("select").select([master], [], [], 0.1)[0] else b""
        except OSError:
            data = b""
        if data:
            f.write(data)
            seen += data
        now = time.monotonic()
        if state == "boot" and prompt in seen:
            res["login"] = f"{now - t0:.3f}"
            copy_stats(out + ".login")
            seen, state = b"", "work"
            if work != "-":
                os.write(master, work.encode() + b"\r")
                t_work = time.monotonic()
        if state == "work" and (work == "-" or done in seen):
            if work != "-":
                res["work"] = f"{now - t_work:.3f}"
                copy_stats(out + ".work")
            state = "wait"
        # WAIT may come before the prompt does: looked for all along.
        if wait != "-" and "waited" not in res and "failed" not in res:
            with open(log + ".err", "rb") as e:
                said = e.read()
            if wait.encode() in said:
                res["waited"] = f"{now - t0:.3f}"
            elif b"warning:" in said:
                res["failed"] = said[said.index(b"warning:"):].split(b"\n")[0].decode(errors="replace")
        if state == "wait" and (wait == "-" or "waited" in res or "failed" in res):
            os.write(master, b"poweroff -f\r")
            state = "off"
            deadline = min(deadline, now + 60)
        if proc.poll() is not None:
            break
        if now > deadline:
            res["timeout"] = state
            # zxblk boot powers the VM down on the first signal and stops
            # it on the second; qemu ends on the first.
            for _ in range(2):
                proc.send_signal(signal.SIGTERM)
                time.sleep(1)
            try:
                proc.wait(15)
            except subprocess.TimeoutExpired:
                proc.kill()
                proc.wait()
            break
res["rc"] = proc.returncode
with open(out, "w") as o:
    for k, v in res.items():
        o.write(f"{k} {v}\n")
PY
# drive NAME STATS WORK WAIT COMMAND...: one run through console.py; the
# figures it wrote are in the array fig; fails with the console's tail
# unless the prompt (and WAIT) came and the command ended with 0.
declare -A fig
drive() {
    local name=$1 stats=$2 job=$3 until=$4 k v
    shift 4
    rm -f "$work/$name.fig"
    python3 "$work/console.py" "$work/$name.fig" "$work/$name.log" 300 "$stats" "$job" "$until" -- "$@" &
    driving=$!
    wait "$driving" || die "the console driver of $name failed"
    driving=
    fig=()
    while read -r k v; do fig[$k]=$v; done <"$work/$name.fig"
    if [ -n "${fig[timeout]:-}${fig[failed]:-}" ] || [ -z "${fig[login]:-}" ] || [ "${fig[rc]:-1}" != 0 ] ||
        { [ "$until" != - ] && [ -z "${fig[waited]:-}" ]; }; then
        tail -c 2000 "$work/$name.log" | tr -d '\r' >&2
        cat "$work/$name.log.err" >&2
        die "$name: ${fig[timeout]:+timed out waiting for the ${fig[timeout]} stage; }${fig[failed]:+${fig[failed]}; }" \
            "exit ${fig[rc]:-?}"
    fi
}

# qemu as zxblk boot starts it, for the peers.
qemu_cmd=(qemu-system-x86_64 -nodefaults -no-user-config -display none -machine pc -cpu max -m 1024M -smp 1
    -chardev stdio,id=console,signal=off -serial chardev:console)
accel=tcg
grep -qw -e vmx -e svm /proc/cpuinfo && [ -w /dev/kvm ] && accel=kvm
qemu_cmd+=(-accel "$accel")

# --- the disk, the stores, the link -----------------------------------------------------
make_debian_disk
# shellcheck source=/dev/null
. "$img/disk.env"
step "starting a throw-away Ceph cluster in $work/ceph ..."
rc=0
# The OSD keeps objects in memory; the snapshots take a few GiB.
CEPH_ARGS="--memstore_device_bytes=$((8 << 30))" "$ceph_up" "$work/ceph" >"$work/ceph_up.log" 2>&1 || rc=$?
if [ "$rc" = 77 ]; then
    say "$bench_name: $(grep -m1 '^skipped' "$work/ceph_up.log" || echo "skipped: Ceph is not installed")"
    exit 77
fi
[ "$rc" = 0 ] || { cat "$work/ceph_up.log" >&2; die "tests/s3/ceph_up.sh failed (exit $rc)"; }
set -a
# shellcheck source=/dev/null
. "$work/ceph/env"
set +a
# Only the cluster's keys: no profile or file of the user's may change what
# zxblk sends.
unset AWS_PROFILE AWS_SESSION_TOKEN AWS_DEFAULT_REGION
export AWS_SHARED_CREDENTIALS_FILE=$work/none AWS_CONFIG_FILE=$work/none XDG_CACHE_HOME=$work/xdg
direct=$AWS_ENDPOINT_URL
curl -sS --fail-with-body --aws-sigv4 "aws:amz:$AWS_REGION:s3" --user "$AWS_ACCESS_KEY_ID:$AWS_SECRET_ACCESS_KEY" \
    -H "x-amz-content-sha256: UNSIGNED-PAYLOAD" -X PUT "$direct/$bucket" >"$work/bucket.log" 2>&1 ||
    { cat "$work/bucket.log" >&2; die "cannot make bucket $bucket"; }
folder=$work/store s3=s3://$bucket/$prefix
step "importing base.vhd and child.vhd into $folder and into $s3 (directly, not through the link) ..."
for s in "$folder" "$s3"; do
    timeout --foreground 900 "$zxblk" import -q --store "$s" --client vm --disk sys "$img/base.vhd" "$img/child.vhd" \
        >"$work/import.log" 2>&1 || { cat "$work/import.log" >&2; die "zxblk import into $s failed"; }
done
extents_all=$(((disk_bytes + MiB - 1) / MiB))
"$proxy_bin" "${direct#http://}" "$work/proxy.port" --profile wan 2>"$work/proxy.err" &
proxy=$!
for _ in $(seq 200); do [ -s "$work/proxy.port" ] && break; sleep 0.02; done
[ -s "$work/proxy.port" ] || { cat "$work/proxy.err" >&2; die "net_proxy did not start"; }
link=http://127.0.0.1:$(cat "$work/proxy.port")

# --- one run of each side; each sets the figures it names ------------------------------
n=0
# local_boot -> login
local_boot() {
    rm -f "$work/local.qcow2"
    qemu-img create -q -f qcow2 -F vpc -b "$img/base.vhd" "$work/local.qcow2" >/dev/null
    warm "$img/base.vhd"
    drive local - - - "${qemu_cmd[@]}" -drive "file=$work/local.qcow2,format=qcow2,if=none,id=disk0" \
        -device virtio-blk-pci,drive=disk0,bootindex=0
    login=${fig[login]}
    rm -f "$work/local.qcow2"
}
# restore_first STORE NAME CHECK -> exported, login, total
restore_first() {
    local cache=$work/cache.$((n += 1)) t0 t1
    rm -f "$work/restored.raw"; sync
    t0=$EPOCHREALTIME
    timeout --foreground 900 "$zxblk" export -q --store "$1" --disk sys --cache "$cache" --out "$work/restored.raw" \
        >"$work/export.log" 2>&1 || { cat "$work/export.log" >&2; die "zxblk export from $1 failed"; }
    t1=$EPOCHREALTIME
    rm -rf "$cache"
    exported=$(secs "$t0" "$t1")
    # Checked before the VM writes to it, untimed.
    if [ "$3" = 1 ]; then
        same_bytes "$work/restored.raw" "$img/changed.raw" || die "zxblk export from $1 differs from the chain's disk"
    fi
    drive "$2" - - - "${qemu_cmd[@]}" -drive "file=$work/restored.raw,format=raw,if=none,id=disk0" \
        -device virtio-blk-pci,drive=disk0,bootindex=0
    login=${fig[login]}
    total=$(awk -v a="$exported" -v b="$login" 'BEGIN { printf "%.3f", a + b }')
    rm -f "$work/restored.raw"
}
# zx_boot STORE NAME WORK KEEP [OPTION...] -> login, work_s, and the
# statistics at the prompt and after WORK in $work/NAME.fig.login and
# .work. KEEP: what is kept of what zxblk keeps beside its caches (the S3
# store's metadata and index): all, or index (the metadata goes), or none.
zx_boot() {
    local store=$1 name=$2 job=$3 keep=$4 cache=$work/cache.$((n += 1))
    shift 4
    case $keep in
        none) rm -rf "$XDG_CACHE_HOME" ;;
        index) rm -rf "$XDG_CACHE_HOME/zxblk/s3-metadata" ;;
    esac
    rm -f "$work/overlay/sys.stats"
    drive "$name" "$work/overlay/sys.stats" "$job" - "$zxblk" boot --store "$store" --client vm --cache "$cache" \
        --overlay-dir "$work/overlay" --new-overlay --console "$@"
    login=${fig[login]} work_s=${fig[work]:-}
    rm -rf "$cache"
}
# stat_of FILE KEY: a figure of a statistics file, - when it has none.
stat_of() { awk -v k="$2" '$1 == k { v = $2 } END { print v == "" ? "-" : v }' "$1" 2>/dev/null || echo -; }
# extents_of FILE: "recalled (read ahead)" as a statistics file says.
extents_of() { echo "$(stat_of "$1" extents_recalled) ($(stat_of "$1" extents_read_ahead))"; }

# live_restore STORE NAME CHECK -> login, restored (seconds from the start
# until the VM runs from the copy)
live_restore() {
    local store=$1 name=$2 cache=$work/cache.$((n += 1)) dir=$work/restored.$n size
    rm -rf "$XDG_CACHE_HOME"
    rm -rf "$XDG_CACHE_HOME"
    drive "$name" - - "the VM now runs from $dir" "$zxblk" boot --store "$store" --client vm \
        --cache "$cache" --overlay-dir "$work/overlay" --new-overlay --console --restore-to "$dir"
    login=${fig[login]} restored=${fig[waited]}
    # The copy holds the VM's own writes too: checked as a whole image of
    # the disk's size, not byte for byte.
    if [ "$3" = 1 ]; then
        qemu-img check -q "$dir/sys.qcow2" || die "$name: qemu-img check of the restored $dir/sys.qcow2 failed"
        size=$(qemu-img info --output=json "$dir/sys.qcow2" |
            python3 -c 'import json, sys; print(json.load(sys.stdin)["virtual-size"])')
        [ "$size" = "$disk_bytes" ] ||
            die "$name: the restored $dir/sys.qcow2 is not of the disk's size"
    fi
    rm -rf "$cache" "$dir"
}

# The folder store's snapshot files in the page cache, as base.vhd is for
# the local boot.
warm_folder() {
    local files
    mapfile -t files < <(store_files "$folder" sys)
    warm "${files[@]}"
}

# --- rounds ----------------------------------------------------------------------------
declare -A best
keep_min() { best[$1]=$(min_of "${best[$1]:-}" "$2"); }
b() { echo "${best[$1]:-}"; }
step "timing: best of up to $rounds rounds, each job then its peers$(budget_note) ..."
# The budget counts from here: building the disk the first time is not a round.
rounds_start=$EPOCHREALTIME load_before=$(cut -d' ' -f1-3 /proc/loadavg)
done_rounds=0 last_round=0 fw='' sw=''
# The first boots are first boots: no mount extents of an earlier one
# prefetched (the folder store keeps its index beside it).
first_boot=()
[ "$have_prefetch" = 1 ] && first_boot=(--no-prefetch)
for ((r = 1; r <= rounds; r++)); do
    if [ "$r" -gt 1 ] && ! more_rounds "$rounds_start" "$last_round"; then break; fi
    round_start=$EPOCHREALTIME
    first=0; [ "$r" = 1 ] && first=1
    wl=-; [ "$first" = 1 ] && wl=bench-workload

    warm_folder
    zx_boot "$folder" "folder.$r" "$wl" none ${first_boot[@]+"${first_boot[@]}"}
    keep_min zf "$login"
    [ "$first" = 1 ] && fw=$work_s
    if [ "$have_prefetch" = 1 ]; then
        warm_folder
        zx_boot "$folder" "folder-prefetch.$r" - all --prefetch
        keep_min zfp "$login"
    fi
    local_boot; keep_min local "$login"
    warm_folder
    restore_first "$folder" "restore-folder.$r" "$first"
    keep_min rf_export "$exported"; keep_min rf_boot "$login"; keep_min rf_total "$total"

    AWS_ENDPOINT_URL=$link zx_boot "$s3" "s3.$r" "$wl" none ${first_boot[@]+"${first_boot[@]}"}
    keep_min zs "$login"
    [ "$first" = 1 ] && sw=$work_s
    if [ "$have_prefetch" = 1 ]; then
        AWS_ENDPOINT_URL=$link zx_boot "$s3" "s3-prefetch.$r" - index --prefetch
        keep_min zsp "$login"
    fi
    AWS_ENDPOINT_URL=$link restore_first "$s3" "restore-s3.$r" "$first"
    keep_min rs_export "$exported"; keep_min rs_boot "$login"; keep_min rs_total "$total"
    if [ "$have_restore" = 1 ]; then
        AWS_ENDPOINT_URL=$link live_restore "$s3" "live-s3.$r" "$first"
        keep_min ls_boot "$login"; keep_min ls_done "$restored"
    fi

    done_rounds=$r
    last_round=$(secs "$round_start" "$EPOCHREALTIME")
    step "round $r done in $last_round s"
done
stop_pid "$proxy"
proxy=

# --- report -------------------------------------------------------------------------------
target() { printf '  %-58s %9s  %-8s %s\n' "$1" "$2" "$3" "$(verdict "${2%x}" "$4" "$5")"; }
unmeasured() { printf '  %-58s %9s  %-8s %s\n' "$1" - "$2" "MISS: not measured ($3)"; }
note=$(rounds_note "$done_rounds")
cpus=$(nproc)
echo
echo "configuration: $cpus CPU(s), load average $load_before before the rounds, $(cut -d' ' -f1-3 /proc/loadavg) after;"
echo "  qemu $(qemu-system-x86_64 --version | head -1 | awk '{ print $4 }') with ${accel^^}, a VM of 1 GiB and one CPU;" \
    "Debian 12 (kernel $kernel_version) on a $((disk_bytes >> 30)) GiB disk:"
echo "  base.vhd $(($(stat -c %s "$img/base.vhd") / MiB)) MiB + child.vhd $(($(stat -c %s "$img/child.vhd") / MiB)) MiB," \
    "extents of 1 MiB; S3 through net_proxy --profile wan"
echo
echo "1. time to the login prompt (seconds from the command's start); $note"
row() { printf '  %-50s %9s %9s %9s\n' "$@"; }
row "" "export" "boot" "total"
row "qemu, the local base.vhd (the floor)" - "$(b local)" "$(b local)"
row "restore first from the folder store, then qemu" "$(b rf_export)" "$(b rf_boot)" "$(b rf_total)"
row "zxblk boot, folder store" - "$(b zf)" "$(b zf)"
[ "$have_prefetch" = 1 ] && row "  a second boot, --prefetch" - "$(b zfp)" "$(b zfp)"
row "restore first from S3 over wan, then qemu" "$(b rs_export)" "$(b rs_boot)" "$(b rs_total)"
row "zxblk boot, S3 over wan" - "$(b zs)" "$(b zs)"
[ "$have_prefetch" = 1 ] && row "  a second boot, --prefetch" - "$(b zsp)" "$(b zsp)"
if [ "$have_restore" = 1 ]; then
    row "zxblk boot --restore-to, S3 over wan" - "$(b ls_boot)" -
    row "  the VM runs from the restored copy after" "$(b ls_done)" - -
fi
echo "  (each side's best kept on its own: a total is the best total, not the best export plus the best boot)"
echo
echo "2. extents recalled (of which read ahead), of $extents_all, as the boot's statistics say; first round"
row3() { printf '  %-50s %11s %11s %11s\n' "$@"; }
row3 "" "at login" "workload" "workload s"
row3 "zxblk boot, folder store" "$(extents_of "$work/folder.1.fig.login")" "$(extents_of "$work/folder.1.fig.work")" "$fw"
row3 "zxblk boot, S3 over wan" "$(extents_of "$work/s3.1.fig.login")" "$(extents_of "$work/s3.1.fig.work")" "$sw"
if [ "$have_prefetch" = 1 ]; then
    pf=$work/folder-prefetch.$done_rounds.fig.login ps=$work/s3-prefetch.$done_rounds.fig.login
    row3 "  folder store, a second boot with --prefetch" "$(extents_of "$pf")" - -
    row3 "  S3 over wan, a second boot with --prefetch" "$(extents_of "$ps")" - -
    echo "  (in the last round, the second boots prefetched $(stat_of "$pf" mount_extents_prefetched) (folder) and" \
        "$(stat_of "$ps" mount_extents_prefetched) (S3) mount extents the first boots recorded)"
fi
echo "  (the workload: dpkg -V, then sha256sum of every file in /usr/bin, typed at the prompt)"
echo
echo "targets:"
target "zxblk boot from a folder store / the local VHD (login s)" "$(ratio "$(b zf)" "$(b local)")" "<= 1.1x" "<=" 1.1
over=$(awk -v a="$(b zs)" -v b="$(b local)" 'BEGIN { printf "%.2f", a - b }')
target "zxblk boot from S3 over wan - the local VHD (login s)" "$over" "<= 3" "<=" 3
printf '  %-58s %9s\n' "  (restore first from S3 over wan - the local VHD)" \
    "$(awk -v a="$(b rs_total)" -v b="$(b local)" 'BEGIN { printf "%.2f", a - b }')"
if [ "$have_restore" = 1 ]; then
    target "live restore from S3 over wan / restore-first's export (s)" "$(ratio "$(b ls_done)" "$(b rs_export)")" \
        "<= 1.3x" "<=" 1.3
else
    unmeasured "live restore / restore-first's transfer (s)" "<= 1.3x" "live restore not in this tree"
fi
if [ "$have_prefetch" = 1 ]; then
    target "second boot with --prefetch / first boot, S3 over wan (login s)" "$(ratio "$(b zsp)" "$(b zs)")" "< 1x" "<" 1
else
    unmeasured "second boot with --prefetch / first boot, S3 over wan (login s)" "< 1x" "boot --prefetch not in this tree"
fi
