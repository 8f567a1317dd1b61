#!/usr/bin/env bash
# Damaged and mismatched images are refused with one clear line, and the
# store is left exactly as it was; an image whose one footer copy is damaged
# is read through the other. A snapshot damaged or swapped after import makes
# an export fail cleanly.
set -euo pipefail
zxblk=$1 chain=$2 tamper=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*"; exit 1; }
state() { (cd "$work/store" && sha256sum catalog.json && ls -la snapshots | awk '{print $5, $9}'); }

"$chain" "$work" $((8 * 1048576)) 1048576 2 31 >/dev/null
mkdir -p "$work/other"
"$chain" "$work/other" $((8 * 1048576)) 1048576 1 32 >/dev/null
"$zxblk" import --store "$work/store" --disk base "$work/snap0.vhd" >/dev/null
before=$(state)

expect_refused() {  # description, expected text, import arguments...
  local what=$1 text=$2
  shift 2
  if "$zxblk" import --store "$work/store" "$@" 2>"$work/err" >/dev/null; then fail "$what was imported"; fi
  [ "$(wc -l <"$work/err")" -eq 1 ] || { cat "$work/err"; fail "$what: not one line"; }
  grep -q -- "$text" "$work/err" || { cat "$work/err"; fail "$what: message lacks '$text'"; }
  [ "$(state)" = "$before" ] || fail "$what changed the store"
  echo "ok: $what -> $(cat "$work/err")"
}

for mode in checksum checksum-both head-zero tail-size bat-past overlap blocksize truncate; do
  python3 "$tamper" "$mode" "$work/snap0.vhd" "$work/bad-$mode.vhd"
done
expect_refused "flipped byte in both footer copies" "footer checksum" --disk d1 "$work/bad-checksum-both.vhd"
expect_refused "current size edited at the end only" "footer copy at offset 0: current size" --disk d1 "$work/bad-tail-size.vhd"
expect_refused "block past the end" "runs past the end of the file" --disk d2 "$work/bad-bat-past.vhd"
expect_refused "overlapping blocks" "overlaps" --disk d3 "$work/bad-overlap.vhd"
expect_refused "block size not a power of two" "block size" --disk d4 "$work/bad-blocksize.vhd"
expect_refused "truncated file" "bad-truncate.vhd" --disk d5 "$work/bad-truncate.vhd"
python3 "$tamper" parent "$work/snap1.vhd" "$work/bad-parent.vhd"
expect_refused "child of another parent" "parent unique id" --disk base "$work/bad-parent.vhd"
expect_refused "child of another chain" "parent unique id" --disk base "$work/other/snap1.vhd"
expect_refused "chain whose second child is foreign" "parent unique id" --disk base "$work/snap1.vhd" "$work/other/snap1.vhd"
expect_refused "base imported again" "snap0.vhd: already imported as snapshot 0 of disk base" --disk base "$work/snap0.vhd"
: >"$work/empty.raw"
expect_refused "raw file of zero bytes" "empty image" --disk d6 --format raw "$work/empty.raw"
head -c 1000 /dev/urandom >"$work/odd.raw"
expect_refused "raw file of a partial sector" "whole number" --disk d7 --format raw "$work/odd.raw"
expect_refused "differencing image without its parent" "parent imported first" --disk d8 "$work/snap1.vhd"
expect_refused "bad disk name" "disk name" --disk "../x" "$work/snap0.vhd"

# Tables that claim far more than the file holds are refused at once, in
# memory that does not grow with the table (measured against a refusal that
# reads nothing, as the sanitizers' own share is large).
python3 "$tamper" huge-zero-table "$work/snap0.vhd" "$work/huge-zero.vhd"
python3 "$tamper" huge-same-block "$work/snap0.vhd" "$work/huge-same.vhd"
peak_kib() {  # the command's peak resident memory; killed past 512 MiB so a regression cannot take the machine down
  python3 - "$@" <<'PY'
import resource, subprocess, sys, time
child = subprocess.Popen(sys.argv[1:], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
while child.poll() is None:
    try:
        rss = [int(l.split()[1]) for l in open(f"/proc/{child.pid}/status") if l.startswith("VmRSS:")]
    except OSError:
        rss = []
    if rss and rss[0] > 512 * 1024:
        child.kill()
    time.sleep(0.01)
print(child.returncode, resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)
PY
}
read -r _ base < <(peak_kib "$zxblk" import --store "$work/store" --disk d9 "$work/empty.raw")
expect_refused "64 GiB disk of 512-byte blocks with a zeroed table" "entry 0: block overlaps" --disk d9 "$work/huge-zero.vhd"
expect_refused "4 GiB disk whose every entry names one block" "more allocated blocks than a file" --disk d9 "$work/huge-same.vhd"
for f in huge-zero huge-same; do
  read -r rc peak < <(peak_kib "$zxblk" import --store "$work/store" --disk d9 "$work/$f.vhd")
  [ "$rc" = 1 ] || fail "$f: import ended with $rc"
  [ $((peak - base)) -lt 65536 ] || fail "$f: refusing it took $(((peak - base) / 1024)) MiB above a trivial refusal"
  echo "ok: $f refused in $(((peak - base) / 1024)) MiB above a trivial refusal"
done

# One damaged footer copy: the other is used, and the import says so.
for mode in checksum head-zero; do
  "$zxblk" import --store "$work/store" --disk "one-$mode" "$work/bad-$mode.vhd" 2>"$work/err" >"$work/out" ||
    { cat "$work/err"; fail "$mode: refused"; }
  grep -q "is damaged" "$work/out" || { cat "$work/out"; fail "$mode: the damaged copy went unmentioned"; }
  "$zxblk" export --store "$work/store" --disk "one-$mode" --out "$work/one-$mode.raw" --cache "$work/c-$mode" >/dev/null 2>&1
  cmp "$work/one-$mode.raw" "$work/snap0.raw" || fail "$mode: export differs from the plan"
  echo "ok: $mode -> $(cat "$work/out")"
done

# The chain itself is fine.
"$zxblk" import --store "$work/store" --disk base "$work/snap1.vhd" "$work/snap2.vhd" >/dev/null
"$zxblk" export --store "$work/store" --disk base --out "$work/good" --cache "$work/c0" >/dev/null
cmp "$work/good" "$work/snap2.raw" || fail "the good chain does not export"

# Two snapshot files swapped after import: the export fails in one line,
# naming the first file, the field and that the other is damaged too,
# instead of serving the wrong bytes.
cp -a "$work/store" "$work/swapped"
mv "$work/swapped/snapshots/base-snap1.vhd" "$work/swap.tmp"
mv "$work/swapped/snapshots/base-snap2.vhd" "$work/swapped/snapshots/base-snap1.vhd"
mv "$work/swap.tmp" "$work/swapped/snapshots/base-snap2.vhd"
if "$zxblk" export --store "$work/swapped" --disk base --out "$work/swapped.raw" --cache "$work/c2" 2>"$work/err" >/dev/null; then
  fail "export of swapped snapshots succeeded"
fi
[ "$(wc -l <"$work/err")" = 1 ] && grep -q "^zxblk: " "$work/err" || { cat "$work/err"; fail "swapped: not one line"; }
grep -q "snapshot 1 (snapshots/base-snap1.vhd) is damaged: unique id: the catalog records .*; snapshot 2 too" "$work/err" || { cat "$work/err"; fail "swapped: file and field not named"; }
echo "ok: swapped snapshots -> $(cat "$work/err")"

# A snapshot file cut short after import: export fails with one line and
# leaves no image behind.
snap=$(ls "$work/store/snapshots/"base-snap1.vhd)
truncate -s $(($(stat -c %s "$snap") / 2)) "$snap"
if "$zxblk" export --store "$work/store" --disk base --out "$work/cut" --cache "$work/c1" 2>"$work/err" >/dev/null; then
  fail "export of a truncated snapshot succeeded"
fi
[ "$(wc -l <"$work/err")" = 1 ] && grep -q "^zxblk: " "$work/err" || { cat "$work/err"; fail "truncated: not one line"; }
[ ! -e "$work/cut" ] && [ ! -e "$work/cut.partial" ] || fail "export left an image behind"
echo "ok: truncated snapshot -> $(cat "$work/err")"
