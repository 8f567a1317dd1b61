#!/usr/bin/env bash
# Export and import stopped by a signal part way. SIGINT and SIGTERM of an
# export at about 10%, 50% and 90% of it: exit 128 + the signal, one line on
# stderr, no temporary left and the file already at the target untouched.
# SIGKILL: the temporary stays, and the next export to the same target
# removes it, says so, and writes the whole disk. SIGINT of an import half
# way: the catalog and the snapshot files are as they were, nothing staged;
# on S3 (where Ceph is installed) no upload left open and no object added.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
zxblk=$1
work=$(mktemp -d)
cleanup() {
  for p in $(jobs -p); do kill -9 "$p"; done
  wait
  [ -d "$work/ceph" ] && "$here/../s3/ceph_down.sh" "$work/ceph" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
export ASAN_OPTIONS=${ASAN_OPTIONS:-}:detect_leaks=1 TMPDIR=$work/tmp
fail() { echo "FAIL: $*"; exit 1; }
mkdir "$work/out" "$work/tmp"
store=$work/store out=$work/out/web.raw

# Random bytes, all of it data: the allocated size of what is being written
# is how far an export or a folder import has got. Extents of 64 KiB: the
# extents recalled ahead hold little of the disk, and the end of an export
# is not over before a signal sent at 90% reaches it.
head -c $((128 << 20)) /dev/urandom >"$work/disk.raw"
timeout 120 "$zxblk" import --store "$store" --disk web --format raw --extent-size 64K "$work/disk.raw" >/dev/null
n=0
# Each export with a cache of its own: a killed one leaves its cache behind.
export_web() { n=$((n + 1)); echo "$zxblk" export --store "$store" --disk web --cache "$work/cache$n" --out "$out"; }
allocated() { echo $(($(stat -c '%b * %B' "$1" 2>/dev/null || echo 0))); }
temps() { (cd "$work/out" && shopt -s nullglob dotglob && echo .web.raw.zxblk-*); }

# Starts `$@` in the background as $pid and returns once `done_pct` says
# it has done $1%.
start_until() {
  local pct=$1; shift
  "$@" >/dev/null 2>"$work/err" & pid=$!
  for _ in $(seq 6000); do
    [ "$(done_pct)" -ge "$pct" ] && return 0
    kill -0 $pid 2>/dev/null || fail "$* ended before ${pct}% of it: $(cat "$work/err")"
    sleep 0.01
  done
  fail "$* did not get to ${pct}%"
}
# Waits for $pid (at most a minute) and sets rc to its exit status.
finish() {
  for _ in $(seq 600); do kill -0 $pid 2>/dev/null || break; sleep 0.1; done
  kill -0 $pid 2>/dev/null && fail "still running a minute after the signal"
  rc=0; { wait $pid; } 2>/dev/null || rc=$?
}

timeout 120 $(export_web) >/dev/null
cmp "$out" "$work/disk.raw" || fail "export differs from the disk"
full=$(allocated "$out")
echo "an image that was here before" >"$work/before"
done_pct() { t=$(temps); [ -z "$t" ] && echo 0 || echo $(($(allocated "$work/out/${t%% *}") * 100 / full)); }
for sig in INT TERM KILL; do
  for pct in 10 50 90; do
    cp "$work/before" "$out"
    start_until $pct $(export_web)
    left=$(temps)
    kill -$sig $pid
    finish
    cmp -s "$out" "$work/before" || fail "SIG$sig at $pct%: the file at the target changed"
    if [ $sig = KILL ]; then
      [ $rc = 137 ] && [ -n "$left" ] && [ "$(temps)" = "$left" ] || fail "SIGKILL at $pct%: rc $rc, left '$(temps)'"
      timeout 120 $(export_web) >/dev/null 2>"$work/err" || fail "export after SIGKILL: $(cat "$work/err")"
      grep -qxF "zxblk: note: removed a leftover of a killed export: $work/out/$left (process $pid is gone)" \
        "$work/err" || fail "SIGKILL at $pct%: the next export did not say it removed $left: $(cat "$work/err")"
      [ -z "$(temps)" ] && cmp "$out" "$work/disk.raw" || fail "export after SIGKILL at $pct%: '$(temps)' left or differs"
    else
      want=$([ $sig = INT ] && echo 130 || echo 143)
      [ $rc = "$want" ] || fail "SIG$sig at $pct%: exit $rc, not $want: $(cat "$work/err")"
      [ "$(cat "$work/err")" = "zxblk: export of web stopped by SIG$sig; nothing written to $out" ] ||
        fail "SIG$sig at $pct%: stderr: $(cat "$work/err")"
      [ -z "$(temps)" ] || fail "SIG$sig at $pct%: left $(temps)"
    fi
    echo "ok: SIG$sig at $pct% of an export"
  done
done

# SIGINT at $2% of an import into store $1: exit 130 and its one line last.
cat "$work/disk.raw" "$work/disk.raw" "$work/disk.raw" >"$work/big.raw"
import_half() {
  start_until $2 "$zxblk" import -p --store "$1" --disk big --format raw "$work/big.raw"
  kill -INT $pid
  finish
  [ $rc = 130 ] || fail "import into $1 after SIGINT: exit $rc: $(cat "$work/err")"
  [ "$(tail -n 1 "$work/err")" = "zxblk: import into $1 stopped by SIGINT; nothing imported" ] ||
    fail "import into $1 after SIGINT: stderr: $(cat "$work/err")"
  [ -z "$(ls -A "$work/tmp")" ] || fail "import into $1 after SIGINT left $(ls -A "$work/tmp") in TMPDIR"
}
cp "$store/catalog.json" "$work/catalog.before"
listing() { (cd "$store" && find . -path ./.lock -prune -o -print | sort && ls -l snapshots sums); }
listing >"$work/listing.before"
done_pct() { echo $(($(allocated "$store/snapshots/big-snap0.raw.partial") * 100 / (384 << 20))); }
import_half "$store" 50
cmp "$store/catalog.json" "$work/catalog.before" || fail "import after SIGINT changed the catalog"
listing | diff "$work/listing.before" - || fail "import after SIGINT changed the store's files"
echo "ok: SIGINT half way through an import leaves the store as it was"

rc=0
"$here/../s3/ceph_up.sh" "$work/ceph" >"$work/up.log" 2>&1 || rc=$?
[ $rc = 77 ] && { echo "skipped the S3 import: $(cat "$work/up.log")"; exit 0; }
[ $rc = 0 ] || fail "ceph_up.sh: exit $rc: $(cat "$work/up.log")"
# Killed outright (ctest's timeout), this script runs no trap: a watchdog
# that init adopts then stops the cluster.
(setsid bash -c 'while kill -0 "$0" 2>/dev/null; do sleep 1; done; "$1" "$2"; rm -rf "$3"' \
  $$ "$here/../s3/ceph_down.sh" "$work/ceph" "$work" </dev/null >/dev/null 2>&1 &)
set -a; . "$work/ceph/env"; set +a
unset AWS_PROFILE AWS_DEFAULT_PROFILE AWS_SESSION_TOKEN AWS_DEFAULT_REGION AWS_ENDPOINT_URL_S3
export AWS_SHARED_CREDENTIALS_FILE=$work/no-credentials AWS_CONFIG_FILE=$work/no-config
s3curl() {
  curl -sS --fail-with-body --aws-sigv4 "aws:amz:$AWS_REGION:s3" --user "$AWS_ACCESS_KEY_ID:$AWS_SECRET_ACCESS_KEY" \
    -H "x-amz-content-sha256: UNSIGNED-PAYLOAD" "$@"
}
s3curl -o /dev/null -X PUT "$AWS_ENDPOINT_URL/signals"
# Nothing local to watch: the progress lines (five a second) say how far it got.
done_pct() { grep -o '([0-9]*%)' "$work/err" | tail -n 1 | tr -d '(%)' | grep . || echo 0; }
import_half s3://signals/store 25
s3curl "$AWS_ENDPOINT_URL/signals?uploads=" | grep -q "<Upload>" && fail "SIGINT of an import left an S3 upload open"
s3curl "$AWS_ENDPOINT_URL/signals?list-type=2" | grep -q "<Key>" && fail "SIGINT of an import left objects on S3"
echo "ok: SIGINT part way through an import to S3 leaves no upload open and no object"
