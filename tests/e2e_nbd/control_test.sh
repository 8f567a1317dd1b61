#!/usr/bin/env bash
# The phases of a served disk: extents read through NBD before `zxblk
# control ... mount-complete` are exactly the mount extents the index then
# lists, and the statistics say the mount is complete; a second server with
# --prefetch, on a new cache, recalls exactly those before any client reads
# (and a client reading them then recalls nothing more). A TCP server's
# control socket from $controlsocket; refusals in one line.
#   control_test.sh ZXBLK
set -euo pipefail
zxblk=$1
fail() { echo "FAIL: $*"; exit 1; }
ok() { echo "ok: $*"; }
for tool in nbdkit qemu-img; do
  command -v $tool >/dev/null || { echo "skipped: no $tool"; exit 77; }
done
# nbdsh is libnbd's Python module, found by whichever python3 has it.
py=
for p in python3 /usr/bin/python3; do "$p" -c 'import nbd; nbd.NBD' 2>/dev/null && { py=$p; break; }; done
[ -n "$py" ] || { echo "skipped: no python3 with libnbd's binding"; exit 77; }
export py
work=$(mktemp -d)
bg=
cleanup() {
  [ -z "$bg" ] || kill "$bg" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
cd "$work"
export XDG_RUNTIME_DIR=$work
MiB=1048576
stat_of() { awk -v k="$2" '$1 == k { print $2 }' "$1"; }
recalled() { stat_of "$1" extents_recalled; }
# nbdsh code that reads 4 KiB in the middle of each extent given, far apart
# and small so that nothing is read ahead.
reads() { for e in "$@"; do printf 'h.pread(4096, %d); ' $((e * MiB + 512 * 1024)); done; }

# 24 extents of 1 MiB, all data.
head -c $((24 * MiB)) /dev/urandom >d.raw
qemu-img convert -f raw -O vpc -o subformat=dynamic,force_size=on d.raw d.vhd
"$zxblk" import -q --store store --disk d --extent-size 1M d.vhd >/dev/null

# A server in the background: the extents read before mount-complete are
# the mount extents, the one read after it is not.
"$zxblk" serve --store store --disk d --cache c1 --stats s1 --socket "$work/nbd.sock" >serve1.out ||
  fail "serve: $(cat serve1.out)"
bg=$(sed -n 's/.*stop with: kill \([0-9]*\)$/\1/p' serve1.out)
uri="nbd+unix:///?socket=$work/nbd.sock"
grep -qx "once the disks are mounted or the guest is up: zxblk control $work/nbd.sock.control mount-complete" serve1.out ||
  fail "serve does not print its control socket: $(cat serve1.out)"
mount_extents="2 5 11 17"
"$py" -m nbd -u "$uri" -c "$(reads $mount_extents)" || fail "reads through libnbd"
"$zxblk" stats s1 | grep -q "mount not complete yet" || fail "before the mark: $("$zxblk" stats s1)"
"$zxblk" control "$work/nbd.sock" mount-complete >ctl.out || fail "zxblk control: $(cat ctl.out)"
[ "$(cat ctl.out)" = "mount-complete (d)" ] || fail "zxblk control said '$(cat ctl.out)'"
"$zxblk" stats s1 | grep -q "phases  *mount complete;" || fail "after the mark: $("$zxblk" stats s1)"
"$py" -m nbd -u "$uri" -c "$(reads 20)" || fail "a read after the mark"
"$zxblk" index --store store --disk d --kind mount --json >index.json
got=$(python3 -c 'import json, sys; print(*sorted(r["extent"] for r in json.load(open(sys.argv[1]))))' index.json)
[ "$got" = "$mount_extents" ] || fail "the index lists mount extents '$got', the reads before the mark were '$mount_extents'"
ok "serve: mount-complete through the NBD socket's path; the index lists the extents read before it ($got), the stats say complete"

# Refusals, each one line and exit 1 (an unknown command is a usage error).
# SOCKET: an NBD URI, a control socket, a folder, and what is none of them.
while IFS='|' read -r args code want; do
  rc=0
  "$zxblk" control $args >ref.out 2>ref.err || rc=$?
  [ $rc = "$code" ] && [ "$(wc -l <ref.err)" = 1 ] && grep -q -- "$want" ref.err ||
    fail "control $args: exit $rc, '$(cat ref.err)' (want $code, '$want')"
done <<ROWS
$uri mount-complete --disk nosuch|1|no export 'nosuch': this server serves d
$work/nbd.sock.control bogus|2|bogus not in
$work/c1 mount-complete|1|$work/c1: no zxblk server's control socket in this folder
$work/d.raw mount-complete|1|$work/d.raw: not a socket
$work/none.sock mount-complete|1|$work/none.sock: no such socket
ROWS
"$zxblk" control "$uri" metadata-begin --disk d >/dev/null && "$zxblk" control "$work/nbd.sock.control" metadata-end >/dev/null ||
  fail "metadata-begin/end through the URI and the control socket"
ok "control: the URI and the control socket work; an unknown export, command or socket is refused in one line"

kill "$bg"
for _ in $(seq 200); do [ -e nbd.sock ] || [ -e nbd.sock.control ] || break; sleep 0.05; done
bg=
[ ! -e nbd.sock.control ] || fail "the control socket is left after the server stopped"

# --prefetch on a new cache: the recorded extents are recalled with no
# client at all; reading them afterwards recalls nothing more.
export READS=$(reads $mount_extents)
"$zxblk" serve --store store --disk d --cache c2 --stats s2 --prefetch --run '
  for _ in $(seq 600); do [ "$(awk "\$1 == \"extents_recalled\" { print \$2 }" s2)" = 4 ] && break; sleep 0.1; done
  cp s2 s2.before-reads && "$py" -m nbd -u "$uri" -c "$READS"' >serve2.out 2>serve2.err || fail "serve --prefetch: $(cat serve2.err)"
[ "$(recalled s2.before-reads)" = 4 ] && [ "$(stat_of s2.before-reads mount_extents_prefetched)" = 4 ] ||
  fail "serve --prefetch, no client: $(cat s2.before-reads)"
"$zxblk" stats s2.before-reads | grep -q "^prefetched  *4 extents recorded as mount extents" ||
  fail "zxblk stats: $("$zxblk" stats s2.before-reads)"
[ "$(recalled s2)" = 4 ] || fail "reading the prefetched extents recalled $(($(recalled s2) - 4)) more"
ok "serve --prefetch: the 4 mount extents recalled before any read, and the stats say so; reading them recalls nothing"

# TCP alone: the control socket lies in the server's private folder, and
# --run has it as $controlsocket.
"$zxblk" serve --store store --disk d --cache c3 --port 0 --run "'$zxblk' control \"\$controlsocket\" mount-complete" \
  >tcp.out 2>tcp.err || fail "serve --port 0 --run control: $(cat tcp.err)"
grep -qx "once the disks are mounted or the guest is up: zxblk control $work/zxblk-serve-[^/]*/control.sock mount-complete" tcp.out &&
  grep -qx "mount-complete (d)" tcp.out || fail "TCP: $(cat tcp.out)"
ok "serve --port 0: the control socket in its private folder, as \$controlsocket"
