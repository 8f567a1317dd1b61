#!/usr/bin/env bash
# Clients that hang up with reads in flight, as nbdcopy and qemu-img do at
# their first read error and as a killed client does, must not bring the
# server down for the others. Each run serves a chain whose base is cut short
# (--allow-damaged) beside a whole disk: libnbd clients queue 32 reads of
# each disk and hang up at the first reply, nbdcopy, qemu-img and nbdinfo
# --map read the broken one, and nbdcopy of the whole disk must still equal
# its merged image.
# Then a whole chain is cut short under a running server while clients read
# it, and the server is stopped with SIGTERM while their reads fail: it must
# end at once and cleanly (exit 0, its socket gone).
# In every run nbdkit's messages may hold the failed reads and the replies
# that met a closed socket, and nothing else: no abort, no sanitizer report,
# no log line of a disk left open past the server's end.
#   hangup_test.sh ZXBLK MAKE_VHD_CHAIN RUNS
set -euo pipefail
zxblk=$1 chain=$2 runs=$3
fail() { echo "FAIL: $*"; exit 1; }
for tool in nbdkit nbdcopy nbdinfo qemu-img; do
  command -v $tool >/dev/null || { echo "skipped: no $tool"; exit 77; }
done
py=
for p in python3 /usr/bin/python3; do "$p" -c 'import nbd; nbd.NBD' 2>/dev/null && { py=$p; break; }; done
[ -n "$py" ] || { echo "skipped: no python3 with libnbd's binding"; exit 77; }
work=$(mktemp -d)
server=
cleanup() {
  [ -n "$server" ] && kill "$server" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
cd "$work"
MiB=1048576

cat >hangup.py <<'EOF'
import nbd, os, sys
h = nbd.NBD()
h.connect_uri(sys.argv[1])
size = h.get_size()
bufs = [nbd.Buffer(1 << 20) for _ in range(32)]
for i, b in enumerate(bufs):
    h.aio_pread(b, (i << 20) % size)
while h.aio_in_flight() == len(bufs):
    h.poll(-1)
os._exit(0)  # no NBD_CMD_DISC, replies still on their way
EOF

# Two chains of 32 MiB in blocks of 2 MiB: "whole", and "broken", whose base
# is cut to 8 MiB.
mkdir a b
"$chain" a $((32 * MiB)) $((2 * MiB)) 1 11 >/dev/null
"$chain" b $((32 * MiB)) $((2 * MiB)) 1 12 >/dev/null
"$zxblk" import --store store --disk whole a/snap0.vhd a/snap1.vhd >/dev/null
"$zxblk" import --store store --disk broken b/snap0.vhd b/snap1.vhd >/dev/null
truncate -s $((8 * MiB)) store/snapshots/broken-snap0.vhd
cp -a store pristine

# What nbdkit may say: the notice, the failed reads and the replies that met a
# closed socket. Anything else fails the run.
check_err() {
  if grep -v -e '^zxblk: note: presenting ' -e ': error: read of [0-9]* bytes at [0-9]* of [a-z]* failed: ' \
    -e ': error: \(write\|read\) [a-z ]*\(: NBD_CMD_[A-Z_]*\)\?: \(Broken pipe\|Connection reset by peer\)$' \
    "$1" | grep -q .; then
    echo "--- $1:"; cat "$1"; fail "run $2: $3: nbdkit said more than the failed reads"
  fi
}

for ((r = 1; r <= runs; r++)); do
  rm -rf c whole.out
  "$zxblk" serve --store store --disk whole --disk broken --cache c --allow-damaged --run '
    b="nbd+unix:///broken?socket=$unixsocket" w="nbd+unix:///whole?socket=$unixsocket"
    '"$py"' hangup.py "$b" & '"$py"' hangup.py "$w" & '"$py"' hangup.py "$b" &
    nbdcopy "$b" null: 2>/dev/null & qemu-img convert -f raw -O raw "$b" broken.out 2>/dev/null &
    nbdinfo --map "$b" >/dev/null 2>&1 &
    nbdcopy "$w" whole.out; rc=$?; wait; exit $rc' >/dev/null 2>err ||
    { cat err; fail "run $r: zxblk serve, or nbdcopy of the whole disk beside the broken one"; }
  cmp -s whole.out a/snap1.raw || fail "run $r: the whole disk read wrong beside the broken one"
  check_err err $r "clients hanging up on a broken chain"

  # Cut short under the running server, stopped while the reads fail.
  rm -rf c live && cp -a pristine live
  "$zxblk" serve --store live --disk whole --cache c --socket "$work/s.sock" -f >/dev/null 2>err &
  server=$!
  u="nbd+unix:///?socket=$work/s.sock"
  for _ in $(seq 300); do nbdinfo --size "$u" >/dev/null 2>&1 && break; sleep 0.05; done
  nbdinfo --size "$u" >/dev/null 2>&1 || { cat err; fail "run $r: the server did not come up"; }
  for _ in 1 2 3; do (for _ in 1 2 3 4 5; do "$py" hangup.py "$u" 2>/dev/null || break; done) & done
  nbdcopy "$u" null: 2>/dev/null &
  truncate -s $((4 * MiB)) live/snapshots/whole-snap0.vhd
  sleep 0.2
  kill -TERM $server
  rc=0; wait $server || rc=$?
  server=
  wait
  [ "$rc" = 0 ] || { cat err; fail "run $r: SIGTERM while reads failed: zxblk serve exit $rc"; }
  [ -e s.sock ] && fail "run $r: the socket outlived the server"
  check_err err $r "a chain cut short under the server, SIGTERM"
done
echo "ok: $runs runs: clients hanging up on a broken chain, one cut short under the server and SIGTERM: no abort"
