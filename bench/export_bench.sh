#!/usr/bin/env bash
# Time of `zxblk export` beside a peer on the same files, measured in one run:
#
#   job                              peer
#   dynamic VHD 512 MiB, 60% data    qemu-img convert -f vpc -O raw of the same VHD
#   dynamic VHD 1 GiB, 60% data      qemu-img convert, as above, and the same
#                                    followed by `sync` of its output, as an
#                                    export syncs its own (target: 1.3x that)
#   dynamic VHDX 1 GiB, the same     qemu-img convert -f vhdx of the same
#   data (qemu-img convert -O vhdx)  VHDX, as above and followed by `sync`
#                                    (target: its +sync ratio at or below the
#                                    dynamic VHD's). qemu-img picks 8 MiB
#                                    blocks for it: almost every block holds
#                                    some of the 2 MiB runs of data, so its
#                                    table holds most of the disk, the rest of
#                                    each block a hole in the file
#   fixed VHD 1 GiB, the same data   qemu-img convert, as above
#   chain of 3 VHDs, 512 MiB         zxblk export of a dynamic VHD holding the
#                                    same bytes (qemu-img does not follow a
#                                    differencing VHD to its parent)
#   dynamic VHD 2000 GiB, 64 blocks  qemu-img convert; what a huge disk that
#   of 2 MiB data                    holds little costs (target: 1.5x the peer)
#   unallocated dynamic VHD 2000 GiB qemu-img convert; target: under 0.1 s, and
#                                    the cost of one unallocated extent
#   dynamic VHD 1 GiB, checksums     zxblk export of the same snapshot from a
#                                    store whose catalog records no checksums
#                                    (what checking every block costs)
#
# plus the system calls of one zxblk export of the 1 GiB dynamic VHD under
# `strace -c -f`, and the space each output takes on disk.
#
# Runs are interleaved (zxblk, peer, zxblk, peer, ...), every other round in
# the reverse order of jobs, and the best of each is kept. Every zxblk export starts on a new, empty extent cache and its output
# is checked byte for byte (untimed) against the raw disk the VHD was made
# from, which qemu-img's output is checked against too. The peer reads the very
# snapshot file zxblk reads, in the store; both read it from the page cache,
# where it is put (untimed) before each run.
# Each qemu-img run is timed twice: the convert alone, and the convert
# followed by `sync` of its output (an export syncs its output once; qemu-img
# convert does not). Figures are informational: the script fails only when a
# tool fails or bytes differ.
#
#   bench/export_bench.sh [--rounds N] [--budget SECONDS] [BUILD_DIR]
#
# --rounds N (or EXPORT_BENCH_ROUNDS): runs of each side per job, default 5.
# --budget S (or EXPORT_BENCH_BUDGET): no new round starts once the script
#   would pass S seconds (default 240; 0: no limit); the first always runs.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
bench_name=export_bench
# shellcheck source=bench/bench_common.sh
source "$here/bench_common.sh"
rounds=${EXPORT_BENCH_ROUNDS:-5} budget=${EXPORT_BENCH_BUDGET:-240}
parse_common_args "$@"
script_start=$EPOCHREALTIME

zxblk=$build/tools/zxblk chain_writer=$build/tests/support/make_vhd_chain
[ -x "$zxblk" ] || die "no $zxblk: build first (./run.sh, or cmake --build $build)"
[ -x "$chain_writer" ] || die "no $chain_writer: configure $build with -DZXBLK_TESTS=ON"
for t in qemu-img python3 awk du; do
    command -v "$t" >/dev/null || die "$t is missing (scripts/setup.sh installs it)"
done
have_strace=1
command -v strace >/dev/null || have_strace=0

work=$(mktemp -d "${TMPDIR:-/tmp}/export_bench.XXXXXX")
chain_pid=''
cleanup() {
    set +e
    if [ -n "$chain_pid" ]; then kill "$chain_pid" 2>/dev/null; wait "$chain_pid" 2>/dev/null; fi
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM
store=$work/store out=$work/out
mkdir -p "$out"

MiB=$((1 << 20))
step "making the disks in $work ..."
# The test tree's chain writer: a dynamic base and two differencing children,
# with the disk the newest one presents beside them. The dynamic VHD it is
# compared with holds exactly those bytes. It is the slowest to make, so it
# runs beside the rest.
mkdir -p "$work/chain"
"$chain_writer" "$work/chain" $((512 * MiB)) $((2 * MiB)) 2 3 >"$work/chain.log" 2>&1 &
chain_pid=$!
# Two raw disks with 60% of their 2 MiB blocks holding random data; the
# dynamic and fixed VHDs are made from them, and they are what every export
# must read back.
make_data_raw "$work/d512.raw" $((512 * MiB)) 0.6 2
make_data_raw "$work/d1g.raw" $((1024 * MiB)) 0.6 1
qemu-img convert -q -f raw -O vpc -o force_size=on "$work/d512.raw" "$work/dyn512.vhd"
qemu-img convert -q -f raw -O vpc -o force_size=on "$work/d1g.raw" "$work/dyn1g.vhd"
qemu-img convert -q -f raw -O vpc -o subformat=fixed,force_size=on "$work/d1g.raw" "$work/fixed1g.vhd"
qemu-img convert -q -f raw -O vhdx "$work/d1g.raw" "$work/dyn1g.vhdx"
wait "$chain_pid" || { cat "$work/chain.log" >&2; chain_pid=''; die "make_vhd_chain failed"; }
chain_pid=''
rm -f "$work/chain/snap0.raw" "$work/chain/snap1.raw"
qemu-img convert -q -f raw -O vpc -o force_size=on "$work/chain/snap2.raw" "$work/chainref.vhd"
# 2000 GiB: one with 64 blocks of 2 MiB data spread over it, one empty.
make_data_raw "$work/s2t.raw" $((2000 * 1024 * MiB)) 0.0000625 3
qemu-img convert -q -f raw -O vpc -o force_size=on "$work/s2t.raw" "$work/sparse2t.vhd"
qemu-img create -q -f vpc -o force_size=on "$work/empty2t.vhd" 2000G
truncate -s 2000G "$work/zero2t.raw"

step "importing them into a store ..."
imp() { "$zxblk" import --store "$store" --disk "$@" >/dev/null || die "zxblk import --disk $1 failed"; }
imp dyn512 "$work/dyn512.vhd"
imp dyn1g "$work/dyn1g.vhd"
imp dyn1gx "$work/dyn1g.vhdx"
imp fixed1g "$work/fixed1g.vhd"
imp chain "$work/chain/snap0.vhd" "$work/chain/snap1.vhd" "$work/chain/snap2.vhd"
imp chainref "$work/chainref.vhd"
imp sparse2t "$work/sparse2t.vhd"
imp empty2t "$work/empty2t.vhd"
# The store holds its own copies; the peer reads those.
rm -f "$work"/*.vhd "$work"/*.vhdx "$work"/chain/*.vhd
# The same store with no checksums recorded, as a store made before they
# were: its catalog names no sums files, so recalls check nothing.
cp -al "$store" "$work/nosums"
rm "$work/nosums/catalog.json"
python3 - "$store/catalog.json" "$work/nosums/catalog.json" <<'PY'
import json, sys
cat = json.load(open(sys.argv[1]))
for disk in cat["disks"]:
    for copy in disk["copies"]:
        copy.pop("sums", None), copy.pop("sumsChecksum", None)
json.dump(cat, open(sys.argv[2], "w"))
PY

jobs=(dyn512 dyn1g dyn1gx fixed1g chain sparse2t empty2t sums)
declare -A disk label ref peer_kind peer_arg peer_fmt peer_name share best_z best_p best_ps alloc_z alloc_p
pct() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.0f%%", 100 * a / b }'; }
for j in dyn512 dyn1g dyn1gx fixed1g sparse2t empty2t; do
    peer_kind[$j]=qemu peer_arg[$j]=$(store_file "$store" "$j") peer_fmt[$j]=vpc peer_name[$j]="qemu-img convert"
done
peer_fmt[dyn1gx]=vhdx
peer_kind[chain]=zxblk peer_arg[chain]=chainref peer_name[chain]="zxblk, dynamic VHD"
disk[sums]=dyn1g peer_kind[sums]=nosums peer_arg[sums]=dyn1g peer_name[sums]="zxblk, no checksums"
ref[dyn512]=$work/d512.raw ref[dyn1g]=$work/d1g.raw ref[dyn1gx]=$work/d1g.raw ref[fixed1g]=$work/d1g.raw
ref[chain]=$work/chain/snap2.raw ref[sparse2t]=$work/s2t.raw ref[empty2t]=$work/zero2t.raw ref[sums]=$work/d1g.raw
dyn1g_data=$(data_bytes "${peer_arg[dyn1g]}" vpc)
share[dyn512]=$(pct "$(data_bytes "${peer_arg[dyn512]}" vpc)" $((512 * MiB)))
share[dyn1g]=$(pct "$dyn1g_data" $((1024 * MiB)))
share[chain]=$(pct "$(data_bytes "$(store_file "$store" chainref)" vpc)" $((512 * MiB)))
label[dyn512]="dynamic VHD 512 MiB, ${share[dyn512]} data"
label[dyn1g]="dynamic VHD 1 GiB, ${share[dyn1g]} data"
label[dyn1gx]="dynamic VHDX 1 GiB, ${share[dyn1g]} data"
label[fixed1g]="fixed VHD 1 GiB, ${share[dyn1g]} data"
label[chain]="chain of 3 VHDs 512 MiB, ${share[chain]} data"
label[sparse2t]="dynamic VHD 2000 GiB, 64 blocks data"
label[empty2t]="unallocated dynamic VHD 2000 GiB"
label[sums]="dynamic VHD 1 GiB, checksums checked"

# One timed run of each kind; each sets `last` to its seconds. Outputs that
# are gone before the next run leave no dirty pages for it to write back.
n=0
zx_export() {  # DISK OUT [STORE]
    local cache=$work/cache.$((n += 1)) t0 t1 snapshots
    rm -f "$2"; sync
    mapfile -t snapshots < <(store_files "${3:-$store}" "$1")
    warm "${snapshots[@]}"
    t0=$EPOCHREALTIME
    "$zxblk" export --store "${3:-$store}" --disk "$1" --out "$2" --cache "$cache" >"$work/export.log" 2>&1 || {
        cat "$work/export.log" >&2; die "zxblk export --disk $1 failed"
    }
    t1=$EPOCHREALTIME
    rm -rf "$cache"
    last=$(secs "$t0" "$t1")
}
qemu_convert() {  # IMAGE OUT FORMAT; also sets last_sync, the convert and a sync of its output
    local t0 t1
    rm -f "$2"; sync
    warm "$1"
    t0=$EPOCHREALTIME
    qemu-img convert -f "$3" -O raw "$1" "$2" 2>"$work/convert.log" || { cat "$work/convert.log" >&2; die "qemu-img convert of $1 failed"; }
    t1=$EPOCHREALTIME
    sync "$2" || die "sync of $2 failed"
    last=$(secs "$t0" "$t1") last_sync=$(secs "$t0" "$EPOCHREALTIME")
}
check() {  # OUT REF WHO
    same_bytes "$1" "$2" || die "$3: the output differs from the disk it must hold"
}

# One zxblk export of the 1 GiB dynamic VHD under strace, first, so that the
# rounds get what is left of the time budget.
sys_note=
if [ "$have_strace" = 1 ]; then
    step "counting the system calls of one export (strace -c -f) ..."
    rm -rf "$work/cache.strace"
    strace -c -f -o "$work/strace.txt" "$zxblk" export --store "$store" --disk dyn1g --out "$out/z.raw" \
        --cache "$work/cache.strace" >"$work/export.log" 2>&1 || { cat "$work/export.log" >&2; die "zxblk export under strace failed"; }
    check "$out/z.raw" "${ref[dyn1g]}" "zxblk export under strace"
    rm -rf "$out/z.raw" "$work/cache.strace"
else
    sys_note="strace is missing (scripts/setup.sh installs it): system calls not counted"
fi
# calls NAME...: how many calls (and failed calls) strace counted for NAMEs.
calls() { awk -v names=" $* " 'index(names, " " $NF " ") && $4 ~ /^[0-9]+$/ { c += $4; if (NF == 6) e += $5 } END { print c + 0, e + 0 }' "$work/strace.txt"; }

step "timing: best of up to $rounds rounds, each job zxblk then peer$(budget_note) ..."
done_rounds=0 last_round=0
for ((r = 1; r <= rounds; r++)); do
    if [ "$r" -gt 1 ] && ! more_rounds "$script_start" "$last_round"; then break; fi
    round_start=$EPOCHREALTIME
    # Every other round takes the jobs in the reverse order: on a shared
    # virtual machine the first large output of a round is written slower
    # (seen as system time of whichever tool writes it), and a job that
    # always came there would never get a fair run.
    order=("${jobs[@]}")
    if ((r % 2 == 0)); then
        for ((i = 0; i < ${#jobs[@]}; i++)); do order[i]=${jobs[${#jobs[@]} - 1 - i]}; done
    fi
    for j in "${order[@]}"; do
        zx_export "${disk[$j]:-$j}" "$out/z.raw"
        best_z[$j]=$(min_of "${best_z[$j]:-}" "$last")
        check "$out/z.raw" "${ref[$j]}" "zxblk export of $j, round $r"
        [ "$r" = 1 ] && alloc_z[$j]=$(allocated_mib "$out/z.raw")
        rm -f "$out/z.raw"
        if [ "${peer_kind[$j]}" = qemu ]; then
            qemu_convert "${peer_arg[$j]}" "$out/q.raw" "${peer_fmt[$j]}"
            best_ps[$j]=$(min_of "${best_ps[$j]:-}" "$last_sync")
        elif [ "${peer_kind[$j]}" = nosums ]; then
            zx_export "${peer_arg[$j]}" "$out/q.raw" "$work/nosums"
        else
            zx_export "${peer_arg[$j]}" "$out/q.raw"
        fi
        best_p[$j]=$(min_of "${best_p[$j]:-}" "$last")
        # The peer's output is checked once; it is the reference tool.
        [ "$r" = 1 ] && { check "$out/q.raw" "${ref[$j]}" "${peer_name[$j]} of $j"; alloc_p[$j]=$(allocated_mib "$out/q.raw"); }
        rm -f "$out/q.raw"
    done
    done_rounds=$r
    last_round=$(secs "$round_start" "$EPOCHREALTIME")
    step "round $r done in $last_round s"
done

echo
echo "zxblk export beside its peer on the same files; $(rounds_note "$done_rounds") of each side"
row() { printf '%-36s %9s  %-20s %9s %8s %9s %8s %9s  %s\n' "$@"; }
row "job" "zxblk s" "peer" "peer s" "ratio" "+sync s" "ratio" "target" "result"
for j in "${jobs[@]}"; do
    rt=$(ratio "${best_z[$j]}" "${best_p[$j]}")
    rs=$(ratio "${best_z[$j]}" "${best_ps[$j]:-}")
    case $j in
        dyn1g) target="<= 1.3x+s" result=$(verdict "${rs%x}" "<=" 1.3) ;;
        dyn1gx)
            vhd_rs=$(ratio "${best_z[dyn1g]}" "${best_ps[dyn1g]}")
            target="<= ${vhd_rs}+s" result=$(verdict "${rs%x}" "<=" "${vhd_rs%x}") ;;
        chain) target="<= 1.3x" result=$(verdict "${rt%x}" "<=" 1.3) ;;
        sparse2t) target="<= 1.5x" result=$(verdict "${rt%x}" "<=" 1.5) ;;
        empty2t) target="< 0.1 s" result=$(verdict "${best_z[$j]}" "<" 0.1) ;;
        sums) target="< 1.1x" result=$(verdict "${rt%x}" "<" 1.1) ;;
        *) target=- result=- ;;
    esac
    row "${label[$j]}" "${best_z[$j]}" "${peer_name[$j]}" "${best_p[$j]}" "$rt" "${best_ps[$j]:--}" "$rs" "$target" "$result"
done
echo "(+sync s: qemu-img convert followed by sync of its output; a target marked +s is against that)"
echo "dynamic VHDX beside dynamic VHD, +sync ratios: VHDX $(ratio "${best_z[dyn1gx]}" "${best_ps[dyn1gx]}"), VHD $(ratio "${best_z[dyn1g]}" "${best_ps[dyn1g]}"): $(verdict "$(ratio "${best_z[dyn1gx]}" "${best_ps[dyn1gx]}" | tr -d x)" "<=" "$(ratio "${best_z[dyn1g]}" "${best_ps[dyn1g]}" | tr -d x)") (target: VHDX at or below VHD)"
# Each tool's VHDX time against its own VHD time: which side of the ratios
# above moved. On a shared virtual machine qemu-img's time moves run to run
# with its system time, the kernel finding it new page cache for its output.
echo "  each tool's VHDX time over its VHD time: zxblk $(ratio "${best_z[dyn1gx]}" "${best_z[dyn1g]}"), qemu-img $(ratio "${best_p[dyn1gx]}" "${best_p[dyn1g]}") ($(ratio "${best_ps[dyn1gx]}" "${best_ps[dyn1g]}") with sync)"

extent=$("$zxblk" list --store "$store" --json | python3 -c 'import json, sys; print(next(d["extentSize"] for d in json.load(sys.stdin)["disks"] if d["name"] == "empty2t"))')
extents=$(((2000 * 1024 * MiB + extent - 1) / extent))
us=$(awk -v t="${best_z[empty2t]}" -v n="$extents" 'BEGIN { printf "%.3f", t * 1e6 / n }')
echo
printf '%-64s %-10s %s\n' "figure" "target" "result"
printf '%-64s %-10s %s\n' "unallocated extent: $us µs each ($extents extents of $((extent >> 10)) KiB)" "< 50 µs" "$(verdict "$us" "<" 50)"
if [ -n "$sys_note" ]; then
    echo "$sys_note"
else
    data_mib=$(awk -v b="$dyn1g_data" 'BEGIN { printf "%.1f", b / 1048576 }')
    read -r w_calls _ < <(calls write writev pwrite64 pwritev pwritev2)
    read -r f_calls _ < <(calls fsync fdatasync syncfs sync_file_range sync)
    read -r m_calls m_err < <(calls mkdir mkdirat)
    read -r c_calls _ < <(calls copy_file_range sendfile splice)
    w_per=$(awk -v c="$w_calls" -v m="$data_mib" 'BEGIN { printf "%.2f", c / m }')
    echo "system calls of one zxblk export of the 1 GiB dynamic VHD ($data_mib MiB of data; strace -c -f):"
    printf '%-64s %-10s %s\n' "  write calls: $w_calls, $w_per per MiB of data" "<= 2" "$(verdict "$w_per" "<=" 2)"
    printf '%-64s %-10s %s\n' "  fsync calls: $f_calls per export" "<= 2" "$(verdict "$f_calls" "<=" 2)"
    printf '%-64s %-10s %s\n' "  mkdir calls: $m_calls per export ($m_err failed)" "-" "-"
    printf '%-64s %-10s %s\n' "  copy_file_range/sendfile/splice calls: $c_calls per export" "-" "-"
    echo "  (write: write+writev+pwrite64+pwritev+pwritev2; fsync: fsync+fdatasync+syncfs+sync_file_range+sync)"
fi

echo
echo "space the output takes on disk (du, MiB):"
for j in "${jobs[@]}"; do
    printf '  %-36s zxblk %6s   %-20s %6s\n' "${label[$j]}" "${alloc_z[$j]}" "${peer_name[$j]}" "${alloc_p[$j]}"
done
echo "(zxblk s, peer s: wall time of the whole command; the byte checks are not timed)"
