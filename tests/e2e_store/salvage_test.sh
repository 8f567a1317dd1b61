#!/usr/bin/env bash
# Salvage of a damaged chain: one byte flipped in a block of each of three
# snapshots after import. `export --on-error zero` exits 3 with the merged
# disk except exactly those blocks' disk ranges, less the sectors newer
# snapshots hold over them, which are zeros (blocks of 512 KiB in extents of
# 1 MiB: the good half of a failed extent is still read); its ddrescue map
# and JSON name those runs, `verify --json` the blocks' ranges; a plain
# export fails with one line.
set -euo pipefail
zxblk=$1 chain=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export ASAN_OPTIONS=${ASAN_OPTIONS:-}:detect_leaks=1
fail() { echo "FAIL: $*"; exit 1; }
B=524288

"$chain" "$work" $((6 * 1048576)) $B 2 23 >/dev/null   # snap0..2.vhd and snap2.raw, the merged disk
store="$work/store"
"$zxblk" import --store "$store" --disk web "$work"/snap{0,1,2}.vhd >/dev/null

# For each snapshot the block that loses the most sectors with it (sectors
# a newer snapshot's bitmap marks are still read), each in another extent;
# flips a byte of its data, keeps the file's times, and writes from the
# merged disk the expected image, the blocks' disk ranges (verify) and the
# runs filled with zeros (export).
python3 - "$store/snapshots" "$work/snap2.raw" "$work" $B <<'PY'
import os, struct, sys
folder, merged, out, B = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4])
files = [os.path.join(folder, "web-snap%d.vhd" % i) for i in range(3)]
bitmap = ((B // 512 + 7) // 8 + 511) // 512 * 512

def table(path):
    f = open(path, "rb"); f.seek(-512, 2); footer = f.read(512)
    f.seek(struct.unpack(">Q", footer[16:24])[0]); header = f.read(1024)
    at, n = struct.unpack(">Q", header[16:24])[0], struct.unpack(">I", header[28:32])[0]
    f.seek(at)
    return list(struct.unpack(">%dI" % n, f.read(4 * n)))

tables = [table(p) for p in files]
def marked(j, b, s):
    if tables[j][b] == 0xFFFFFFFF: return False
    with open(files[j], "rb") as f:
        f.seek(tables[j][b] * 512 + s // 8)
        return f.read(1)[0] & (0x80 >> s % 8) != 0
def lost(i, b):  # the block's sectors no newer snapshot holds
    return [s for s in range(B // 512) if not any(marked(j, b, s) for j in range(i + 1, 3))]

chosen, extents = [], set()
for i in (2, 1, 0):
    held = [b for b, sector in enumerate(tables[i]) if sector != 0xFFFFFFFF and b * B // 1048576 not in extents]
    b = max(held, key=lambda b: len(lost(i, b)))
    extents.add(b * B // 1048576)
    chosen.append((b, i, tables[i][b], lost(i, b)))
chosen.sort()
image = bytearray(open(merged, "rb").read())
runs = []
for b, i, sector, sectors in chosen:
    st = os.stat(files[i])
    with open(files[i], "r+b") as f:
        at = sector * 512 + bitmap + 1000
        f.seek(at); byte = f.read(1); f.seek(at); f.write(bytes([byte[0] ^ 1]))
    os.utime(files[i], ns=(st.st_atime_ns, st.st_mtime_ns))
    for s in sectors:
        at = b * B + s * 512
        image[at:at + 512] = bytes(512)
        if runs and runs[-1][0] + runs[-1][1] == at: runs[-1][1] += 512
        else: runs.append([at, 512, i])
open(out + "/expected", "wb").write(image)
open(out + "/blocks", "w").write("".join("%d %d %d\n" % (b * B, B, i) for b, i, _, _ in chosen))
open(out + "/runs", "w").write("".join("%d %d %d\n" % tuple(r) for r in runs))
lost_bytes = sum(r[1] for r in runs)
size = ("%d MiB" % (lost_bytes >> 20) if lost_bytes % 1048576 == 0 else
        "%d KiB" % (lost_bytes >> 10) if lost_bytes % 1024 == 0 else "%d bytes" % lost_bytes)
open(out + "/summary", "w").write("export of web snapshot 2: %d damaged ranges (%s) filled with zeros" % (len(runs), size))
PY
echo "ok: damaged blocks (offset length snapshot): $(tr '\n' ';' <"$work/blocks")"

rc=0
"$zxblk" export --store "$store" --disk web --cache "$work/c1" --out "$work/plain" >/dev/null 2>"$work/err" || rc=$?
[ "$rc" = 1 ] || fail "plain export of a damaged chain exited $rc, not 1"
[ "$(wc -l <"$work/err")" = 1 ] || { cat "$work/err"; fail "plain export: not one line on stderr"; }
[ ! -e "$work/plain" ] || fail "a failed export left its target"

rc=0
"$zxblk" export --store "$store" --disk web --cache "$work/c2" --out "$work/salvaged" --on-error zero \
  --bad-map "$work/map" --json >"$work/json" 2>"$work/err" || rc=$?
[ "$rc" = 3 ] || { cat "$work/err"; fail "salvage exited $rc, not 3"; }
[ "$(wc -l <"$work/err")" = 1 ] && grep -qF "$(cat "$work/summary")" "$work/err" || { cat "$work/err"; fail "salvage summary line"; }
cmp "$work/salvaged" "$work/expected" || fail "salvaged image is not the merged disk with exactly the bad blocks zeroed"
echo "ok: salvaged image == merged disk, bad blocks zeroed; $(cat "$work/err")"

# The same ranges from the map (ddrescue: '-' bad, '+' the rest, covering
# the disk), the export's JSON and verify's JSON.
python3 - "$work/runs" "$work/map" "$work/json" $((6 * 1048576)) <<'PY' ||
import json, sys
want = [tuple(map(int, l.split())) for l in open(sys.argv[1])]
size = int(sys.argv[4])
lines = [l.split() for l in open(sys.argv[2]) if not l.startswith("#")]
assert lines[0][1] == "+", lines[0]
rows = [(int(a, 16), int(b, 16), s) for a, b, s in lines[1:]]
at = 0
for a, n, s in rows:
    assert a == at and n > 0 and s in "+-", rows
    at += n
assert at == size, at
merged = []
for o, n, _ in want:
    if merged and sum(merged[-1]) == o: merged[-1][1] += n
    else: merged.append([o, n])
assert [[a, n] for a, n, s in rows if s == "-"] == merged, rows
filled = json.load(open(sys.argv[3]))["filled"]
assert [(f["offset"], f["length"], f["snapshot"]) for f in filled] == want, filled
assert all("checksum mismatch" in f["why"] and f["file"] == "snapshots/web-snap%d.vhd" % f["snapshot"] for f in filled), filled
PY
  fail "map or JSON ranges"
# ddrescue's own reader of mapfiles, where it is installed, lists the same bad blocks.
if command -v ddrescuelog >/dev/null; then
  ddrescuelog --list-blocks=- --block-size=512 "$work/map" >"$work/listed" || fail "ddrescuelog refused the map"
  diff <(awk '{for (s = 0; s < $2; s += 512) print ($1 + s) / 512}' "$work/runs") "$work/listed" ||
    fail "ddrescuelog lists other bad sectors"
fi
rc=0
"$zxblk" verify --store "$store" --json >"$work/verify" || rc=$?
[ "$rc" = 1 ] || fail "verify exited $rc, not 1"
python3 - "$work/blocks" "$work/verify" <<'PY' || { cat "$work/verify"; fail "verify --json ranges"; }
import json, sys
want = sorted(tuple(map(int, l.split())) for l in open(sys.argv[1]))
found = json.load(open(sys.argv[2]))["findings"]
assert all(f["damaged"] and f["block"] >= 0 for f in found), found
assert sorted((f["offset"], f["length"], f["snapshot"]) for f in found) == want, found
PY
echo "ok: bad map and export --json name the $(wc -l <"$work/runs") runs lost, verify --json the $(wc -l <"$work/blocks") blocks"

# A fixed VHD is checked in units of 2 MiB: a flipped byte in the second
# costs disk bytes 2 MiB to 4 MiB, named as its block 1, and nothing else.
head -c $((6 * 1048576)) /dev/urandom >"$work/fixed.raw"
qemu-img convert -q -f raw -O vpc -o subformat=fixed,force_size=on "$work/fixed.raw" "$work/fixed.vhd"
"$zxblk" import --store "$store" --disk fixed "$work/fixed.vhd" >/dev/null
python3 -c '
import sys
with open(sys.argv[1], "r+b") as f:
    f.seek(3 * 1048576 + 12345); b = f.read(1); f.seek(-1, 1); f.write(bytes([b[0] ^ 1]))' "$store/snapshots/fixed-snap0.vhd"
touch -r "$work/fixed.vhd" "$store/snapshots/fixed-snap0.vhd"
rc=0
"$zxblk" export --store "$store" --disk fixed --cache "$work/c3" --out "$work/fixed.out" --on-error zero --json \
  >"$work/json" 2>/dev/null || rc=$?
[ "$rc" = 3 ] || fail "fixed: salvage exited $rc, not 3"
cmp "$work/fixed.out" <(head -c $((2 * 1048576)) "$work/fixed.raw"; head -c $((2 * 1048576)) /dev/zero
                         tail -c $((2 * 1048576)) "$work/fixed.raw") || fail "fixed: not exactly unit 1 zeroed"
python3 -c '
import json, sys
f = [(r["offset"], r["length"], r["block"]) for r in json.load(open(sys.argv[1]))["filled"]]
assert f == [(2 << 20, 1 << 20, 1), (3 << 20, 1 << 20, 1)], f' "$work/json" || fail "fixed: filled ranges"
echo "ok: fixed VHD: unit 1 (2 MiB) zeroed and named"
