#!/usr/bin/env bash
# The index works for booted VMs: the small bootable disk (make_boot_disk.sh)
# as a chain in a folder store, booted under TCG with the guest's marker as
# --ready-pattern. The first boot records mount extents once the marker
# shows: some, each one that holds data by the block tables of the chain's
# VHD files. A second boot with a new overlay folder and a new cache says
# it prefetches that many, and its statistics (DISK.stats beside the
# overlay) show them prefetched and recalled, the mount complete.
#   index_test.sh ZXBLK MAKE_DIFF_VHD
set -euo pipefail
zxblk=$1 diff_vhd=$2
. "$(dirname "$0")/boot_common.sh"
needs qemu-system-x86_64 qemu-img
stat_of() { awk -v k="$2" '$1 == k { print $2 }' "$1"; }

make_disk d
. d/disk.env
store=$work/store
"$zxblk" import -q --store "$store" --client vm --disk sys d/base.vhd d/child.vhd >/dev/null || fail "import"
extent=$("$zxblk" list --store "$store" --json | python3 -c 'import json, sys
print(next(d for d in json.load(sys.stdin)["disks"] if d["name"] == "sys")["extentSize"])')

# boot NAME [OPTION...]: a boot with its own overlay folder and cache.
boot() {
  local name=$1
  shift
  timeout 120 "$zxblk" boot --store "$store" --client vm --overlay-dir "$work/$name.ov" --cache "$work/$name.cache" \
    --log "$name.log" --ready-pattern "$marker" "$@" 2>"$name.err"
}
mount_extents() {
  "$zxblk" index --store "$store" --disk sys --kind mount --json |
    python3 -c 'import json, sys; print(*sorted(r["extent"] for r in json.load(sys.stdin)))'
}

boot first || fail "first boot, exit $?: $(cat first.err)"
grep -q "^zxblk: vm is up after [0-9.]* s; its mount extents are recorded$" first.err || fail "first boot: $(cat first.err)"
grep -q prefetching first.err && fail "the first boot has nothing to prefetch: $(cat first.err)"
recorded=$(mount_extents)
[ -n "$recorded" ] || fail "the first boot recorded no mount extents"
# The extents that hold data: those with a block allocated in either
# snapshot, from the block tables of the VHD files read here by hand.
python3 - "$extent" d/base.vhd d/child.vhd >data.extents <<'PY'
import struct, sys
E = int(sys.argv[1])
for path in sys.argv[2:]:
    with open(path, "rb") as f:
        header = struct.unpack(">Q", f.read(512)[16:24])[0]
        f.seek(header)
        table, _, entries, block = struct.unpack(">QIII", f.read(48)[16:36])
        f.seek(table)
        bat = struct.unpack(">%dI" % entries, f.read(4 * entries))
    for i, at in enumerate(bat):
        if at != 0xFFFFFFFF:
            print(*range(i * block // E, ((i + 1) * block - 1) // E + 1), sep="\n")
PY
sort -u -o data.extents data.extents
outside=$(tr ' ' '\n' <<<"$recorded" | sort -u | comm -23 - data.extents)
[ -z "$outside" ] || fail "mount extents that hold no data: $outside"
n=$(wc -w <<<"$recorded")
[ "$(stat_of first.ov/sys.stats mount_complete)" = 1 ] || fail "first boot's stats: $(cat first.ov/sys.stats)"
ok "first boot: up at the marker; $n mount extents recorded, each holding data"

boot second || fail "second boot, exit $?: $(cat second.err)"
grep -q "^zxblk: prefetching $n mount extents recorded at an earlier boot$" second.err ||
  fail "the second boot should prefetch $n: $(cat second.err)"
s=second.ov/sys.stats
[ "$(stat_of $s mount_extents_prefetched)" = "$n" ] && [ "$(stat_of $s mount_complete)" = 1 ] &&
  [ "$(stat_of $s extents_recalled)" -ge "$n" ] || fail "second boot's stats: $(cat $s)"
"$zxblk" stats $s | grep -q "^prefetched  *$n extents recorded as mount extents" || fail "$("$zxblk" stats $s)"
ok "second boot, new overlays and cache: prefetches the $n mount extents, and its stats show them"
