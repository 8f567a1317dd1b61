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

# store_files STORE DISK: every snapshot file of DISK in STORE, one a line.
store_files() {
    "${zxblk:?}" list --store "$1" --disk "$2" | grep -o 'snapshots/[^ ]*' | sed "s|^|$1/|"
}

# warm FILE...: reads the files into the page cache, untimed, before a run
# that is to read them from there. A machine that takes back memory left
# idle for a few seconds (a VM whose guest pages out cold pages) would
# otherwise have dropped them again, and the side timed first in a round
# would read them from the disk for the side timed after it.
warm() { cat -- "$@" >/dev/null; }

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

# write_vhd_child PARENT_VHD OLDER_RAW NEWER_RAW CHILD_VHD: a differencing VHD
# (2 MiB blocks) that turns the disk of PARENT_VHD, whose bytes are
# OLDER_RAW, into NEWER_RAW: the blocks where the two differ, with a sector
# bitmap naming the sectors that changed. Only the ranges where either raw
# file holds data are compared, so sparse disks of many GiB take seconds.
write_vhd_child() {
    python3 - "$@" <<'PY'
import os, struct, sys, time, uuid
parent, older, newer, child = sys.argv[1:5]
BLOCK, SECTOR = 2 << 20, 512

def checksum(b):
    return (~sum(b)) & 0xFFFFFFFF

with open(parent, "rb") as f:
    pfooter = f.read(512)
if pfooter[:8] != b"conectix":
    sys.exit(f"write_vhd_child: {parent} is not a VHD")
size = struct.unpack(">Q", pfooter[48:56])[0]
fo, fn = os.open(older, os.O_RDONLY), os.open(newer, os.O_RDONLY)
if os.fstat(fo).st_size != size or os.fstat(fn).st_size != size:
    sys.exit(f"write_vhd_child: {older} and {newer} must both be {size} bytes, as {parent}")

def data_blocks(fd):
    out, pos = set(), 0
    while pos < size:
        try:
            start = os.lseek(fd, pos, os.SEEK_DATA)
        except OSError:
            break
        end = os.lseek(fd, start, os.SEEK_HOLE)
        out.update(range(start // BLOCK, (end + BLOCK - 1) // BLOCK))
        pos = end
    return out

blocks = (size + BLOCK - 1) // BLOCK
bitmap_bytes = ((BLOCK // SECTOR + 7) // 8 + 511) // 512 * 512
bat_bytes = (blocks * 4 + 511) // 512 * 512
name = os.path.basename(parent)
locator = (".\\" + name).encode("utf-16-le")
now = int(time.time()) - 946684800  # VHD times count from 2000
footer = bytearray(512)
footer[0:8] = b"conectix"
struct.pack_into(">IIQI4sI4sQQIII", footer, 8, 2, 0x00010000, 512, now, b"zxbk", 0x00010000, b"Wi2k", size, size,
                 0, 4, 0)
footer[68:84] = uuid.uuid4().bytes
struct.pack_into(">I", footer, 64, checksum(footer))
header = bytearray(1024)
header[0:8] = b"cxsparse"
struct.pack_into(">QQIII", header, 8, 0xFFFFFFFFFFFFFFFF, 1536, 0x00010000, blocks, BLOCK)
header[40:56] = pfooter[68:84]                   # the parent's unique id
header[56:60] = pfooter[24:28]                   # and its time stamp
header[64:64 + min(510, 2 * len(name))] = name.encode("utf-16-be")[:510]
next_at = 1536 + bat_bytes
struct.pack_into(">4sIIIQ", header, 576, b"W2ru", 512, len(locator), 0, next_at)
struct.pack_into(">I", header, 36, checksum(header))
bat = bytearray(b"\xff" * bat_bytes)
tmp = child + ".partial"
with open(tmp, "wb") as out:
    out.seek(next_at)
    out.write(locator.ljust(512, b"\0"))
    next_at += 512
    changed = 0
    for b in sorted(data_blocks(fo) | data_blocks(fn)):
        start = b * BLOCK
        n = min(BLOCK, size - start)
        x, y = os.pread(fo, n, start), os.pread(fn, n, start)
        if x == y:
            continue
        bitmap, data = bytearray(bitmap_bytes), bytearray(BLOCK)
        for s in range(0, n, SECTOR):
            if x[s:s + SECTOR] != y[s:s + SECTOR]:
                bitmap[s // SECTOR // 8] |= 0x80 >> (s // SECTOR % 8)
                data[s:s + SECTOR] = y[s:s + SECTOR]
        struct.pack_into(">I", bat, b * 4, next_at // SECTOR)
        out.seek(next_at)
        out.write(bitmap)
        out.write(data)
        next_at += bitmap_bytes + BLOCK
        changed += 1
    out.seek(0)
    out.write(footer)
    out.write(header)
    out.write(bat)
    out.seek(next_at)
    out.write(footer)
os.replace(tmp, child)
print(f"{changed} blocks of {BLOCK >> 20} MiB changed")
PY
}

# apply_vhd_child RAW CHILD_VHD: lays the sectors a differencing VHD holds
# over RAW, the disk of its parent, as restoring the chain does.
apply_vhd_child() {
    python3 - "$@" <<'PY'
import os, struct, sys
raw, child = sys.argv[1:3]
fd, out = os.open(child, os.O_RDONLY), os.open(raw, os.O_WRONLY)
footer, header = os.pread(fd, 512, 0), os.pread(fd, 1024, 512)
if footer[:8] != b"conectix" or header[:8] != b"cxsparse" or struct.unpack(">I", footer[60:64])[0] != 4:
    sys.exit(f"apply_vhd_child: {child} is not a differencing VHD")
table = struct.unpack(">Q", header[16:24])[0]
blocks, block = struct.unpack(">II", header[28:36])
sectors = block // 512
bitmap_bytes = ((sectors + 7) // 8 + 511) // 512 * 512
bat = struct.unpack(f">{blocks}I", os.pread(fd, blocks * 4, table))
for b, at in enumerate(bat):
    if at == 0xFFFFFFFF:
        continue
    bits = os.pread(fd, bitmap_bytes, at * 512)
    data = os.pread(fd, block, at * 512 + bitmap_bytes)
    s = 0
    while s < sectors:
        if not bits[s // 8] & (0x80 >> (s % 8)):
            s += 1
            continue
        e = s
        while e < sectors and bits[e // 8] & (0x80 >> (e % 8)):
            e += 1
        os.pwrite(out, data[s * 512:e * 512], b * block + s * 512)
        s = e
PY
}
