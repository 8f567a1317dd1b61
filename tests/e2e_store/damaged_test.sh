#!/usr/bin/env bash
# A chain whose base snapshot is deleted, cut short or replaced by another
# disk's VHD: export, read, serve and mount refuse it in one line naming the
# snapshot, exit 1, with nothing listening or mounted. With --allow-damaged
# they present it, say so in one line, and the extents that the children
# hold whole (found from their own block tables and bitmaps) read byte-exact. A flipped data byte: export fails in one line naming the
# checksum mismatch.
#   damaged_test.sh ZXBLK MAKE_VHD_CHAIN
set -euo pipefail
zxblk=$1 chain=$2
work=$(mktemp -d)
mounts=()
cleanup() {
  for m in "${mounts[@]}"; do fusermount3 -u "$m" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT
cd "$work"
fail() { echo "FAIL: $*"; exit 1; }
ok() { echo "ok: $*"; }
t() { timeout 120 "$@"; }
E=65536
fuse=; [ -e /dev/fuse ] && command -v fusermount3 >/dev/null && fuse=1
# A server is read with libnbd's Python binding, where there is one.
nbd=
if command -v nbdkit >/dev/null; then
  for p in python3 /usr/bin/python3; do "$p" -c 'import nbd; nbd.NBD' 2>/dev/null && { nbd=$p; break; }; done
fi

# Blocks of 16 KiB, extents of 64 KiB: the runs the children write across
# block boundaries cover some extents whole between them.
mkdir c o
"$chain" c 1048576 16384 3 6 >/dev/null
"$chain" o 1048576 16384 0 8 >/dev/null   # another disk of the same size
"$zxblk" import --store clean --disk web01 --extent-size 64K c/snap{0,1,2,3}.vhd >/dev/null

# vhd.py held EXTENT FILE...: the extents the FILEs hold every sector of
# between them, from their own block tables and bitmaps.
# vhd.py byte BLOCK WITHIN FILE: the file offset of byte WITHIN of BLOCK's data.
cat >vhd.py <<'PY'
import struct, sys
def load(path):
    f = open(path, "rb"); f.seek(-512, 2); footer = f.read(512)
    f.seek(struct.unpack(">Q", footer[16:24])[0]); header = f.read(1024)
    table, entries, bs = (struct.unpack(">Q", header[16:24])[0], struct.unpack(">I", header[28:32])[0],
                          struct.unpack(">I", header[32:36])[0])
    f.seek(table)
    return f, struct.unpack(">Q", footer[48:56])[0], struct.unpack(">%dI" % entries, f.read(4 * entries)), bs // 512
def held(img, s):
    f, _, bat, per = img
    if bat[s // per] == 0xFFFFFFFF: return False
    f.seek(bat[s // per] * 512 + (s % per) // 8)
    return f.read(1)[0] & (0x80 >> (s % 8)) != 0
imgs = [load(p) for p in sys.argv[4 if sys.argv[1] == "byte" else 3:]]
if sys.argv[1] == "byte":
    f, _, bat, per = imgs[0]
    print(bat[int(sys.argv[2])] * 512 + (per // 8 + 511) // 512 * 512 + int(sys.argv[3])); sys.exit()
E = int(sys.argv[2]) // 512
print(" ".join(str(e) for e in range(imgs[0][1] // 512 // E) if all(any(held(i, e * E + k) for i in imgs) for k in range(E))))
PY
held=($(python3 vhd.py held $E c/snap{1,2,3}.vhd))
[ ${#held[@]} -gt 0 ] || fail "the children hold no extent whole: pick another seed"
some=${held[0]}
expect() { dd if=c/snap3.raw bs=$E skip="$1" count=1 status=none; }
one_line() { [ "$(wc -l <"$1")" = 1 ] || { cat "$1"; fail "$2: stderr is not one line"; }; }

# case | how the base is damaged | what the one line says of it
cases=(
  "deleted|rm s/snapshots/web01-snap0.vhd|is missing"
  "truncated|truncate -s 4096 s/snapshots/web01-snap0.vhd|is damaged: "
  "replaced|cp o/snap0.vhd s/snapshots/web01-snap0.vhd|is damaged: unique id: the catalog records "
)
for c in "${cases[@]}"; do
  IFS='|' read -r name how what <<<"$c"
  rm -rf s cache* mnt; cp -a clean s; $how
  said="snapshot 0 (snapshots/web01-snap0.vhd) $what"
  for cmd in "export --out $work/x.raw" "read --offset $((some * E)) --length $E"; do
    rc=0; t "$zxblk" $cmd --store s --disk web01 --cache cache1 >out 2>err || rc=$?
    [ $rc = 1 ] || { cat err; fail "$name: ${cmd%% *} exited $rc, not 1"; }
    one_line err "$name: ${cmd%% *}"
    grep -q "^zxblk: web01 $said" err || { cat err; fail "$name: ${cmd%% *} did not say '$said'"; }
  done
  cp err refused
  [ ! -e x.raw ] || fail "$name: export left its output"
  if [ -n "$nbd" ]; then
    rc=0; t "$zxblk" serve --store s --disk web01 --cache cache2 --socket "$work/n.sock" >out 2>err || rc=$?
    [ $rc = 1 ] && [ ! -e n.sock ] || { cat err; fail "$name: serve exited $rc or left its socket"; }
    one_line err "$name: serve"; grep -q "^zxblk: web01 $said" err || { cat err; fail "$name: serve did not say it"; }
    t "$zxblk" serve --store s --disk web01 --cache cache3 --allow-damaged \
      --run "$nbd -c 'import nbd, os; h = nbd.NBD(); h.connect_uri(os.environ[\"uri\"]); open(\"$work/got\", \"wb\").write(h.pread($E, $((some * E))))'" >out 2>err ||
      { cat err; fail "$name: serve --allow-damaged"; }
    cmp got <(expect "$some") || fail "$name: extent $some served by --allow-damaged differs"
    grep -q "^zxblk: note: presenting web01 snapshot 3 although $said" err || { cat err; fail "$name: serve said nothing"; }
  fi
  if [ -n "$fuse" ]; then
    mkdir mnt
    rc=0; t "$zxblk" mount --store s --disk web01 --cache cache4 mnt >out 2>err || rc=$?
    [ $rc = 1 ] && ! mountpoint -q "$work/mnt" || { cat err; fail "$name: mount exited $rc or mounted"; }
    one_line err "$name: mount"; grep -q "^zxblk: web01 $said" err || { cat err; fail "$name: mount did not say it"; }
    t "$zxblk" mount --store s --disk web01 --cache cache5 --allow-damaged mnt >out 2>err || { cat err; fail "$name: mount --allow-damaged"; }
    mounts+=("$work/mnt")
    cmp <(dd if=mnt/disk.raw bs=$E skip="$some" count=1 status=none) <(expect "$some") || fail "$name: mounted extent differs"
    fusermount3 -u mnt; mounts=()
  fi
  # Every extent the children hold whole reads without the base.
  for e in "${held[@]}"; do
    t "$zxblk" read --store s --disk web01 --cache cache6 --allow-damaged --offset $((e * E)) --length $E >got 2>err ||
      { cat err; fail "$name: extent $e with --allow-damaged"; }
    cmp got <(expect "$e") || fail "$name: extent $e differs with --allow-damaged"
    one_line err "$name: read --allow-damaged"
    grep -q "^zxblk: note: presenting web01 snapshot 3 although $said" err || { cat err; fail "$name: no notice"; }
  done
  ok "$name base: refused in one line ($(cut -c1-110 refused)...), ${#held[@]} extents the children hold whole read with --allow-damaged"
done

# One flipped byte in a block of the base: export stops in one line with the cause.
rm -rf s; cp -a clean s
at=$(python3 vhd.py byte 0 100 s/snapshots/web01-snap0.vhd)
printf '\xff' | dd of=s/snapshots/web01-snap0.vhd bs=1 seek="$at" conv=notrunc status=none
cmp -s s/snapshots/web01-snap0.vhd clean/snapshots/web01-snap0.vhd && fail "the byte was 0xff already"
rc=0; t "$zxblk" export --store s --disk web01 --cache cache7 --out x.raw >out 2>err || rc=$?
[ $rc = 1 ] || { cat err; fail "flipped byte: export exited $rc"; }
one_line err "flipped byte: export"
grep -q "^zxblk: export of web01 snapshot 3 failed: .*snapshots/web01-snap0.vhd: block 0: checksum mismatch" err ||
  { cat err; fail "flipped byte: the cause is not named"; }
# The library's own lines on the way come with -v only.
t "$zxblk" export -v --store s --disk web01 --cache cache8 --out x.raw >out 2>err && fail "flipped byte: export -v"
[ "$(wc -l <err)" -gt 1 ] && tail -1 err | grep -q "checksum mismatch" || { cat err; fail "flipped byte: export -v"; }
ok "flipped byte: one line without -v, the log with it: $(tail -1 err | cut -c1-120)..."
