#!/usr/bin/env bash
# Export and import stopped by a signal part way. SIGINT and SIGTERM of an
# export at about 10%, 50% and 90% of it: exit 128 + the signal, one line on
# stderr, no temporary left and the file already at the target untouched.
# SIGKILL: the temporary stays, and the next export to the same target
# removes it, says so, and writes the whole disk. SIGINT of an import half
# way: the catalog and the snapshot files are as they were, nothing staged.
set -euo pipefail
zxblk=$1
work=$(mktemp -d)
trap 'for p in $(jobs -p); do kill -9 "$p"; done; wait; rm -rf "$work"' EXIT
export ASAN_OPTIONS=${ASAN_OPTIONS:-}:detect_leaks=1 TMPDIR=$work/tmp
fail() { echo "FAIL: $*"; exit 1; }
mkdir "$work/out" "$work/tmp"
store=$work/store out=$work/out/web.raw

# Random bytes, all of it data: the temporary's allocated size is how far an
# export has got.
head -c $((256 << 20)) /dev/urandom >"$work/disk.raw"
timeout 120 "$zxblk" import --store "$store" --disk web --format raw "$work/disk.raw" >/dev/null
n=0
# Each export with a cache of its own: a killed one leaves its cache behind.
export_web() { n=$((n + 1)); echo "$zxblk" export --store "$store" --disk web --cache "$work/cache$n" --out "$out"; }
allocated() { echo $(($(stat -c '%b * %B' "$1" 2>/dev/null || echo 0))); }
temps() { (cd "$work/out" && shopt -s nullglob dotglob && echo .web.raw.zxblk-*); }

# Starts `$@` in the background as $pid and returns once the file that
# `watch` names holds $1% of $2 bytes.
start_until() {
  local pct=$1 bytes=$2 f; shift 2
  "$@" >/dev/null 2>"$work/err" & pid=$!
  for _ in $(seq 6000); do
    f=$(watch)
    [ -n "$f" ] && [ "$(allocated "$f")" -ge $((bytes * pct / 100)) ] && return 0
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
watch() { t=$(temps); [ -z "$t" ] || echo "$work/out/${t%% *}"; }
for sig in INT TERM KILL; do
  for pct in 10 50 90; do
    cp "$work/before" "$out"
    start_until $pct "$full" $(export_web)
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

# An import stopped half way leaves the store as it was.
cp "$store/catalog.json" "$work/catalog.before"
listing() { (cd "$store" && find . -path ./.lock -prune -o -print | sort && ls -l snapshots sums); }
listing >"$work/listing.before"
watch() { echo "$store/snapshots/big-snap0.raw.partial"; }
start_until 50 $((256 << 20)) "$zxblk" import --store "$store" --disk big --format raw "$work/disk.raw"
kill -INT $pid
finish
[ $rc = 130 ] || fail "import after SIGINT: exit $rc: $(cat "$work/err")"
[ "$(cat "$work/err")" = "zxblk: import into $store stopped by SIGINT; nothing imported" ] ||
  fail "import after SIGINT: stderr: $(cat "$work/err")"
cmp "$store/catalog.json" "$work/catalog.before" || fail "import after SIGINT changed the catalog"
listing | diff "$work/listing.before" - || fail "import after SIGINT changed the store's files"
[ -z "$(ls -A "$work/tmp")" ] || fail "import after SIGINT left $(ls -A "$work/tmp") in TMPDIR"
echo "ok: SIGINT half way through an import leaves the store as it was"
