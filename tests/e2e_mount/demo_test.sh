#!/usr/bin/env bash
# The main job as a user runs it, then its sample checked from outside:
# both snapshots of the demo's ext4 disk mounted and read with debugfs
# against the files the file system was made from.
#   demo_test.sh ZXBLK
set -euo pipefail
zxblk=$1
step_timeout=300
source "$(dirname "$0")/mount_common.sh"

t "$zxblk" demo --dir "$work/demo" >"$work/out" 2>"$work/err" || { cat "$work/out" "$work/err"; fail "zxblk demo"; }
cat "$work/out"
[ ! -s "$work/err" ] || { cat "$work/err"; fail "the demo wrote to standard error"; }
grep -q "^    imported child.vhd as demo snapshot 1 " "$work/out" || fail "the import lines name the images as a user sees them"
grep -q "/data/file17.bin: 2097152 bytes, identical to the changed file of snapshot 1" "$work/out" || fail "changed file"
grep -q "/data/file8.bin: .* identical to the original" "$work/out" || fail "unchanged file"
recalled=$(sed -n 's/^ *recalled \([0-9]*\) of 256 extents.*/\1/p' "$work/out")
[ -n "$recalled" ] && [ "$recalled" -gt 0 ] && [ "$recalled" -lt 64 ] || fail "recalled '$recalled' of 256 extents"
flagged=$(sqlite3 "$work/demo/store/index.sqlite" "select count(*) from extent_flags where disk = 'demo' and snapshot = 1 and kind = 'mount'")
grep -q "mount extents of snapshot 1: $flagged " "$work/out" || fail "the demo's index figure is not the database's ($flagged)"
[ "$flagged" -gt 0 ] || fail "no mount extents in the index"
[ ! -e "$work/demo/work" ] && [ ! -e "$work/demo/cache" ] && [ ! -e "$work/demo/mnt" ] || fail "the demo left its scratch files"
# Only mount points inside this test's own folder.
mount_points | awk -v w="$work/" 'index($0, w) == 1 { found = 1 } END { exit !found }' && fail "the demo left a mount"
ok "the demo read both files, recalled $recalled of 256 extents and left the index $flagged mount extents"

# Both snapshots from outside the demo, against the source files.
for snap in 0 1; do
  mkdir -p "$work/m$snap"
  t "$zxblk" mount --store "$work/demo/store" --disk demo --snapshot $snap --cache "$work/c$snap" "$work/m$snap" >/dev/null
  mounts+=("$work/m$snap")
done
cat_file() { t debugfs -R "cat $2" "$work/m$1/disk.raw" 2>/dev/null; }
cmp <(cat_file 0 /data/file17.bin) "$work/demo/files/data/file17.bin" || fail "snapshot 0: file17 is not the original"
cmp -s <(cat_file 1 /data/file17.bin) "$work/demo/files/data/file17.bin" && fail "snapshot 1: file17 did not change"
[ "$(cat_file 1 /data/file17.bin | wc -c)" = 2097152 ] || fail "snapshot 1: file17 has the wrong size"
for snap in 0 1; do
  cmp <(cat_file $snap /data/file8.bin) "$work/demo/files/data/file8.bin" || fail "snapshot $snap: file8"
  cmp <(cat_file $snap /docs/note3.txt) "$work/demo/files/docs/note3.txt" || fail "snapshot $snap: note3"
done
t e2fsck -fn "$work/m1/disk.raw" >/dev/null 2>&1 || fail "e2fsck finds the snapshot 1 file system damaged"
ok "snapshot 0 holds the original files, snapshot 1 the changed one, and e2fsck finds snapshot 1 clean"
for m in "${mounts[@]}"; do fusermount3 -u "$m"; done
mounts=()

# Running it again replaces the sample; a folder of someone else's is refused.
t "$zxblk" demo --dir "$work/demo" >/dev/null || fail "a second run in the same folder"
mkdir -p "$work/other" && echo keep >"$work/other/precious"
if t "$zxblk" demo --dir "$work/other" >/dev/null 2>"$work/err"; then fail "the demo took a folder that is not its own"; fi
grep -q "is not empty and holds no earlier demo" "$work/err" && [ "$(cat "$work/other/precious")" = keep ] || fail "refusal"
ok "the demo rebuilds its own sample and refuses a folder of other files: $(cat "$work/err")"
