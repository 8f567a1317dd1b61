#!/usr/bin/env bash
# zxblk mount as a user drives it: byte-exact reads of a differencing chain,
# files out of an ext4 snapshot, parallel readers, a tiny cache, a restart
# that reuses the cache, an unreadable snapshot, and the control file with
# the index rows it produces.
set -euo pipefail
zxblk=$1 chain=$2
if [ ! -e /dev/fuse ] || ! command -v fusermount3 >/dev/null; then
  echo "skipped: no /dev/fuse or fusermount3 on this machine"
  exit 77
fi
work=$(mktemp -d)
mounts=()
cleanup() {
  for m in "${mounts[@]}"; do fusermount3 -u "$m" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*"; exit 1; }
ok() { echo "ok: $*"; }
mounted() { [ "$(stat -f -c %T "$1" 2>/dev/null)" = fuseblk ] || grep -q " $1 fuse" /proc/mounts; }
mount_disk() {  # mountpoint, extra arguments...
  local m=$1
  shift
  mkdir -p "$m"
  "$zxblk" mount --store "$work/store" "$@" "$m" >/dev/null
  for _ in $(seq 100); do mounted "$m" && break; sleep 0.1; done
  mounted "$m" || fail "$m did not mount"
  mounts+=("$m")
}
unmount() {
  fusermount3 -u "$1"
  for _ in $(seq 100); do mounted "$1" || return 0; sleep 0.1; done
  fail "$1 did not unmount"
}
stat_of() { awk -v k="$2" '$1 == k { print $2 }' "$1/.stats"; }

# A differencing chain, byte-exact through the mount.
mkdir -p "$work/chain"
"$chain" "$work/chain" $((24 * 1048576 + 37 * 512)) 524288 2 41 >/dev/null
"$zxblk" import --store "$work/store" --disk chain "$work/chain/snap0.vhd" "$work/chain/snap1.vhd" "$work/chain/snap2.vhd" >/dev/null
mount_disk "$work/m1" --disk chain --cache "$work/cache1"
[ "$(stat -c %s "$work/m1/disk.raw")" = "$(stat -c %s "$work/chain/snap2.raw")" ] || fail "disk.raw has the wrong size"
cmp "$work/m1/disk.raw" "$work/chain/snap2.raw" || fail "disk.raw differs from the merged chain"
ok "disk.raw of a differencing chain equals the merged image"
if "$zxblk" mount --store "$work/store" --disk chain --cache "$work/cache1" "$work/m1b" 2>"$work/err"; then fail "a second mount of one cache"; fi
mkdir -p "$work/m1b"
grep -q "in use by another zxblk mount" "$work/err" || { cat "$work/err"; fail "second mount: unclear refusal"; }
ok "a second mount of the same cache is refused: $(tail -n 1 "$work/err")"
jobs1=$(stat_of "$work/m1" restore_jobs)
unmount "$work/m1"

# A restart reuses the cache: nothing is recalled again.
mount_disk "$work/m1" --disk chain --cache "$work/cache1"
cmp "$work/m1/disk.raw" "$work/chain/snap2.raw" || fail "disk.raw differs after a restart"
[ "$(stat_of "$work/m1" restore_jobs)" = 0 ] || fail "the restart recalled extents again ($(stat_of "$work/m1" restore_jobs))"
ok "a restart reads all $((jobs1)) recalled extents from the cache, recalling none"
unmount "$work/m1"

# Four readers at once, on a fresh cache.
mount_disk "$work/m2" --disk chain --snapshot 1 --cache "$work/cache2"
for i in 0 1 2 3; do
  (dd if="$work/m2/disk.raw" of="$work/part$i" bs=65536 skip=$((i * 90)) count=90 status=none) &
done
wait
for i in 0 1 2 3; do
  cmp "$work/part$i" <(dd if="$work/chain/snap1.raw" bs=65536 skip=$((i * 90)) count=90 status=none) || fail "reader $i got wrong bytes"
done
ok "four parallel readers get the right bytes"
unmount "$work/m2"

# A cache of four extents on a disk of hundreds.
"$zxblk" import --store "$work/store" --disk small --extent-size 65536 "$work/chain/snap0.vhd" "$work/chain/snap1.vhd" >/dev/null
mount_disk "$work/m3" --disk small --cache "$work/cache3" --cache-limit 256K
cmp "$work/m3/disk.raw" "$work/chain/snap1.raw" || fail "small cache: wrong bytes"
[ "$(stat_of "$work/m3" cache_bytes)" -le 262144 ] || fail "the cache grew past its limit"
[ "$(stat_of "$work/m3" evictions)" -gt 300 ] || fail "no evictions with a tiny cache"
ok "a 4-extent cache on a $(($(stat -c %s "$work/m3/disk.raw") / 65536))-extent disk stays exact ($(stat_of "$work/m3" evictions) evictions)"
unmount "$work/m3"

# The control file and the index: mount extents, then metadata extents; an
# extent recalled twice is reported twice.
mount_disk "$work/m4" --disk small --snapshot 1 --cache "$work/cache4" --cache-limit 128K --flush-threshold 1000
for e in 0 1 2 0; do dd if="$work/m4/disk.raw" bs=65536 skip=$e count=1 status=none >/dev/null; done
echo mount-complete >"$work/m4/.control"
echo metadata-begin >"$work/m4/.control"
for e in 100 101; do dd if="$work/m4/disk.raw" bs=65536 skip=$e count=1 status=none >/dev/null; done
echo metadata-end >"$work/m4/.control"
if echo bogus >"$work/m4/.control" 2>/dev/null; then fail "an unknown control line was accepted"; fi
"$zxblk" index --store "$work/store" --disk small >"$work/index"
grep -qE "^1 +mount +0 +2 " "$work/index" || { cat "$work/index"; fail "extent 0: expected two mount reports"; }
grep -qE "^1 +mount +1 +1 " "$work/index" || fail "extent 1 is not a mount extent"
grep -qE "^1 +mount +2 +1 " "$work/index" || fail "extent 2 is not a mount extent"
grep -qE "^1 +metadata +100 +1 " "$work/index" || fail "extent 100 is not a metadata extent"
grep -qE "^1 +metadata +101 +1 " "$work/index" || fail "extent 101 is not a metadata extent"
grep -q "^5 extents flagged" "$work/index" || { cat "$work/index"; fail "unexpected rows"; }
ok "the control file drives the phases; the index holds 3 mount and 2 metadata extents"
unmount "$work/m4"

# --prefetch recalls the flagged mount extents before anyone reads.
mount_disk "$work/m4" --disk small --snapshot 1 --cache "$work/cache5" --prefetch
for _ in $(seq 50); do [ "$(stat_of "$work/m4" cache_extents)" -ge 3 ] && break; sleep 0.1; done
[ "$(stat_of "$work/m4" cache_extents)" -ge 3 ] || fail "prefetch recalled nothing"
ok "--prefetch made the $(stat_of "$work/m4" cache_extents) flagged mount extents local"
unmount "$work/m4"

# An ext4 snapshot: files read with debugfs through the mount.
mkdir -p "$work/fs/dir"
head -c 3000000 /dev/urandom >"$work/fs/dir/a.bin"
echo "hello from a backed-up disk" >"$work/fs/hello.txt"
mke2fs -q -F -t ext4 -d "$work/fs" "$work/fs.img" 64M
qemu-img convert -q -f raw -O vpc -o force_size=on "$work/fs.img" "$work/fs.vhd"
"$zxblk" import --store "$work/store" --disk fs "$work/fs.vhd" >/dev/null
mount_disk "$work/m5" --disk fs --cache "$work/cache6"
debugfs -R "dump /dir/a.bin $work/a.out" "$work/m5/disk.raw" 2>/dev/null
cmp "$work/a.out" "$work/fs/dir/a.bin" || fail "debugfs read a wrong file"
[ "$(debugfs -R 'cat /hello.txt' "$work/m5/disk.raw" 2>/dev/null)" = "hello from a backed-up disk" ] || fail "hello.txt"
ok "debugfs reads files out of the mounted ext4 snapshot ($(stat_of "$work/m5" extents_recalled) of 64 extents recalled)"
unmount "$work/m5"

# An unreadable snapshot file: the reader gets EIO for what is lost, the rest
# still reads, and the mount survives.
head -c $((8 * 1048576)) /dev/urandom >"$work/r.raw"
"$zxblk" import --store "$work/store" --disk cut "$work/r.raw" >/dev/null
truncate -s $((4 * 1048576)) "$work/store/snapshots/cut-snap0.raw"
mount_disk "$work/m6" --disk cut --cache "$work/cache7"
if dd if="$work/m6/disk.raw" of=/dev/null bs=1M skip=6 count=1 status=none 2>"$work/err"; then fail "a lost extent read without error"; fi
grep -q "Input/output error" "$work/err" || { cat "$work/err"; fail "not EIO"; }
cmp <(dd if="$work/m6/disk.raw" bs=1M count=4 status=none) <(head -c $((4 * 1048576)) "$work/r.raw") || fail "the intact extents"
mounted "$work/m6" || fail "the mount died"
ok "a cut snapshot file gives EIO past its end and the first 4 MiB still read"
unmount "$work/m6"

# SIGTERM unmounts a foreground mount cleanly.
mkdir -p "$work/m7"
"$zxblk" mount --store "$work/store" --disk fs --cache "$work/cache6" -f "$work/m7" >/dev/null 2>&1 &
pid=$!
for _ in $(seq 100); do mounted "$work/m7" && break; sleep 0.1; done
mounted "$work/m7" || fail "foreground mount did not come up"
kill -TERM $pid
wait $pid || fail "the mount exited with an error after SIGTERM"
mounted "$work/m7" && fail "still mounted after SIGTERM"
ok "SIGTERM unmounts cleanly"
