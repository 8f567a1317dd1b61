#!/usr/bin/env bash
# Time of `nbdcopy` of a whole disk served by `zxblk serve` beside the same
# copy served by `qemu-nbd -f vpc --read-only` on the same VHD file, measured
# in one run:
#
#   job                                   peer
#   dynamic VHD 1 GiB, 60% data           qemu-nbd of the same VHD (target: 1.5x)
#   dynamic VHD 4 GiB, 6 MiB of data      qemu-nbd, as above; also the extents
#                                         zxblk recalled (only those that hold
#                                         data should be)
#   dynamic VHD 2000 GiB, 64 blocks of    qemu-nbd, as above (target: 1.5x)
#   2 MiB data
#   unallocated dynamic VHD 2000 GiB      qemu-nbd, as above (target: under
#                                         0.1 s); beside it what nbdcopy alone
#                                         takes to copy as many zeros, from
#                                         nbdkit's null plugin
#
# A zxblk run is the whole `zxblk serve --run 'nbdcopy "$uri" OUT'`: starting
# the server, the copy, and stopping it, since that is what a user pays. A peer
# run is `qemu-nbd --fork` on a private socket, the same nbdcopy, then
# stopping qemu-nbd and waiting until it is gone. Both sides serve the very
# snapshot file in the store, read into the page cache just before (untimed),
# to nbdcopy's default connections and requests.
#
# Runs are interleaved (zxblk, peer, zxblk, peer, ...) and the best of each is
# kept. Every zxblk run starts on a new, empty extent cache, so every run
# recalls. Every zxblk output is checked byte for byte (untimed) against the
# raw disk the VHD was made from, and the peer's output once. Figures are
# informational: the script fails only when a tool fails or bytes differ.
#
#   bench/nbd_bench.sh [--rounds N] [--budget SECONDS] [BUILD_DIR]
#
# --rounds N (or NBD_BENCH_ROUNDS): runs of each side per job, default 5.
# --budget S (or NBD_BENCH_BUDGET): no new round starts once the script
#   would pass S seconds (default 200; 0: no limit); the first always runs.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
bench_name=nbd_bench
# shellcheck source=bench/bench_common.sh
source "$here/bench_common.sh"
rounds=${NBD_BENCH_ROUNDS:-5} budget=${NBD_BENCH_BUDGET:-200}
parse_common_args "$@"
script_start=$EPOCHREALTIME

zxblk=$build/tools/zxblk
[ -x "$zxblk" ] || die "no $zxblk: build first (./run.sh, or cmake --build $build)"
for t in nbdcopy nbdkit qemu-nbd qemu-img python3 awk truncate; do
    command -v "$t" >/dev/null || die "$t is missing (scripts/setup.sh installs it)"
done

work=$(mktemp -d "${TMPDIR:-/tmp}/nbd_bench.XXXXXX")
qnbd=''
# ended PID: whether PID has ended. qemu-nbd --fork leaves a daemon that is
# not our child; once it exits only its new parent's reaping is left, which
# some inits do only every second or two, so a zombie counts as ended
# (kill -0 alone would time the reaper, not qemu-nbd).
ended() {
    local st
    { st=$(<"/proc/$1/stat"); } 2>/dev/null || return 0
    st=${st##*) }
    case ${st%% *} in Z|X) return 0 ;; *) return 1 ;; esac
}
# wait_gone PID SECONDS: whether PID ends within SECONDS.
wait_gone() {
    local i
    for ((i = 0; i < $2 * 200; i++)); do ended "$1" && return 0; sleep 0.005; done
    return 1
}
cleanup() {
    set +e
    if [ -n "$qnbd" ] && ! ended "$qnbd"; then
        kill -TERM "$qnbd"
        wait_gone "$qnbd" 5 || kill -KILL "$qnbd"
    fi
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM
store=$work/store out=$work/out sock=$work/qemu-nbd.sock
mkdir -p "$out"

MiB=$((1 << 20))
step "making the disks in $work ..."
# A raw disk with 60% of its 2 MiB blocks holding random data, and one of
# 4 GiB with 3 such blocks in places picked at random, the rest holes. The
# VHDs are made from them, and they are what every copy must read back.
make_data_raw "$work/d1g.raw" $((1024 * MiB)) 0.6 1
make_data_raw "$work/d4g.raw" $((4096 * MiB)) 0.0015 7
qemu-img convert -q -f raw -O vpc -o force_size=on "$work/d1g.raw" "$work/dyn1g.vhd"
qemu-img convert -q -f raw -O vpc -o force_size=on "$work/d4g.raw" "$work/sparse4g.vhd"
make_data_raw "$work/s2t.raw" $((2000 * 1024 * MiB)) 0.0000625 3
qemu-img convert -q -f raw -O vpc -o force_size=on "$work/s2t.raw" "$work/sparse2t.vhd"
qemu-img create -q -f vpc -o force_size=on "$work/empty2t.vhd" 2000G
truncate -s 2000G "$work/zero2t.raw"

step "importing them into a store ..."
imp() { "$zxblk" import --store "$store" --disk "$@" >/dev/null || die "zxblk import --disk $1 failed"; }
imp dyn1g "$work/dyn1g.vhd"
imp sparse4g "$work/sparse4g.vhd"
imp sparse2t "$work/sparse2t.vhd"
imp empty2t "$work/empty2t.vhd"
# The store holds its own copies; the peer serves those.
rm -f "$work"/*.vhd

jobs=(dyn1g sparse4g sparse2t empty2t)
declare -A ref vhd label best_z best_p recalled data_ext all_ext
ref[dyn1g]=$work/d1g.raw ref[sparse4g]=$work/d4g.raw ref[sparse2t]=$work/s2t.raw ref[empty2t]=$work/zero2t.raw
for j in "${jobs[@]}"; do vhd[$j]=$(store_file "$store" "$j"); done
extent=$("$zxblk" list --store "$store" --disk dyn1g --json |
    python3 -c 'import json, sys; print(json.load(sys.stdin)["disks"][0]["extentSize"])') ||
    die "zxblk list --json gives no extent size for dyn1g"
# data_extents VHD: how many extents of the disk hold any data, as qemu-img
# map reports it; those are the ones a copy has to recall.
data_extents() {
    qemu-img map -f vpc --output=json "$1" | python3 -c '
import json, sys
size = int(sys.argv[1])
touched = set()
for e in json.load(sys.stdin):
    if e.get("data"):
        touched.update(range(e["start"] // size, (e["start"] + e["length"] - 1) // size + 1))
print(len(touched))' "$extent"
}
for j in "${jobs[@]}"; do
    data_ext[$j]=$(data_extents "${vhd[$j]}")
    size=$(qemu-img info -f vpc --output=json "${vhd[$j]}" | python3 -c 'import json, sys; print(json.load(sys.stdin)["virtual-size"])')
    all_ext[$j]=$(((size + extent - 1) / extent))
done
share=$(awk -v a="$(data_bytes "${vhd[dyn1g]}" vpc)" -v b=$((1024 * MiB)) 'BEGIN { printf "%.0f%%", 100 * a / b }')
sparse_mib=$(awk -v a="$(data_bytes "${vhd[sparse4g]}" vpc)" 'BEGIN { printf "%.0f", a / 1048576 }')
label[dyn1g]="dynamic VHD 1 GiB, $share data"
label[sparse4g]="dynamic VHD 4 GiB, $sparse_mib MiB data"
label[sparse2t]="dynamic VHD 2000 GiB, 64 blocks data"
label[empty2t]="unallocated dynamic VHD 2000 GiB"

# One timed run of each side; each sets `last` to its seconds. Outputs that
# are gone before the next run leave no dirty pages for it to write back.
n=0
zx_copy() {  # DISK OUT -> last, and the run's stats in $work/stats
    local cache=$work/cache.$((n += 1)) t0 t1
    rm -f "$2" "$work/stats"; sync
    warm "${vhd[$1]}"
    t0=$EPOCHREALTIME
    # $uri is set by zxblk serve for the shell it runs the command in.
    "$zxblk" serve --store "$store" --disk "$1" --cache "$cache" --stats "$work/stats" \
        --run "nbdcopy \"\$uri\" $(printf %q "$2")" >"$work/serve.log" 2>&1 </dev/null || {
        cat "$work/serve.log" >&2; die "zxblk serve --run nbdcopy of $1 failed"
    }
    t1=$EPOCHREALTIME
    rm -rf "$cache"
    last=$(secs "$t0" "$t1")
}
stat_of() { awk -v k="$1" '$1 == k { print $2 }' "$work/stats"; }
peer_copy() {  # VHD OUT -> last
    local t0 t1
    rm -f "$2" "$sock" "$work/qemu-nbd.pid"; sync
    warm "$1"
    t0=$EPOCHREALTIME
    # --fork returns once the socket listens. --shared lets in all of
    # nbdcopy's connections (qemu-nbd advertises multi-conn, and by default
    # admits one client); --persistent keeps it up between them, and it is
    # stopped below, inside the timed span.
    qemu-nbd --fork --persistent --read-only -f vpc --shared=16 --pid-file="$work/qemu-nbd.pid" -k "$sock" "$1" \
        >"$work/qemu-nbd.log" 2>&1 </dev/null || { cat "$work/qemu-nbd.log" >&2; die "qemu-nbd of $1 failed"; }
    qnbd=$(cat "$work/qemu-nbd.pid")
    nbdcopy "nbd+unix:///?socket=$sock" "$2" </dev/null 2>"$work/nbdcopy.log" || {
        cat "$work/nbdcopy.log" >&2; die "nbdcopy from qemu-nbd of $1 failed"
    }
    kill -TERM "$qnbd"
    wait_gone "$qnbd" 10 || die "qemu-nbd ($qnbd) did not end within 10 s of SIGTERM"
    t1=$EPOCHREALTIME
    qnbd=
    [ ! -e "$sock" ] || die "qemu-nbd left its socket $sock behind"
    last=$(secs "$t0" "$t1")
}
check() {  # OUT REF WHO
    same_bytes "$1" "$2" || die "$3: the output differs from the disk it must hold"
}

step "timing: best of up to $rounds rounds, each job zxblk then peer$(budget_note) ..."
done_rounds=0 last_round=0
for ((r = 1; r <= rounds; r++)); do
    if [ "$r" -gt 1 ] && ! more_rounds "$script_start" "$last_round"; then break; fi
    round_start=$EPOCHREALTIME
    for j in "${jobs[@]}"; do
        zx_copy "$j" "$out/z.raw"
        best_z[$j]=$(min_of "${best_z[$j]:-}" "$last")
        [ -s "$work/stats" ] || die "zxblk serve of $j wrote no stats file"
        got=$(stat_of extents_recalled) errs=$(stat_of read_errors) fails=$(stat_of restore_failures)
        [ -n "$got" ] || die "the stats file of zxblk serve of $j has no extents_recalled line"
        if [ "${errs:-0}" != 0 ] || [ "${fails:-0}" != 0 ]; then
            die "zxblk serve of $j counted $errs read errors and $fails failed recalls"
        fi
        # Each run starts empty, so each recalls the same; keep the most seen.
        recalled[$j]=$(max_of "${recalled[$j]:-}" "$got")
        check "$out/z.raw" "${ref[$j]}" "nbdcopy through zxblk serve of $j, round $r"
        rm -f "$out/z.raw"
        peer_copy "${vhd[$j]}" "$out/q.raw"
        best_p[$j]=$(min_of "${best_p[$j]:-}" "$last")
        # The peer's output is checked once; it is the reference tool.
        [ "$r" = 1 ] && check "$out/q.raw" "${ref[$j]}" "nbdcopy through qemu-nbd of $j"
        rm -f "$out/q.raw"
    done
    # What nbdcopy itself takes to write 2000 GiB of zeros to a file: the
    # floor under the unallocated disk's figure.
    rm -f "$out/n.raw"; sync
    t0=$EPOCHREALTIME
    nbdcopy -- [ nbdkit --exit-with-parent null 2000G ] "$out/n.raw" </dev/null 2>"$work/nbdcopy.log" || {
        cat "$work/nbdcopy.log" >&2; die "nbdcopy from nbdkit null failed"
    }
    best_null=$(min_of "${best_null:-}" "$(secs "$t0" "$EPOCHREALTIME")")
    rm -f "$out/n.raw"
    done_rounds=$r
    last_round=$(secs "$round_start" "$EPOCHREALTIME")
    step "round $r done in $last_round s"
done

echo
echo "nbdcopy of the whole disk through zxblk serve beside qemu-nbd on the same VHD; $(rounds_note "$done_rounds") of each side"
row() { printf '%-34s %9s %9s %8s %9s  %s\n' "$@"; }
row "job" "zxblk s" "qemu-nbd" "ratio" "target" "result"
for j in "${jobs[@]}"; do
    rt=$(ratio "${best_z[$j]}" "${best_p[$j]}")
    case $j in
        dyn1g | sparse2t) target="<= 1.5x" result=$(verdict "${rt%x}" "<=" 1.5) ;;
        empty2t) target="< 0.1 s" result=$(verdict "${best_z[$j]}" "<" 0.1) ;;
        *) target="<= 1.0x" result=$(verdict "${rt%x}" "<=" 1.0) ;;
    esac
    row "${label[$j]}" "${best_z[$j]}" "${best_p[$j]}" "$rt" "$target" "$result"
done
echo "nbdcopy alone, 2000 GiB of zeros from nbdkit's null plugin to a file: $best_null s (best of $done_rounds)"

echo
echo "extents zxblk recalled per run (extents of $((extent >> 10)) KiB; every run on an empty cache):"
for j in "${jobs[@]}"; do
    printf '  %-34s %6s recalled, %6s hold data, of %6s in the disk  %s\n' "${label[$j]}" "${recalled[$j]}" \
        "${data_ext[$j]}" "${all_ext[$j]}" "$([ "${recalled[$j]}" = "${data_ext[$j]}" ] && echo "(only data)" || echo "(not only data)")"
done
echo "(zxblk s: the whole zxblk serve --run nbdcopy; qemu-nbd s: qemu-nbd --fork, nbdcopy, stop; the byte checks are not timed)"
