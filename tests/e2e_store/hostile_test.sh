#!/usr/bin/env bash
# Damaged and mismatched images are refused with one clear line, and the
# store is left exactly as it was. A snapshot damaged after import makes an
# export fail cleanly.
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

for mode in checksum bat-past overlap blocksize truncate; do
  python3 "$tamper" "$mode" "$work/snap0.vhd" "$work/bad-$mode.vhd"
done
expect_refused "flipped footer byte" "footer checksum" --disk d1 "$work/bad-checksum.vhd"
expect_refused "block past the end" "runs past the end of the file" --disk d2 "$work/bad-bat-past.vhd"
expect_refused "overlapping blocks" "overlaps" --disk d3 "$work/bad-overlap.vhd"
expect_refused "block size not a power of two" "block size" --disk d4 "$work/bad-blocksize.vhd"
expect_refused "truncated file" "bad-truncate.vhd" --disk d5 "$work/bad-truncate.vhd"
python3 "$tamper" parent "$work/snap1.vhd" "$work/bad-parent.vhd"
expect_refused "child of another parent" "parent unique id" --disk base "$work/bad-parent.vhd"
expect_refused "child of another chain" "parent unique id" --disk base "$work/other/snap1.vhd"
expect_refused "chain whose second child is foreign" "parent unique id" --disk base "$work/snap1.vhd" "$work/other/snap1.vhd"
: >"$work/empty.raw"
expect_refused "raw file of zero bytes" "empty image" --disk d6 "$work/empty.raw"
head -c 1000 /dev/urandom >"$work/odd.raw"
expect_refused "raw file of a partial sector" "whole number" --disk d7 "$work/odd.raw"
expect_refused "differencing image without its parent" "parent imported first" --disk d8 "$work/snap1.vhd"
expect_refused "bad disk name" "disk name" --disk "../x" "$work/snap0.vhd"

# The chain itself is fine.
"$zxblk" import --store "$work/store" --disk base "$work/snap1.vhd" "$work/snap2.vhd" >/dev/null
"$zxblk" export --store "$work/store" --disk base --out "$work/good" --cache "$work/c0" >/dev/null
cmp "$work/good" "$work/snap2.raw" || fail "the good chain does not export"

# A snapshot file cut short after import: export fails with one line and
# leaves no image behind.
snap=$(ls "$work/store/snapshots/"base-snap1.vhd)
truncate -s $(($(stat -c %s "$snap") / 2)) "$snap"
if "$zxblk" export --store "$work/store" --disk base --out "$work/cut" --cache "$work/c1" 2>"$work/err" >/dev/null; then
  fail "export of a truncated snapshot succeeded"
fi
tail -n 1 "$work/err" | grep -q "^zxblk: " || { cat "$work/err"; fail "no clear last line"; }
[ ! -e "$work/cut" ] && [ ! -e "$work/cut.partial" ] || fail "export left an image behind"
echo "ok: truncated snapshot -> $(tail -n 1 "$work/err")"
