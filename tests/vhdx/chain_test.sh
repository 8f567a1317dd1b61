#!/usr/bin/env bash
# VHDX chains of make_vhdx_chain (written from MS-VHDX, every block state in
# them) imported into a store: every snapshot exports as the writer's plan
# says, libvhdi reads the files the same way, and served over NBD the zero
# blocks are holes.
set -euo pipefail
zxblk=$1 chain=$2
work=$(mktemp -d)
cleanup() {
  [ -n "${mounted:-}" ] && { fusermount3 -u "$mounted" 2>/dev/null || fusermount -u "$mounted" 2>/dev/null || true; }
  rm -rf "$work"
}
trap cleanup EXIT
export ASAN_OPTIONS=${ASAN_OPTIONS:-}:detect_leaks=1
ok() { echo "ok: $*"; }
fail() { echo "FAIL: $*"; exit 1; }
command -v python3 >/dev/null || { echo "skipped: no python3"; exit 77; }
MiB=1048576

# Raw images compared through their holes where qemu-img is there (the
# disk of more than 4 GiB is mostly holes), byte by byte otherwise.
same() {
  if command -v qemu-img >/dev/null; then qemu-img compare -q -f raw -F raw "$1" "$2"; else cmp -s "$1" "$2"; fi
}

# Reads of a level, block by block over the blocks the plan writes, against
# the writer's image. libvhdi reads a differencing file's ZERO, UNMAPPED and
# UNDEFINED blocks from the parent (and, where the chunk's sector bitmap has
# their bits set, from the file's first bytes); the format document has ZERO read as
# zeros and lets the other two read as zeros, as the writer plans them, so
# blocks under such a state are passed over, and must be the only ones that
# differ.
compare_planned() {
  python3 - "$@" <<'PY'
import sys
d, level, other = sys.argv[1], int(sys.argv[2]), sys.argv[3]
plan = [l.split() for l in open(d + "/plan.txt")]
hidden = {int(p[1]) for p in plan if 1 <= int(p[0]) <= level and p[4] in ("ZERO", "UNMAPPED", "UNDEFINED")}
blocks = {int(p[1]): (int(p[2]), int(p[3])) for p in plan}
a, b = open(other, "rb"), open(f"{d}/level{level}.raw", "rb")
for blk, (off, n) in sorted(blocks.items()):
    a.seek(off), b.seek(off)
    x, y = a.read(n), b.read(n)
    if x != y and blk not in hidden:
        s = next(i for i in range(0, n, 512) if x[i:i + 512] != y[i:i + 512]) // 512
        sys.exit(f"level {level} block {blk} sector {s} differs from the writer's image")
PY
}

# Every range nbdinfo --map calls a hole or zeros reads as zeros in the
# writer's image (found through the image's own holes), and the blocks the
# served level leaves ZERO or UNMAPPED (over data of its parents or not) are
# wholly inside such ranges.
check_map() {
  python3 - "$@" <<'PY'
import os, sys
d, level, mapfile = sys.argv[1], int(sys.argv[2]), sys.argv[3]
ranges = []
for line in open(mapfile):
    f = line.split()
    if int(f[2]) & 3:
        ranges.append((int(f[0]), int(f[0]) + int(f[1])))
fd = os.open(f"{d}/level{level}.raw", os.O_RDONLY)
for start, end in ranges:
    at = start
    while at < end:
        try:
            data = os.lseek(fd, at, os.SEEK_DATA)
        except OSError:
            break
        if data >= end:
            break
        hole = min(os.lseek(fd, data, os.SEEK_HOLE), end)
        if any(os.pread(fd, hole - data, data)):
            sys.exit(f"level {level}: {start}+{end - start} is a hole to NBD but holds data near {data}")
        at = hole
merged = []
for s, e in sorted(ranges):
    if merged and s <= merged[-1][1]:
        merged[-1][1] = max(merged[-1][1], e)
    else:
        merged.append([s, e])
for p in (l.split() for l in open(d + "/plan.txt")):
    if int(p[0]) == level and p[4] in ("ZERO", "UNMAPPED"):
        off, n = int(p[2]), int(p[3])
        if not any(s <= off and off + n <= e for s, e in merged):
            sys.exit(f"level {level} block {p[1]} ({p[4]}) at {off}+{n} is not a hole to NBD")
PY
}

fuse=""
if [ -e /dev/fuse ] && command -v vhdimount >/dev/null && command -v fusermount3 >/dev/null; then fuse=1; fi
[ -n "$fuse" ] || echo "skipped: libvhdi's reading of the chains (no /dev/fuse or vhdimount)"
command -v nbdinfo >/dev/null || echo "skipped: block status over NBD (no nbdinfo)"

# name | writer options: an odd size in 1 MiB blocks; 4096-byte sectors in
# 32 MiB blocks; a fixed base; a disk of more than 4 GiB, nearly all holes,
# so that its blocks take two sector bitmap chunks.
cases=(
  "odd --size $((20 * MiB + 37 * 512)) --seed 3"
  "sect4k --size $((16 * 32 * MiB + 5 * 4096)) --block-size $((32 * MiB)) --logical-sector 4096 --seed 4"
  "fixed --size $((24 * MiB + 3 * 512)) --block-size $((2 * MiB)) --fixed --seed 5"
  "chunks --size $((4099 * MiB + 512)) --seed 9"
)
for case in "${cases[@]}"; do
  read -r name opts <<<"$case"
  dir=$work/$name
  mkdir -p "$dir"
  "$chain" "$dir" $opts >"$dir/files" || fail "$name: the writer failed"
  files=($(cut -d' ' -f1 "$dir/files"))
  levels=${#files[@]}
  "$zxblk" import --store "$work/store" --disk "$name" "${files[@]}" >/dev/null || fail "$name: import refused the chain"
  "$zxblk" list --store "$work/store" --disk "$name" >"$dir/list"
  kinds="dynamic VHDX"
  case $opts in *--fixed*) kinds="fixed VHDX" ;; esac
  for ((i = 1; i < levels; i++)); do kinds+=",differencing VHDX"; done
  [ "$(awk '/^ +[0-9]+ / {printf "%s%s %s", n++ ? "," : "", $2, $3}' "$dir/list")" = "$kinds" ] ||
    { cat "$dir/list"; fail "$name: list does not name the snapshots $kinds"; }
  for ((i = 0; i < levels; i++)); do
    "$zxblk" export --store "$work/store" --disk "$name" --snapshot "$i" --out "$dir/out$i" --cache "$dir/cache" >/dev/null
    same "$dir/out$i" "$dir/level$i.raw" || fail "$name: snapshot $i exports other bytes than the writer planned"
  done
  ok "$name: imported, listed as VHDX, every snapshot of $levels exports as planned"

  if [ -n "$fuse" ]; then
    for f in "${files[@]}"; do vhdiinfo "$f" >/dev/null || fail "vhdiinfo rejects $f"; done
    mkdir -p "$dir/mnt"
    vhdimount "${files[levels - 1]}" "$dir/mnt" >/dev/null
    mounted=$dir/mnt
    for _ in $(seq 50); do [ -e "$dir/mnt/vhdi$levels" ] && break; sleep 0.1; done
    for ((i = 0; i < levels; i++)); do
      compare_planned "$dir" "$i" "$dir/mnt/vhdi$((i + 1))" || fail "$name: libvhdi and the writer disagree"
    done
    fusermount3 -u "$dir/mnt"
    mounted=""
    ok "$name: libvhdi reads every level as planned (but where a zero state hides the parent)"
  fi
  # qemu-img reads a VHDX without parent, of 512-byte logical sectors only.
  if command -v qemu-img >/dev/null && [ "${opts#*logical-sector 4096}" = "$opts" ]; then
    qemu-img convert -f vhdx -O raw "${files[0]}" "$dir/qemu0.raw"
    same "$dir/qemu0.raw" "$dir/level0.raw" || fail "$name: qemu-img reads the base other than planned"
    ok "$name: qemu-img reads the base as planned"
  fi

  if command -v nbdinfo >/dev/null; then
    for ((i = 1; i < levels; i++)); do
      timeout 120 "$zxblk" serve --store "$work/store" --disk "$name" --snapshot "$i" --cache "$dir/cache" \
        --run "nbdinfo --map \"\$uri\" >$dir/map$i" >/dev/null || fail "$name: serve --run nbdinfo failed (exit $?)"
      check_map "$dir" "$i" "$dir/map$i" || fail "$name: block status over NBD is wrong"
    done
    ok "$name: NBD holes read as zeros, each snapshot's ZERO and UNMAPPED blocks are holes"
  fi
done
