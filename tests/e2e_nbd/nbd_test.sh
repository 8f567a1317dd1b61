#!/usr/bin/env bash
# The disk over NBD, driven by the clients users attach with: nbdcopy and
# qemu-img compare against the merged chain and qemu-img's own reading of a
# dynamic VHD, nbdinfo's map against qemu-img map of the VHD, one nbdkit
# serving many disks by export name (listed, described, refused), recalls of a
# mostly-empty disk, parallel and multi-conn clients, NBD_CMD_CACHE through
# libnbd's Python binding, the writable overlay, TLS-PSK over TCP, the
# refusals, EIO for a lost extent, and a server in the background.
#   nbd_test.sh ZXBLK PLUGIN MAKE_VHD_CHAIN [SANITIZER_RUNTIMES]
set -euo pipefail
zxblk=$1 plugin=$2 chain=$3 preload=${4:-}
fail() { echo "FAIL: $*"; exit 1; }
ok() { echo "ok: $*"; }
t() { timeout 120 "$@"; }
for tool in nbdkit nbdcopy nbdinfo qemu-img qemu-io; do
  command -v $tool >/dev/null || { echo "skipped: no $tool"; exit 77; }
done
work=$(mktemp -d)
bg=
cleanup() {
  [ -n "$bg" ] && kill "$bg" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
cd "$work"
py=
for p in python3 /usr/bin/python3; do "$p" -c 'import nbd; nbd.NBD' 2>/dev/null && { py=$p; break; }; done
[ -n "$py" ] || fail "no python3 with libnbd's binding (python3-libnbd; scripts/setup.sh installs it)"
MiB=1048576
serve() { t "$zxblk" serve --store store "$@"; }
stat_of() { awk -v k="$2" '$1 == k { print $2 }' "$1"; }
# "start length data|hole" rows, neighbours alike merged: from qemu-img map
# JSON (a VHD) or nbdinfo --map (a server).
norm_qemu() { qemu-img map --output=json -f "$1" "$2" | "$py" -c '
import json, sys
for e in json.load(sys.stdin): print(e["start"], e["length"], "data" if e["data"] else "hole")' | merge; }
norm_nbd() { awk '{ print $1, $2, ($3 % 2 ? "hole" : "data") }' "$1" | merge; }
merge() { awk '$3 == k && $1 == e { e += $2; next } { if (k != "") print s, e - s, k; s = $1; e = $1 + $2; k = $3 }
               END { if (k != "") print s, e - s, k }'; }

# The disks: a three-snapshot differencing chain (24 MiB and a bit, blocks
# of half an extent), a dynamic VHD with data in three places, a mostly
# empty 256 MiB dynamic VHD, and a raw disk whose file gets cut.
mkdir chain
"$chain" chain $((24 * MiB + 37 * 512)) 524288 2 41 >/dev/null
truncate -s 48M dyn.raw
for at in 3:2 20:1 47:1; do
  dd if=/dev/urandom of=dyn.raw bs=1M seek=${at%:*} count=${at#*:} conv=notrunc status=none
done
qemu-img convert -f raw -O vpc -o subformat=dynamic,force_size=on dyn.raw dyn.vhd
qemu-img create -q -f vpc -o force_size=on empty.vhd 256M
qemu-io -f vpc -c "write -P 0x11 5M 4k" -c "write -P 0x22 200M 1M" empty.vhd >/dev/null
head -c $((8 * MiB)) /dev/urandom >cut.raw
"$zxblk" import --store store --disk chain chain/snap0.vhd chain/snap1.vhd chain/snap2.vhd >/dev/null
for d in dyn empty; do
  "$zxblk" import --store store --disk $d $d.vhd >/dev/null
  qemu-img convert -f vpc -O raw $d.vhd $d.ref
done
"$zxblk" import --store store --disk cut --format raw cut.raw >/dev/null
truncate -s $((4 * MiB)) store/snapshots/cut-snap0.raw
(cd store && sha256sum catalog.json snapshots/*) >store.sums

# zxblk serve: the merged chain, its name, a private socket.
serve --disk chain --cache c1 --run 'nbdcopy "$uri" chain.out && nbdinfo "$uri" >info &&
  stat -c %a "$unixsocket" >mode' >serve.out || fail "serve --run nbdcopy"
cmp chain.out chain/snap2.raw || fail "nbdcopy of the chain differs from the merged image"
grep -q "^	description: chain snapshot 2\b" info || { cat info; fail "nbdinfo shows no description"; }
[ "$(cat mode)" = 600 ] || fail "the socket has mode $(cat mode), not 600"
grep -q "^serving chain snapshot 2 at nbd+unix:///?socket=/.*/nbd.sock (read-only)$" serve.out || fail "$(cat serve.out)"
ok "zxblk serve: nbdcopy equals the merged chain; description, mode 0600, URI printed"

# zxblk serve --client: every disk of a VM from one nbdkit, an export per
# disk named by it, each reading as its merged image; the other VM's disk
# is not served. $exports and $uris come in one order.
"$zxblk" import --store vms --client vm1 --client-id 7 --disk sys chain/snap0.vhd chain/snap1.vhd chain/snap2.vhd >/dev/null
"$zxblk" import --store vms --client vm1 --client-id 7 --disk data dyn.vhd >/dev/null
"$zxblk" import --store vms --client vm2 --client-id 8 --disk other empty.vhd >/dev/null
t "$zxblk" serve --store vms --client vm1 --cache cvm --stats vm.stats --run 'nbdinfo --list --json "$uri" >vm.list &&
  set -- $exports && for u in $uris; do nbdcopy "$u" "vm-$1.out" && shift; done' >vm.out || fail "serve --client"
"$py" -c 'import json, sys; print(*[e["export-name"] for e in json.load(open(sys.argv[1]))["exports"]])' vm.list >vm.names
[ "$(cat vm.names)" = "sys data" ] || fail "nbdinfo --list: $(cat vm.names)"
cmp vm-sys.out chain/snap2.raw && cmp vm-data.out dyn.ref || fail "an export of the VM differs from its image"
sock="/[^ ']*/nbd.sock"
grep -qx "serving sys snapshot 2 at nbd+unix:///sys?socket=$sock (read-only)" vm.out &&
  grep -qx "serving data snapshot 0 at nbd+unix:///data?socket=$sock (read-only)" vm.out &&
  grep -qx "libguestfs: guestfish --ro --format=raw -a 'nbd:///sys?socket=$sock' -a 'nbd:///data?socket=$sock'" vm.out ||
  fail "$(cat vm.out)"
[ -d cvm/sys-snap2 ] && [ -d cvm/data-snap0 ] || fail "--cache of several disks: $(ls cvm)"
"$zxblk" stats vm.stats/data.stats | grep -q "^disk  *48 MiB" || fail "--stats of several disks: $(ls vm.stats)"
ok "zxblk serve --client: nbdinfo --list shows sys and data, nbdcopy of each equals its image; a cache and stats file each"

# nbdkit with the plugin, as a user runs it, on the VMs' store: client= and
# disk=NAME@N serve an export per disk, listed with a description and
# opened before the server starts (a second server is refused a cache in
# use); a URI without a name reaches the first export; each reads as its
# image (the dynamic VHD as qemu-img reads it, with the map of its blocks);
# statsdir= keeps a file per export. (In a sanitized build nbdkit gets the
# runtime the plugin needs, which the plugin keeps from --run's children,
# without the leak check of nbdkit's own memory.)
export preload plugin
nbdkit_zxblk() { LD_PRELOAD=$preload ASAN_OPTIONS=detect_leaks=0 t nbdkit -U - "$plugin" store=vms "$@"; }
nbdkit_zxblk client=vm1 disk=sys@1 cache=c2 statsdir=s2 --run 'nbdinfo --list --json "$uri" >vm1.list &&
  nbdcopy "$uri" default.out && for e in sys data sys@1; do nbdcopy "nbd+unix:///$e?socket=$unixsocket" "vm1-$e.out"; done &&
  u="nbd+unix:///data?socket=$unixsocket" && qemu-img compare -q -f raw -F raw "$u" dyn.ref && nbdinfo --map "$u" >dyn.map &&
  ! LD_PRELOAD=$preload nbdkit -U - "$plugin" store=vms disk=sys cache=c2/sys-snap2 --run true 2>busy.err' ||
  fail "nbdkit zxblk client=vm1: a client failed, or a second server took a cache in use"
"$py" -c 'import json, sys
for e in json.load(open(sys.argv[1]))["exports"]: print(e["export-name"] + "|" + e["description"])' vm1.list >vm1.names
printf '%s\n' "sys|sys snapshot 2 of vm1, 24.0 MiB" "data|data snapshot 0 of vm1, 48.0 MiB" \
  "sys@1|sys snapshot 1 of vm1, 24.0 MiB" | diff vm1.names - || fail "nbdinfo --list of client=vm1 disk=sys@1"
for row in default.out:chain/snap2.raw vm1-sys.out:chain/snap2.raw vm1-data.out:dyn.ref vm1-sys@1.out:chain/snap1.raw \
           s2/sys.stats:chain/snap2.raw s2/data.stats:dyn.ref s2/sys@1.stats:chain/snap1.raw; do
  out=${row%%:*} ref=${row#*:}
  case $out in
    *.stats) [ "$(stat_of "$out" disk_bytes)" = "$(stat -c %s "$ref")" ] || fail "$out: $(cat "$out" 2>&1)" ;;
    *) cmp "$out" "$ref" || fail "$out differs from $ref" ;;
  esac
done
diff <(norm_nbd dyn.map) <(norm_qemu vpc dyn.vhd) || fail "nbdinfo --map differs from qemu-img map of the VHD"
[ "$(wc -l <busy.err)" = 1 ] && grep -q "extent cache .*/c2/sys-snap2 is in use" busy.err || fail "cache in use: $(cat busy.err)"
ok "nbdkit zxblk client=vm1 disk=sys@1: listed with descriptions; each export and the default read as their images; the map has the VHD's holes; a stats file each; a cache in use refused"

# With store= alone every disk is served by name and as NAME@N, each opened
# when a client first asks for it (its cache appears then); an unknown name
# is refused in one line.
nbdkit_zxblk cache=c3 --run 'for e in sys@0 sys@2 data; do nbdcopy "nbd+unix:///$e?socket=$unixsocket" "all-$e.out"; done &&
  ls c3 >opened && ! nbdinfo --size "nbd+unix:///nosuch?socket=$unixsocket" 2>/dev/null &&
  nbdinfo --list --json "$uri" >all.list' 2>all.err || fail "nbdkit zxblk store=vms: a client failed"
for row in sys@0:chain/snap0.raw sys@2:chain/snap2.raw data:dyn.ref; do
  cmp "all-${row%%:*}.out" "${row#*:}" || fail "export ${row%%:*} differs from ${row#*:}"
done
[ "$(echo $(cat opened))" = "data-snap0 sys-snap0 sys-snap2" ] || fail "opened before the list: $(echo $(cat opened))"
"$py" -c 'import json, sys; print(*[e["export-name"] for e in json.load(open(sys.argv[1]))["exports"]])' all.list >all.names
[ "$(cat all.names)" = "sys sys@0 sys@1 data other" ] || fail "nbdinfo --list of store=vms: $(cat all.names)"
[ "$(wc -l <all.err)" = 1 ] &&
  grep -q "no export 'nosuch' in store .*/vms: its disks are sys, data, other (NAME@N for snapshot N)$" all.err ||
  fail "unknown export: '$(cat all.err)'"
ok "nbdkit zxblk store=vms: NAME and NAME@N of every disk read as their images, each opened on demand; an unknown name refused in one line"

# Mistakes on the command line, each in one line before anything listens.
for row in "client=vm3|vms: no client named 'vm3'" "disk=sys@5|disk 'sys' has snapshots 0 to 2, not 5" \
           "disk=sys@x|disk=sys@x: 'x' is not a snapshot number" \
           "client=vm1 statsfile=f|statsfile= is for a server of one disk; this one serves several"; do
  # shellcheck disable=SC2086
  if nbdkit_zxblk ${row%%|*} --run true 2>err; then fail "nbdkit zxblk ${row%%|*} was not refused"; fi
  [ "$(wc -l <err)" = 1 ] && grep -q -- "${row#*|}" err || fail "nbdkit zxblk ${row%%|*}: '$(cat err)'"
done
ok "nbdkit zxblk refused: no such client, no such snapshot, a bad snapshot number, statsfile= with several disks"

# Copying a mostly-empty disk recalls only the extents its blocks hold.
serve --disk empty --cache c3 --stats empty.stats --run 'nbdcopy "$uri" empty.out' >/dev/null || fail "nbdcopy empty"
cmp empty.out empty.ref || fail "the mostly-empty disk"
want=$(norm_qemu vpc empty.vhd | awk -v E=$MiB '$3 == "data" { n += $2 / E } END { print n }')
[ "$(stat_of empty.stats extents_recalled)" = "$want" ] ||
  fail "nbdcopy recalled $(stat_of empty.stats extents_recalled) extents of the mostly-empty disk, not $want"
"$zxblk" stats empty.stats | grep -q "^recalled *$want extents" || fail "zxblk stats of the server's file"
ok "nbdcopy of a 256 MiB disk recalled only its $want data extents (zxblk stats of --stats FILE says so)"

# Four clients at once, and one client with four connections.
serve --disk chain --cache c4 --run 'for i in 1 2 3 4; do nbdcopy "$uri" p$i.out & done; wait &&
  nbdcopy --connections=4 "$uri" mc.out' >/dev/null || fail "parallel nbdcopy"
for f in p1 p2 p3 p4 mc; do cmp $f.out chain/snap2.raw || fail "$f: wrong bytes"; done
ok "four parallel nbdcopy clients and a four-connection one read the merged chain"

# NBD_CMD_CACHE recalls the data extents of its range before the reply;
# reading the range then recalls nothing: not the cached extents again, and
# not the holes, which read as zeros.
cat >cache.py <<'EOF'
import nbd, os, sys, time
def stats():
    # The file is replaced about once a second; the second replacement
    # after now was written from figures taken after now.
    def version():
        st = os.stat(sys.argv[2])
        return st.st_ino, st.st_mtime_ns
    seen, start = [version()], time.time()
    while len(seen) < 3 and time.time() - start < 60:
        time.sleep(0.05)
        v = version()
        if v != seen[-1]: seen.append(v)
    return dict(l.split() for l in open(sys.argv[2]))
h = nbd.NBD()
h.connect_uri(os.environ["uri"])
h.cache(24 << 20, 0)
cached = stats()["extents_recalled"]
data = h.pread(24 << 20, 0)
print(cached, stats()["extents_recalled"], data == open(sys.argv[1], "rb").read(24 << 20))
EOF
serve --disk dyn --cache c5 --stats cache.stats --run "$py cache.py dyn.ref cache.stats >cache.out" >/dev/null ||
  fail "NBD_CMD_CACHE"
want=$(norm_qemu vpc dyn.vhd | awk -v E=$MiB '$3 == "data" && $1 < 24 * E { n += $2 / E } END { print n }')
[ "$(cat cache.out)" = "$want $want True" ] || fail "cache then read: '$(cat cache.out)', not '$want $want True'"
ok "NBD_CMD_CACHE recalled the $want data extents of 24 MiB ahead; the read after it recalled nothing"

# The writable overlay: writes read back, the store is untouched, and the
# next server shows the snapshot as it was.
serve --disk dyn --cache c6 --writable --run 'qemu-io -f raw -c "write -P 0x5a 3M 64k" -c "read -P 0x5a 3M 64k" \
  -c "write -z 20M 1M" -c "read -P 0 20M 1M" "$uri"' >overlay.out || fail "qemu-io through --writable"
[ "$(grep -c '^wrote\|^read' overlay.out)" = 4 ] || fail "$(cat overlay.out)"
serve --disk dyn --cache c6 --run 'nbdcopy "$uri" after.out' >/dev/null
cmp after.out dyn.ref || fail "the overlay outlived its server"
(cd store && sha256sum -c --quiet ../store.sums) || fail "the store changed"
ok "--writable: writes and zeroes read back through the overlay; the store and the next server are unchanged"

# TLS-PSK over TCP: the key gets in; no TLS, or the wrong key, does not.
printf 'alice:%s\n' "$(head -c 32 /dev/urandom | od -An -tx1 | tr -d ' \n')" >keys.psk
printf 'alice:%s\n' "$(head -c 32 /dev/urandom | od -An -tx1 | tr -d ' \n')" >wrong.psk
serve --disk dyn --cache c7 --port 0 --tls-psk keys.psk --run 'nbdinfo --size "$uri" >size
  ! nbdinfo --size "nbd://127.0.0.1:$port/" 2>/dev/null && ! nbdinfo --size "${uri%%\?*}?tls-psk-file=wrong.psk" 2>/dev/null' \
  >tls.out 2>/dev/null || fail "TLS: a client without the key got in, or the one with it did not"
[ "$(cat size)" = "$(stat -c %s dyn.ref)" ] || fail "TLS: size $(cat size)"
grep -q "^serving dyn snapshot 0 at nbds://alice@127.0.0.1:[0-9]*/?tls-psk-file=$work/keys.psk (read-only)$" tls.out ||
  fail "$(cat tls.out)"
ok "TLS-PSK: the key reads the disk; plain NBD and a wrong key are refused"

# Refusals, each in one line and before anything listens.
for row in "--port 0 --bind 0.0.0.0|refusing to serve on 0.0.0.0 without TLS" \
           "--bind 127.0.0.1|--bind requires --port" \
           "--socket x --port 0|--socket excludes --port" \
           "--port 0 --bind nowhere|--bind nowhere: not an IPv4 or IPv6 address" \
           "--snapshot 5|disk dyn has no snapshot 5"; do
  args=${row%%|*} want=${row#*|}
  # shellcheck disable=SC2086
  if serve --disk dyn --cache c8 $args --run true 2>err; then fail "serve $args was not refused"; fi
  [ "$(wc -l <err)" = 1 ] && grep -q -- "$want" err || fail "serve $args: '$(cat err)'"
done
ok "refused: a non-loopback bind without TLS, --bind alone, --socket with --port, a bad address, no such snapshot"

# A lost extent fails its request with EIO and one line; the rest reads.
cat >eio.py <<'EOF'
import nbd, os, sys
h = nbd.NBD()
h.connect_uri(os.environ["uri"])
try:
    h.pread(4096, 6 << 20)
    print("no error")
except nbd.Error as e:
    print(e.errno)
print(h.pread(4 << 20, 0) == open(sys.argv[1], "rb").read(4 << 20))
EOF
serve --disk cut --cache c9 --run "$py eio.py cut.raw >eio.out" >/dev/null 2>eio.err || fail "EIO client"
[ "$(cat eio.out)" = "$(printf 'EIO\nTrue')" ] || fail "lost extent: '$(cat eio.out)'"
[ "$(wc -l <eio.err)" = 1 ] && grep -q "read of 4096 bytes at 6291456 .*failed: extent 6 of disk cut could not be recalled: .*cut-snap0.raw: .*file ends early" eio.err ||
  fail "the log of the failed read: '$(cat eio.err)'"
ok "a cut snapshot file: EIO for its lost extent in one log line, the intact extents read on the same connection"

# In the background: serve returns once the server answers, and stopping it
# removes the socket.
serve --disk dyn --cache c10 --socket "$work/bg.sock" >bg.out || fail "serve in the background"
bg=$(sed -n 's/.*stop with: kill \([0-9]*\)$/\1/p' bg.out)
[ -n "$bg" ] || fail "$(cat bg.out)"
[ "$(t nbdinfo --size "nbd+unix:///?socket=$work/bg.sock")" = "$(stat -c %s dyn.ref)" ] || fail "the background server"
kill "$bg"
for _ in $(seq 100); do [ -e bg.sock ] || break; sleep 0.1; done
[ -e bg.sock ] && fail "the socket outlived the server"
bg=
ok "in the background: serves once zxblk serve returns; kill stops it and removes its socket"
