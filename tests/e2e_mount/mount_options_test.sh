#!/usr/bin/env bash
# What surrounds a mount: -o allow_other and bad -o options, a mount point
# that is not empty, the refusal of an export of a mounted snapshot and the
# way around it, zxblk cache list and purge, --drop-cache, and zxblk stats.
#   mount_options_test.sh ZXBLK
set -euo pipefail
zxblk=$1
source "$(dirname "$0")/mount_common.sh"
# Default caches go under the test's own folder, never the user's.
export XDG_CACHE_HOME=$work/xdg
root=$XDG_CACHE_HOME/zxblk
chmod 755 "$work"  # another user must reach the mount points
head -c $((6 * 1048576)) /dev/urandom >"$work/d.raw"
head -c $((3 * 1048576)) /dev/urandom >"$work/e.raw"
for disk in d e; do
  qemu-img convert -f raw -O vpc -o subformat=dynamic,force_size=on "$work/$disk.raw" "$work/$disk.vhd"
  "$zxblk" import --store "$work/store" --disk $disk "$work/$disk.vhd" >/dev/null
done
zx_mount() {  # MOUNTPOINT, arguments...
  local m=$1
  shift
  mkdir -p "$m"
  t "$zxblk" mount --store "$work/store" "$@" "$m" >"$work/out" 2>&1 || { cat "$work/out"; fail "zxblk mount $*"; }
  mounts+=("$m")
}
# The daemon serving MOUNTPOINT, found from the process table: the process
# of this test's zxblk whose arguments are "mount ... MOUNTPOINT", compared
# whole, so no other test's mount can match.
daemon_of() {
  python3 - "$zxblk" "$1" <<'PY'
import os, sys
for pid in filter(str.isdigit, os.listdir("/proc")):
    try:
        args = open(f"/proc/{pid}/cmdline", "rb").read().split(b"\0")[:-1]
    except OSError:
        continue
    if len(args) > 2 and args[0] == os.fsencode(sys.argv[1]) and args[1] == b"mount" and args[-1] == os.fsencode(sys.argv[2]):
        print(pid)
PY
}
as_nobody() { setpriv --reuid=65534 --regid=65534 --clear-groups -- "$@"; }

# Bad -o options are usage errors.
for bad in bogus allow_other,bogus ro; do
  rc=0
  "$zxblk" mount --store "$work/store" --disk d -o $bad "$work" 2>"$work/err" || rc=$?
  [ $rc = 2 ] && grep -q "unknown mount option '${bad#allow_other,}'" "$work/err" ||
    { cat "$work/err"; fail "-o $bad: exit $rc"; }
done
ok "bad -o options are usage errors"

# Another user reads the disk with -o allow_other, and only then.
if command -v setpriv >/dev/null; then
  for opt in "" allow_other; do
    zx_mount "$work/m-o$opt" --disk d --cache "$work/c-o$opt" ${opt:+-o $opt}
    if [ -n "$opt" ]; then
      as_nobody timeout 60 cmp "$work/m-o$opt/disk.raw" "$work/d.raw" || fail "another user cannot read with -o allow_other"
      as_nobody sh -c "echo mount-complete >'$work/m-o$opt/.control'" 2>/dev/null && fail "another user drove .control"
    else
      as_nobody cat "$work/m-o$opt/disk.raw" >/dev/null 2>&1 && fail "another user read without -o allow_other"
    fi
    unmount "$work/m-o$opt"
  done
  if ! grep -qx '[[:space:]]*user_allow_other[[:space:]]*' /etc/fuse.conf 2>/dev/null; then
    mkdir -p "$work/m-user" && chown 65534 "$work/m-user"
    rc=0
    as_nobody "$zxblk" mount --store "$work/store" --disk d --cache "$work/m-user/c" -o allow_other "$work/m-user" \
      2>"$work/err" || rc=$?
    [ $rc = 1 ] && grep -q "user_allow_other" "$work/err" && [ "$(wc -l <"$work/err")" = 1 ] ||
      { cat "$work/err"; fail "allow_other for a user without user_allow_other: exit $rc"; }
  fi
  ok "-o allow_other lets another user read disk.raw (not .control); without it they cannot"
fi

# A mount point with files in it is refused, unless --nonempty.
mkdir -p "$work/full" && echo keep >"$work/full/mine"
rc=0
"$zxblk" mount --store "$work/store" --disk d --cache "$work/c-full" "$work/full" 2>"$work/err" || rc=$?
[ $rc = 1 ] && [ "$(cat "$work/err")" = "zxblk: $work/full is not empty: its files would be hidden while mounted; use --nonempty to mount over it anyway" ] ||
  { cat "$work/err"; fail "a non-empty mount point: exit $rc"; }
mounted "$work/full" && fail "mounted over files without --nonempty"
zx_mount "$work/full" --disk d --cache "$work/c-full" --nonempty
t cmp "$work/full/disk.raw" "$work/d.raw" || fail "--nonempty: wrong bytes"
unmount "$work/full"
[ "$(cat "$work/full/mine")" = keep ] || fail "the hidden file is gone"
ok "a mount point with files is refused in one line, and taken with --nonempty"

# Disk d mounted on its default cache; disk e exported on its own, so its
# default cache is left behind, not in use.
zx_mount "$work/m" --disk d
pid=$(daemon_of "$work/m")
[ -n "$pid" ] || fail "no daemon found for $work/m"
t "$zxblk" export --store "$work/store" --disk e --out "$work/e.out" >/dev/null 2>&1 || fail "export of e"
rc=0
t "$zxblk" export --store "$work/store" --disk d --out "$work/d.out" 2>"$work/err" || rc=$?
grep -qx "zxblk: the extent cache $root/.*-d-snap0 is in use by another zxblk process (pid $pid, mounted on $work/m); open the disk with a cache folder of its own (--cache DIR)" "$work/err" &&
  [ $rc = 1 ] && [ -z "$(ls -a "$work" | grep d.out)" ] || { cat "$work/err"; fail "export of a mounted snapshot: exit $rc"; }
t "$zxblk" export --store "$work/store" --disk d --cache "$work/c-export" --out "$work/d.out" >/dev/null 2>&1 &&
  cmp "$work/d.out" "$work/d.raw" || fail "export with a cache of its own"
ok "an export of a mounted snapshot names pid $pid and the mount point, and works with --cache"

# cache list: both default caches, the mounted one with its daemon, sizes as du counts them.
"$zxblk" cache list --json --cache-root "$root" >"$work/list.json"
python3 -m json.tool "$work/list.json" >/dev/null || fail "cache list --json is not JSON"
e_dir=$(ls -d "$root"/*-e-snap0)
want="d 0 True $pid $work/m $work/store
e 0 False None None $work/store $(du -s --block-size=1 "$e_dir" | cut -f1)"
got=$(python3 -c '
import json, sys
for c in json.load(open(sys.argv[1]))["caches"]:
    print(c["disk"], c["snapshot"], c["inUse"], c["pid"], c["mountPoint"], c["store"], *([] if c["inUse"] else [c["bytes"]]))
' "$work/list.json")
[ "$got" = "$want" ] || fail "cache list --json: got
$got
wanted
$want"
# Without --cache-root: the default root, under XDG_CACHE_HOME.
"$zxblk" cache list >"$work/list.txt"
grep -q "^$work/store  *d  *0  .*  pid $pid, mounted on $work/m  " "$work/list.txt" || { cat "$work/list.txt"; fail "cache list"; }
ok "cache list shows both caches, the mounted one with pid $pid, in JSON and in words"

# cache purge: the cache in use stays, the other goes.
rc=0
"$zxblk" cache purge --cache-root "$root" 2>"$work/err" || rc=$?
[ $rc = 2 ] || fail "cache purge without saying which: exit $rc"
freed=$(du -s --block-size=1 "$e_dir" | cut -f1)
"$zxblk" cache purge --all --cache-root "$root" >"$work/purge.txt"
[ ! -e "$e_dir" ] && [ -d "$root"/*-d-snap0 ] || fail "purge removed the wrong caches"
grep -q "^left alone, in use by pid $pid, mounted on $work/m: d snapshot 0 of $work/store$" "$work/purge.txt" &&
  grep -q "^freed .*: removed 1 cache; 1 in use left alone$" "$work/purge.txt" || { cat "$work/purge.txt"; fail "purge report"; }
t cmp "$work/m/disk.raw" "$work/d.raw" || fail "the mount suffered from the purge"
ok "cache purge --all removed the idle cache ($freed bytes) and left the mounted one"

# zxblk stats, against .stats and the disk itself; a folder that is no mount.
"$zxblk" stats --json "$work/m" >"$work/stats.json"
got=$(python3 -c '
import json, sys
s = json.load(open(sys.argv[1]))
print(s["disk_bytes"], s["extents_recalled"], s["mount_complete"])' "$work/stats.json")
[ "$got" = "$(stat -c %s "$work/d.raw") $(awk '$1 == "extents_recalled" { print $2 }' "$work/m/.stats") False" ] ||
  fail "stats --json: $got"
"$zxblk" stats "$work/m" | grep -q "^disk  *6 MiB, 6 extents of 1 MiB$" || fail "stats in words"
rc=0
"$zxblk" stats "$work/full" 2>"$work/err" || rc=$?
[ $rc = 1 ] && [ "$(cat "$work/err")" = "zxblk: $work/full is not a zxblk mount (it has no .stats)" ] || fail "stats of a folder"
ok "zxblk stats agrees with .stats, and refuses a folder that is not a mount"
unmount "$work/m"

# --drop-cache: the cache is gone once the mount has ended.
zx_mount "$work/m" --disk d --cache "$work/c-drop" --drop-cache
t cmp "$work/m/disk.raw" "$work/d.raw" || fail "--drop-cache: wrong bytes"
pid=$(daemon_of "$work/m")
unmount "$work/m"
for _ in $(seq 300); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
[ ! -e "$work/c-drop" ] || fail "--drop-cache left $(ls "$work/c-drop")"
ok "--drop-cache removes the cache when the mount ends"
