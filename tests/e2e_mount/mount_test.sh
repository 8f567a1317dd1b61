#!/usr/bin/env bash
# zxblk mount as a user drives it: byte-exact reads of a differencing chain,
# relative paths, one mount per cache, a restart that reuses the cache and a
# new snapshot that drops it, parallel readers, a tiny cache, an unreadable
# snapshot, the control file with the index rows it produces, prefetch, and
# a clean end on SIGTERM.
#   mount_test.sh ZXBLK MAKE_VHD_CHAIN
set -euo pipefail
zxblk=$1 chain=$2
source "$(dirname "$0")/mount_common.sh"
mount_disk() {  # mountpoint, extra arguments...
  local m=$1
  shift
  mkdir -p "$m"
  t "$zxblk" mount --store "$work/store" "$@" "$m" >"$work/mount.out" || { cat "$work/mount.out"; fail "zxblk mount $*"; }
  mounted "$m" || fail "$m is not mounted after zxblk mount returned"
  mounts+=("$m")
}
stat_of() { awk -v k="$2" '$1 == k { print $2 }' "$1/.stats"; }
sql() { sqlite3 "$work/store/index.sqlite" "$1"; }

mkdir -p "$work/chain"
# Three snapshots of a disk whose size is not a multiple of the extent, in
# blocks half the extent; a fourth snapshot comes later.
"$chain" "$work/chain" $((24 * 1048576 + 37 * 512)) 524288 3 41 >/dev/null
"$zxblk" import --store "$work/store" --disk chain "$work/chain/snap0.vhd" "$work/chain/snap1.vhd" "$work/chain/snap2.vhd" >/dev/null

# The daemon: byte-exact through the mount; it returns only once mounted.
mount_disk "$work/m1" --disk chain --cache "$work/cache1"
[ "$(stat -c %s "$work/m1/disk.raw")" = "$(stat -c %s "$work/chain/snap2.raw")" ] || fail "disk.raw has the wrong size"
t cmp "$work/m1/disk.raw" "$work/chain/snap2.raw" || fail "disk.raw differs from the merged chain"
grep -q "^mounted chain snapshot 2 at $work/m1 " "$work/mount.out" || fail "mount line: $(cat "$work/mount.out")"
ok "disk.raw of a three-snapshot differencing chain equals the merged image"

mkdir -p "$work/m1b"
if t "$zxblk" mount --store "$work/store" --disk chain --cache "$work/cache1" "$work/m1b" 2>"$work/err"; then
  mounts+=("$work/m1b")
  fail "a second mount of one cache"
fi
grep -q "^zxblk: the extent cache $work/cache1 is in use by another zxblk process (pid [0-9]*, mounted on $work/m1); open the disk with a cache folder of its own (--cache DIR)$" "$work/err" ||
  { cat "$work/err"; fail "second mount: unclear refusal"; }
mounted "$work/m1b" && fail "the refused mount is mounted"
ok "a second mount of the same cache is refused in one line: $(cat "$work/err")"
jobs1=$(stat_of "$work/m1" restore_jobs)
[ "$jobs1" -gt 0 ] || fail "no recalls counted"
unmount "$work/m1"

# A restart reuses the cache: nothing is recalled again. Leftover
# temporary files of a crashed run are cleared first.
touch "$work/cache1/tmp/recall-leftover"
mount_disk "$work/m1" --disk chain --cache "$work/cache1"
[ -e "$work/cache1/tmp/recall-leftover" ] && fail "a leftover temporary file survived the start"
t cmp "$work/m1/disk.raw" "$work/chain/snap2.raw" || fail "disk.raw differs after a restart"
[ "$(stat_of "$work/m1" restore_jobs)" = 0 ] || fail "the restart recalled extents again ($(stat_of "$work/m1" restore_jobs))"
ok "a restart reads the disk from the cache: 0 recalls against $jobs1 the first time"
unmount "$work/m1"

# A new snapshot changes the disk's snapshot list: the cache is dropped.
"$zxblk" import --store "$work/store" --disk chain "$work/chain/snap3.vhd" >/dev/null
mount_disk "$work/m1" --disk chain --snapshot 2 --cache "$work/cache1"
t cmp "$work/m1/disk.raw" "$work/chain/snap2.raw" || fail "snapshot 2 differs after the import of snapshot 3"
[ "$(stat_of "$work/m1" restore_jobs)" -gt 0 ] || fail "the cache was served although the snapshot list changed"
unmount "$work/m1"
ok "a new snapshot of the disk drops the cache"

# Relative paths from another directory: the daemon serves from "/".
mkdir -p "$work/m-rel"
(cd "$work" && t "$zxblk" mount --store store --disk chain --cache cache-rel m-rel/ >/dev/null) || fail "relative paths"
mounts+=("$work/m-rel")
mounted "$work/m-rel" || fail "a mount given relative paths did not come up"
t cmp "$work/m-rel/disk.raw" "$work/chain/snap3.raw" || fail "relative paths: wrong bytes"
[ -s "$work/cache-rel/mount.log" ] || fail "the daemon keeps no log in its cache"
ok "relative paths work for the daemon, which logs to cache-rel/mount.log"
unmount "$work/m-rel"

# Four readers at once, each its own range, on a fresh cache.
mount_disk "$work/m2" --disk chain --snapshot 1 --cache "$work/cache2"
pids=()
for i in 0 1 2 3; do
  t dd if="$work/m2/disk.raw" of="$work/part$i" bs=65536 skip=$((i * 96)) count=96 status=none &
  pids+=($!)
done
for p in "${pids[@]}"; do wait "$p" || fail "a parallel reader failed"; done
for i in 0 1 2 3; do
  cmp "$work/part$i" <(dd if="$work/chain/snap1.raw" bs=65536 skip=$((i * 96)) count=96 status=none) ||
    fail "reader $i got wrong bytes"
done
[ "$(stat_of "$work/m2" read_errors)" = 0 ] || fail "read errors with parallel readers"
ok "four parallel readers get the right bytes"
unmount "$work/m2"

# A cache of four extents on a disk of hundreds, with readers in parallel.
"$zxblk" import --store "$work/store" --disk small --extent-size 65536 "$work/chain/snap0.vhd" "$work/chain/snap1.vhd" >/dev/null
mount_disk "$work/m3" --disk small --cache "$work/cache3" --cache-limit 256K
t cmp "$work/m3/disk.raw" "$work/chain/snap1.raw" || fail "small cache: wrong bytes"
for i in 0 1 2; do t cmp "$work/m3/disk.raw" "$work/chain/snap1.raw" & pids[$i]=$!; done
for i in 0 1 2; do wait "${pids[$i]}" || fail "small cache: a parallel reader got wrong bytes"; done
[ "$(stat_of "$work/m3" cache_bytes)" -le 262144 ] || fail "the cache grew past its limit"
# Every extent recalled beyond the four the cache holds made room by evicting one.
extents=$(($(stat -c %s "$work/m3/disk.raw") / 65536 + 1))
recalled=$(stat_of "$work/m3" extents_recalled)
[ "$recalled" -gt 4 ] && [ "$(stat_of "$work/m3" evictions)" -ge $((recalled - 4)) ] ||
  fail "too few evictions for a 4-extent cache ($recalled recalled)"
ok "a 4-extent cache on a $extents-extent disk stays exact ($(stat_of "$work/m3" evictions) evictions)"
unmount "$work/m3"

# The control file and the index, on a disk of one raw snapshot (each
# recall reports its extent once). Extent 0 is read, pushed out of a
# one-extent cache and read again: the index hears of it twice.
head -c $((8 * 1048576)) /dev/urandom >"$work/flat.raw"
"$zxblk" import --store "$work/store" --disk flat --format raw --extent-size 65536 "$work/flat.raw" >/dev/null
mount_disk "$work/m4" --disk flat --cache "$work/cache4" --cache-limit 64K --flush-threshold 1000
# Direct reads: no readahead, and no page cache hiding the second read.
read_extent() { t dd if="$work/m4/disk.raw" of=/dev/null bs=65536 skip="$1" count=1 iflag=direct status=none; }
for e in 0 1 2 0; do read_extent $e; done
# Nothing reported yet: the index has no rows (its table comes with the first report).
[ "$(sql "select count(*) from sqlite_master where name = 'extent_flags'")" = 0 ] || fail "rows before the mount completed"
echo mount-complete >"$work/m4/.control"
echo metadata-begin >"$work/m4/.control"
for e in 100 101; do read_extent $e; done
[ "$(sql "select count(*) from extent_flags where kind = 'metadata'")" = 0 ] || fail "metadata rows before the threshold or the end"
echo metadata-end >"$work/m4/.control"
if echo bogus >"$work/m4/.control" 2>"$work/err"; then fail "an unknown control line was accepted"; fi
grep -q "Invalid argument" "$work/err" || { cat "$work/err"; fail "an unknown control line: not EINVAL"; }
[ "$(stat_of "$work/m4" mount_complete)" = 1 ] || fail ".stats does not show the completed mount"
got=$(sql "select snapshot, kind, extent, reports from extent_flags where disk = 'flat' order by kind desc, extent" | tr '\n' ' ')
[ "$got" = "0|mount|0|2 0|mount|1|1 0|mount|2|1 0|metadata|100|1 0|metadata|101|1 " ] || fail "index rows: $got"
"$zxblk" index --store "$work/store" --disk flat >"$work/index"
grep -qE "^0 +mount +0 +2 " "$work/index" && grep -q "^5 extents flagged" "$work/index" || { cat "$work/index"; fail "zxblk index"; }
ok "the control file drives the phases; the index holds mount 0 (twice), 1, 2 and metadata 100, 101"
unmount "$work/m4"

# A low threshold sends metadata extents while the phase is still open.
mount_disk "$work/m4" --disk flat --cache "$work/cache4" --flush-threshold 1
echo mount-complete >"$work/m4/.control"
echo metadata-begin >"$work/m4/.control"
read_extent 120
[ "$(sql "select reports from extent_flags where extent = 120 and kind = 'metadata'")" = 1 ] || fail "threshold 1 did not send"
echo metadata-end >"$work/m4/.control"
ok "with --flush-threshold 1 each metadata extent reaches the index as it is recalled"
unmount "$work/m4"

# --prefetch recalls the flagged mount extents before anyone reads.
mount_disk "$work/m5" --disk flat --cache "$work/cache5" --prefetch
for _ in $(seq 100); do [ "$(stat_of "$work/m5" cache_extents)" -ge 3 ] && break; sleep 0.1; done
[ "$(stat_of "$work/m5" cache_extents)" = 3 ] || fail "prefetch made $(stat_of "$work/m5" cache_extents) extents local, not 3"
ok "--prefetch made the 3 flagged mount extents local"
unmount "$work/m5"

# An unreadable snapshot file: the reader gets EIO for what is lost, the
# rest still reads, and the mount survives.
head -c $((8 * 1048576)) /dev/urandom >"$work/r.raw"
"$zxblk" import --store "$work/store" --disk cut --format raw "$work/r.raw" >/dev/null
truncate -s $((4 * 1048576)) "$work/store/snapshots/cut-snap0.raw"
mount_disk "$work/m6" --disk cut --cache "$work/cache6"
if t dd if="$work/m6/disk.raw" of=/dev/null bs=1M skip=6 count=1 status=none 2>"$work/err"; then fail "a lost extent read without error"; fi
grep -q "Input/output error" "$work/err" || { cat "$work/err"; fail "not EIO"; }
t cmp <(dd if="$work/m6/disk.raw" bs=1M count=4 status=none) <(head -c $((4 * 1048576)) "$work/r.raw") || fail "the intact extents"
mounted "$work/m6" || fail "the mount died"
grep -q "read of .* failed: extent 6 of disk cut could not be recalled" "$work/cache6/mount.log" ||
  { cat "$work/cache6/mount.log"; fail "no log line for the failed read"; }
unmount "$work/m6"
# Once the process has stopped, no failed read has left a temporary file.
wait_stopped "$work/cache6"
[ -z "$(ls "$work/cache6/tmp")" ] || fail "a failed read left its temporary file in the cache"
ok "a cut snapshot file gives EIO past its end, the first 4 MiB still read, and the log says which extent"

# In the foreground, SIGTERM and SIGINT unmount cleanly and the process
# exits 0 (under the sanitizers, also without leaks).
for sig in TERM INT; do
  mkdir -p "$work/m7"
  "$zxblk" mount --store "$work/store" --disk chain --cache "$work/cache7" -f "$work/m7" >"$work/fg.out" 2>&1 &
  pid=$!
  for _ in $(seq 100); do mounted "$work/m7" && break; sleep 0.1; done
  mounted "$work/m7" || { cat "$work/fg.out"; fail "foreground mount did not come up"; }
  mounts+=("$work/m7")
  t cmp -n 3000000 "$work/m7/disk.raw" "$work/chain/snap3.raw" || fail "foreground mount: wrong bytes"
  kill -$sig $pid
  for _ in $(seq 300); do kill -0 $pid 2>/dev/null || break; sleep 0.1; done
  kill -0 $pid 2>/dev/null && { kill -KILL $pid; fail "the mount did not stop on SIG$sig"; }
  rc=0
  wait $pid || rc=$?
  [ $rc = 0 ] || { cat "$work/fg.out"; fail "the mount exited with $rc after SIG$sig"; }
  mounted "$work/m7" && fail "still mounted after SIG$sig"
done
ok "SIGTERM and SIGINT unmount a foreground mount cleanly"

# Killed mid-read: the cache is left marked dirty, and the next mount drops
# what it cannot trust (here an extent file damaged as a power loss could
# leave it) rather than serve it.
mkdir -p "$work/m8"
"$zxblk" mount --store "$work/store" --disk chain --cache "$work/cache8" -f "$work/m8" >"$work/k.out" 2>&1 &
pid=$!
mounts+=("$work/m8")
for _ in $(seq 100); do mounted "$work/m8" && break; sleep 0.1; done
t dd if="$work/m8/disk.raw" of=/dev/null bs=1M count=6 status=none || fail "first reads before the kill"
t cat "$work/m8/disk.raw" >/dev/null 2>&1 &
sleep 0.3
kill -KILL $pid
wait $pid 2>/dev/null || true
fusermount3 -u "$work/m8" 2>/dev/null || fusermount3 -uz "$work/m8"
wait || true
[ -e "$work/cache8/dirty" ] || fail "a killed mount left no dirty mark"
damaged=$(find "$work/cache8/extents" -name '*.ext' | head -1)
[ -n "$damaged" ] || fail "the killed mount left no extents to check"
dd if=/dev/zero of="$damaged" bs=4096 count=1 conv=notrunc status=none
mount_disk "$work/m8" --disk chain --cache "$work/cache8" 2>"$work/m8.err"
t cmp "$work/m8/disk.raw" "$work/chain/snap3.raw" || fail "after SIGKILL and a remount: wrong bytes"
grep -q "cache8 was not closed cleanly; its extents were dropped" "$work/m8.err" || fail "no word of the dropped cache"
unmount "$work/m8"
wait_stopped "$work/cache8"
[ -e "$work/cache8/dirty" ] && fail "a clean stop left the dirty mark"
ok "after SIGKILL mid-read the remount drops the untrusted cache and reads every byte right"

# A cache on a small file system that another writer fills: the mount
# evicts its own extents to make room instead of failing reads.
mkdir -p "$work/small"
if mount -t tmpfs -o size=16m zxblk-test "$work/small" 2>/dev/null; then
  trap 'umount -l "$work/small" 2>/dev/null || true; cleanup' EXIT
  head -c $((48 * 1048576)) /dev/urandom >"$work/big.raw"
  "$zxblk" import --store "$work/store" --disk big --format raw "$work/big.raw" >/dev/null
  mount_disk "$work/m9" --disk big --cache "$work/small/cache" --cache-limit 1G
  t cmp -n $((8 * 1048576)) "$work/m9/disk.raw" "$work/big.raw" || fail "small file system: the first 8 MiB"
  for i in $(seq 64); do head -c 1048576 /dev/zero >"$work/small/filler$i" 2>/dev/null || break; done
  [ "$(df --output=avail -B1M "$work/small" | tail -1)" -le 1 ] || fail "the filler did not fill the file system"
  t cmp "$work/m9/disk.raw" "$work/big.raw" || fail "a 48 MiB disk through a full 16 MiB cache file system: wrong bytes"
  [ "$(stat_of "$work/m9" read_errors)" = 0 ] || fail "read errors on a full cache file system"
  ok "a 48 MiB disk reads right through a cache on a 16 MiB file system that another writer filled ($(stat_of "$work/m9" evictions) evictions)"
  unmount "$work/m9"
  wait_stopped "$work/small/cache"
  umount "$work/small"
else
  echo "skipped: a cache on a small full file system (cannot mount a tmpfs here)"
fi
