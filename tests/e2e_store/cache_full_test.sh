#!/usr/bin/env bash
# The extent cache on a file system of a few MiB (a tmpfs in a mount
# namespace of the test's own), read by several sequential NBD readers with
# readahead on. Readers never fail while the cache holds something it can
# let go: every byte each reader got equals the merged image and the server
# counts no read error. With 3 MiB free readahead gives way; once space is
# back it resumes. On a file system smaller than an extent a read fails in
# one line that says the cache's file system is full.
#   cache_full_test.sh ZXBLK MAKE_VHD_CHAIN
set -euo pipefail
zxblk=$(realpath "$1") chain=$(realpath "$2")
# Unprivileged where the kernel allows user namespaces, else as root.
if [ "${CACHE_FULL_IN_NS:-}" != 1 ]; then
  for ns in "unshare -rm" "unshare -m"; do
    $ns true 2>/dev/null && CACHE_FULL_IN_NS=1 exec $ns "$0" "$@"
  done
  echo "skipped: no private mount namespace (unshare -rm or -m) to mount a small tmpfs in"
  exit 77
fi
work=$(mktemp -d)
cleanup() {
  for m in "$work"/fs*; do umount "$m" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT
cd "$work"
fail() { echo "FAIL: $*"; tail -n 5 err 2>/dev/null; exit 1; }
ok() { echo "ok: $*"; }
smallfs() { mkdir "$1" && mount -t tmpfs -o "size=$2" tmpfs "$1" ||
  { echo "skipped: cannot mount a tmpfs here"; exit 77; }; }
stat_of() { awk -v k="$2" '$1 == k { print $2 }' "$1"; }
command -v nbdcopy >/dev/null || { echo "skipped: nbdcopy (libnbd-bin) is not installed"; exit 77; }
command -v nbdkit >/dev/null || { echo "skipped: nbdkit is not installed"; exit 77; }

# 32 MiB in extents of 1 MiB, a base and two differencing children.
mkdir c
"$chain" c $((32 << 20)) $((2 << 20)) 2 7 >/dev/null
"$zxblk" import --store st --disk d --extent-size 1M c/snap{0,1,2}.vhd >/dev/null

# The --run script: READERS sequential readers of the whole disk at once,
# each to rPASS-N.raw; with a ballast file, the stats as they stand are kept
# (stats-1) and the ballast goes before a second pass.
cat >readers.sh <<'SH'
n=$1 ballast=$2
pass() {
  pids=
  for i in $(seq "$n"); do
    nbdcopy --connections=1 --requests=1 --request-size=131072 "$uri" "r$1-$i.raw" & pids="$pids $!"
  done
  s=0; for p in $pids; do wait "$p" || s=1; done
  return $s
}
pass 1 || exit 1
[ -f "$ballast" ] || exit 0
sleep 1.5; cp stats stats-1
rm "$ballast"
pass 2
SH

# fs size, ballast (MiB), readers, extra serve options, what the row shows
while IFS='|' read -r size ballast readers opts what; do
  rm -f r*.raw stats stats-1
  fs=fs$size-$readers
  smallfs "$fs" "$size"
  [ "$ballast" = 0 ] || head -c $((ballast << 20)) /dev/zero >"$fs/ballast"
  # shellcheck disable=SC2086
  timeout 300 "$zxblk" serve --store st --disk d --cache "$fs/cache" --readahead 8M $opts --stats stats \
    --log-file "$work/serve.log" --run "sh $work/readers.sh $readers $fs/ballast" >out 2>err ||
    fail "$what: a reader failed"
  for r in r*.raw; do cmp -s "$r" c/snap2.raw || fail "$what: $r differs from the merged image"; done
  [ "$(stat_of stats read_errors)" = 0 ] || fail "$what: $(stat_of stats read_errors) read errors"
  ahead=$(stat_of stats extents_read_ahead)
  if [ -f stats-1 ]; then
    [ "$ahead" -gt "$(stat_of stats-1 extents_read_ahead)" ] ||
      fail "$what: readahead did not resume once the ballast went ($ahead extents)"
  else
    [ "$ahead" -gt 0 ] || fail "$what: nothing was read ahead"
  fi
  ok "$what: $(ls r*.raw | wc -l) reads byte-exact, no read error, $ahead extents read ahead"
done <<'ROWS'
16m|13|2||3 MiB free, 2 readers, then the ballast goes
20m|0|4|--cache-limit 1G|a limit above the file system, 4 readers
ROWS

# Smaller than one extent: nothing can be evicted, and the reader hears why.
smallfs fs1 1m
if "$zxblk" read --store st --disk d --cache fs1/cache --offset 0 --length 4K >/dev/null 2>err; then
  fail "a read through a cache smaller than an extent succeeded"
fi
[ "$(wc -l <err)" = 1 ] || fail "a full cache's error is $(wc -l <err) lines"
grep -q "cache file system full: [0-9]* bytes free at $work/fs1/cache" err || fail "no 'cache file system full' in: $(cat err)"
ok "a cache smaller than an extent: $(cat err)"
