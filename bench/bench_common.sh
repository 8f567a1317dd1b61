# Helpers shared by bench/export_bench.sh and bench/mount_bench.sh; sourced,
# never run on its own.
# shellcheck shell=bash

say() { printf '%s\n' "$*"; }
die() { printf '%s: %s\n' "${bench_name:-bench}" "$*" >&2; exit 1; }

# Seconds between two $EPOCHREALTIME stamps, to the millisecond.
secs() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }
# The smaller of two figures, where "" counts as no figure yet.
min_of() { if [ -z "$1" ]; then echo "$2"; else awk -v a="$1" -v b="$2" 'BEGIN { print (b < a) ? b : a }'; fi; }
max_of() { if [ -z "$1" ]; then echo "$2"; else awk -v a="$1" -v b="$2" 'BEGIN { print (b > a) ? b : a }'; fi; }
# a / b with one decimal and an x, or "-" when either is missing.
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (a == "" || b == "" || b + 0 == 0) print "-"; else printf "%.2fx", a / b }'; }
# PASS when "$1 $2 $3" holds (such as "1.1 <= 1.3"), MISS otherwise, "-" without a figure.
verdict() {
    awk -v a="$1" -v op="$2" -v b="$3" 'BEGIN {
        if (a == "" || a == "-") { print "-"; exit }
        a += 0; b += 0
        ok = (op == "<=") ? a <= b : (op == "<") ? a < b : (op == ">=") ? a >= b : a > b
        print ok ? "PASS" : "MISS" }'
}

# make_data_raw PATH SIZE SHARE SEED: a sparse raw disk of SIZE bytes in which
# a SHARE (0..1) of its 2 MiB blocks, picked by SEED, hold random bytes and
# the rest are holes.
make_data_raw() {
    python3 - "$@" <<'PY'
import random, sys
path, size, share, seed = sys.argv[1], int(sys.argv[2]), float(sys.argv[3]), int(sys.argv[4])
block = 2 << 20
blocks = size // block
rng = random.Random(seed)
chosen = sorted(rng.sample(range(blocks), round(blocks * share)))
with open(path, "wb") as f:
    f.truncate(size)
    for b in chosen:
        f.seek(b * block)
        f.write(rng.randbytes(block))
PY
}

# same_bytes A B: fails, naming the first differing byte, unless A and B hold
# the same bytes. Only the ranges where either file holds data are read (a
# hole reads as zeros in both), 8 MiB at a time: cmp reads every byte 4 KiB at
# a time, which on a machine with costly system calls takes longer than the
# exports it checks.
same_bytes() {
    python3 - "$1" "$2" <<'PY'
import os, sys
a, b = sys.argv[1], sys.argv[2]
chunk = 8 << 20

def data_ranges(fd, size):
    ranges, pos = [], 0
    while pos < size:
        try:
            start = os.lseek(fd, pos, os.SEEK_DATA)
        except OSError:  # no data past pos
            break
        end = os.lseek(fd, start, os.SEEK_HOLE)
        ranges.append((start, end))
        pos = end
    return ranges

def fail(what, at):
    print(f"{a} {b}: {what} at byte {at + 1}", file=sys.stderr)
    sys.exit(1)

fa, fb = os.open(a, os.O_RDONLY), os.open(b, os.O_RDONLY)
size = os.fstat(fa).st_size
if os.fstat(fb).st_size != size:
    fail("sizes differ", min(size, os.fstat(fb).st_size))
merged = []
for s, e in sorted(data_ranges(fa, size) + data_ranges(fb, size)):
    if merged and s <= merged[-1][1]:
        merged[-1][1] = max(merged[-1][1], e)
    else:
        merged.append([s, e])
for s, e in merged:
    pos = s
    while pos < e:
        n = min(chunk, e - pos)
        x, y = os.pread(fa, n, pos), os.pread(fb, n, pos)
        if x != y or len(x) != n:
            k = next((i for i in range(min(len(x), len(y))) if x[i] != y[i]), min(len(x), len(y)))
            fail("contents differ", pos + k)
        pos += n
PY
}

# data_bytes IMAGE FORMAT: bytes the image holds as data (not holes, not
# unallocated blocks), as qemu-img map reports them.
data_bytes() {
    qemu-img map -f "$2" --output=json "$1" | python3 -c '
import json, sys
print(sum(e["length"] for e in json.load(sys.stdin) if e.get("data")))'
}

# allocated_mib FILE: the space FILE takes on disk, in MiB (du's figure).
allocated_mib() { du -m "$1" | cut -f1; }

# store_file STORE DISK: the newest snapshot file of DISK in STORE (the
# caller sets zxblk).
store_file() {
    local rel
    rel=$("${zxblk:?}" list --store "$1" --disk "$2" | grep -o 'snapshots/[^ ]*' | tail -1)
    if [ -z "$rel" ] || [ ! -f "$1/$rel" ]; then die "cannot find the snapshot file of disk $2 in $1"; fi
    echo "$1/$rel"
}

# parse_common_args "$@": --rounds N, --budget SECONDS and the build folder.
# Sets rounds, budget and build (an existing folder, made absolute).
parse_common_args() {
    build=
    while [ $# -gt 0 ]; do
        case $1 in
            --rounds) rounds=${2:?--rounds needs a number}; shift 2 ;;
            --rounds=*) rounds=${1#*=}; shift ;;
            --budget) budget=${2:?--budget needs seconds}; shift 2 ;;
            --budget=*) budget=${1#*=}; shift ;;
            -h|--help) sed -n '2,/^set -/p' "$0" | sed -e '/^set -/d' -e 's/^# \{0,1\}//'; exit 0 ;;
            -*) die "unknown option $1" ;;
            *) [ -z "$build" ] || die "one build folder only"; build=$1; shift ;;
        esac
    done
    build=${build:-build}
    [ -d "$build" ] || die "no build folder $build"
    build=$(cd "$build" && pwd)
    case $rounds in ''|*[!0-9]*|0) die "--rounds wants a whole number of at least 1" ;; esac
    case $budget in ''|*[!0-9]*) die "--budget wants whole seconds (0: no limit)" ;; esac
}

# more_rounds START LAST_ROUND_SECONDS: whether one more round of about the
# last one's length still fits in the time budget counted from START.
more_rounds() {
    [ "$budget" -eq 0 ] && return 0
    awk -v s="$1" -v now="$EPOCHREALTIME" -v last="$2" -v b="$budget" 'BEGIN { exit !((now - s) + last <= b) }'
}

# rounds_note DONE: "best of DONE run(s)", saying why when fewer than asked.
rounds_note() {
    local s="best of $1 run(s)"
    if [ "$1" -lt "$rounds" ]; then s+=" ($rounds asked; the time budget of $budget s ran out)"; fi
    echo "$s"
}
budget_note() { if [ "$budget" -gt 0 ]; then echo ", within $budget s in all"; fi; }
# step TEXT: a progress line with the seconds since the script started.
step() { printf '[%6.1f s] %s\n' "$(secs "${script_start:?}" "$EPOCHREALTIME")" "$*"; }
