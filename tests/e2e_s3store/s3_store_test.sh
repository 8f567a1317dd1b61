#!/usr/bin/env bash
# A store on S3 (a Ceph cluster of the test's own): a differencing chain
# imported into s3://..., then export, read, serve + nbdcopy and mount all
# byte-identical to the merged image, the same for a VHDX chain (4096-byte
# sectors, every block state) against its writer's plan, a file read with
# debugfs off a mounted ext4 disk, only the extents read fetched, two mounts
# of one disk at once, two racing imports that both land, a replaced object
# refused, wrong keys and a missing bucket in one line, and reads through a
# proxy that drops and stalls connections costing retries, never wrong bytes.
#   s3_store_test.sh ZXBLK MAKE_VHD_CHAIN MAKE_VHDX_CHAIN
set -euo pipefail
zxblk=$1 chain=$2 vhdx_chain=$3
. "$(dirname "$0")/../s3/e2e_scratch.sh"
. "$s3/ceph_env.sh"
export XDG_CACHE_HOME=$work/xdg
make_bucket bkt
store=s3://bkt/backups/site1
stat_of() { awk -v k="$2" '$1 == k { print $2 }' "$1"; }

# The chain: 24 MiB and a bit, blocks of half an extent; and an ext4 disk.
mkdir chain src
"$chain" chain $((24 * 1048576 + 37 * 512)) 524288 2 41 >/dev/null
head -c 300000 /dev/urandom >src/file.bin
mke2fs -q -F -t ext4 -d src fs.raw 32M >/dev/null
qemu-img convert -f raw -O vpc -o subformat=dynamic,force_size=on fs.raw fs.vhd
t "$zxblk" import --store $store --disk chain chain/snap0.vhd chain/snap1.vhd chain/snap2.vhd >import.out ||
  { cat import.out; fail "import into $store"; }
grep -q "into $store as chain snapshot 2 " import.out || fail "$(cat import.out)"
t "$zxblk" list --store $store --json >list.json || fail "list"
[ "$(grep -c '"status": "ok"' list.json)" = 3 ] || { cat list.json; fail "list: not 3 snapshots ok"; }
ok "a three-snapshot chain imported into $store; list shows it"

t "$zxblk" export --store $store --disk chain --cache c1 --out chain.out -q || fail "export"
cmp chain.out chain/snap2.raw || fail "export differs from the merged chain"
t "$zxblk" read --store $store --disk chain --cache c2 --offset 5000000 --length 70000 >read.out || fail "read"
cmp read.out <(tail -c +5000001 chain/snap2.raw | head -c 70000) || fail "read differs"
t "$zxblk" serve --store $store --disk chain --cache c3 --run 'nbdcopy "$uri" nbd.out' >/dev/null || fail "serve"
cmp nbd.out chain/snap2.raw || fail "nbdcopy differs"
ok "export, read and serve + nbdcopy of the S3 store equal the merged chain"

# A VHDX chain read from S3 objects, which tell no holes: 4096-byte sectors
# (a bitmap bit is eight 512-byte sectors), every block state.
mkdir vchain
"$vhdx_chain" vchain --size $((12 * 1048576 + 5 * 4096)) --block-size 1048576 --logical-sector 4096 --seed 7 \
  >vchain/files || fail "make_vhdx_chain"
mapfile -t vfiles < <(cut -d' ' -f1 vchain/files)
mapfile -t vraws < <(cut -d' ' -f2 vchain/files)
t "$zxblk" import -q --store $store --disk vchain "${vfiles[@]}" || fail "import of the VHDX chain into $store"
for i in "${!vfiles[@]}"; do
  t "$zxblk" export -q --store $store --disk vchain --snapshot "$i" --cache vc$i --out vchain.out$i || fail "export of VHDX snapshot $i"
  cmp vchain.out$i "${vraws[i]}" || fail "VHDX snapshot $i exports other bytes than its writer planned"
done
t "$zxblk" serve --store $store --disk vchain --cache vc9 --run 'nbdcopy "$uri" vnbd.out' >/dev/null || fail "serve of the VHDX chain"
cmp vnbd.out "${vraws[-1]}" || fail "nbdcopy of the VHDX chain differs from its writer's plan"
ok "a VHDX chain of ${#vfiles[@]} levels on S3: each snapshot exports, and the newest serves, as its writer planned"
# A default cache (under $XDG_CACHE_HOME) of a disk on S3, purged by the store's URL.
t "$zxblk" read --store $store --disk chain --offset 0 --length 4096 >/dev/null || fail "read with the default cache"
[ -n "$(ls xdg/zxblk)" ] || fail "no default cache"
t "$zxblk" cache purge --store $store >purge.out || fail "cache purge --store $store"
[ -z "$(ls xdg/zxblk | grep -vx 'index\|s3-metadata')" ] || { cat purge.out; fail "cache purge left $(ls xdg/zxblk)"; }

# A read fetches its extents, not the disk: one 4 KiB read through NBD.
py=
for p in python3 /usr/bin/python3; do "$p" -c 'import nbd; nbd.NBD' 2>/dev/null && { py=$p; break; }; done
[ -n "$py" ] || fail "no python3 with libnbd's binding (python3-libnbd)"
t "$zxblk" serve --store $store --disk chain --cache c4 --stats one.stats \
  --run "$py -c 'import nbd, os; h = nbd.NBD(); h.connect_uri(os.environ[\"uri\"]); h.pread(4096, 0)'" >/dev/null ||
  fail "one read through NBD"
gets=$(stat_of one.stats store_get_bytes)
[ -n "$gets" ] && [ "$gets" -lt $((6 * 1048576)) ] || fail "reading the start of the disk fetched ${gets:-?} bytes"
ok "reading the start of the disk fetched $gets bytes of a $(stat -c %s chain/snap2.raw)-byte disk ($(stat_of one.stats store_gets) GETs)"

# Two hosts at once: two mounts of the same disk, each with its cache; and
# the chain through a mount.
"$zxblk" import --store $store --disk fs fs.vhd >/dev/null || fail "import fs"
if [ -e /dev/fuse ] && command -v fusermount3 >/dev/null; then
  for m in m1 m2; do
    mkdir $m
    t "$zxblk" mount --store $store --disk fs --cache c-$m $m >/dev/null || fail "mount $m"
    mounts+=("$work/$m")
  done
  for m in m1 m2; do
    t debugfs -R "cat /file.bin" $m/disk.raw 2>/dev/null | cmp - src/file.bin || fail "$m: debugfs reads another file"
  done
  t cmp m1/disk.raw m2/disk.raw || fail "the two mounts differ"
  mkdir m3
  t "$zxblk" mount --store $store --disk chain --cache c-m3 m3 >/dev/null || fail "mount the chain"
  mounts+=("$work/m3")
  t cmp m3/disk.raw chain/snap2.raw || fail "the mounted chain differs from the merged image"
  for m in m1 m2 m3; do fusermount3 -u $m; done
  mounts=()
  ok "two mounts of one disk on S3 at once (debugfs reads the file back on both); the mounted chain equals the merged image"
fi

# Two imports racing on one store: both land, neither loses the other.
truncate -s 8M a.raw b.raw
"$zxblk" import --store $store --disk racea --format raw a.raw >ra.out 2>&1 &
pa=$!
"$zxblk" import --store $store --disk raceb --format raw b.raw >rb.out 2>&1 || fail "racing import b: $(cat rb.out)"
wait $pa || fail "racing import a: $(cat ra.out)"
t "$zxblk" list --store $store >list.out
for d in chain racea raceb; do grep -q "^$d" list.out || { cat list.out; fail "disk $d lost"; }; done
ok "two racing imports both landed; the catalog lost nothing"

# A replaced object is refused, as a replaced file is: by a server that has
# it open (its reads ask for the version opened), and when it is opened.
readat() { echo "import nbd, os
h = nbd.NBD(); h.connect_uri(os.environ['uri'])
try: h.pread(4096, $1); print('read')
except nbd.Error as e: print(e.errno)"; }
readat 0 >r0.py
readat $((12 * 1048576)) >r12.py
echo "$(declare -f curl_s3); curl_s3 -T chain/snap1.vhd $AWS_ENDPOINT_URL/bkt/backups/site1/snapshots/chain-snap2.vhd" >replace.sh
t "$zxblk" serve --store $store --disk chain --cache c5 --run "$py r0.py >replaced.out && bash replace.sh >/dev/null &&
  $py r12.py >>replaced.out" >/dev/null 2>replaced.err || { cat replaced.err; fail "serve while an object is replaced"; }
[ "$(cat replaced.out)" = "$(printf 'read\nEIO')" ] || { cat replaced.err; fail "replaced under a server: '$(cat replaced.out)'"; }
grep -q "chain-snap2.vhd: GET .*the object was replaced" replaced.err || { cat replaced.err; fail "replaced: not said"; }
if t "$zxblk" export --store $store --disk chain --cache c5b --out x.out 2>err; then fail "a replaced object exported"; fi
# Its metadata kept from earlier opens, the first GET of it says so.
grep -Eq "chain-snap2.vhd(\) is damaged)?: (ETag: the catalog records|GET .*the object was replaced)" err ||
  { cat err; fail "replaced object: unclear"; }
XDG_CACHE_HOME=$PWD/xdg-new t "$zxblk" export --store $store --disk chain --cache c5c --out x.out 2>err2 &&
  fail "a replaced object exported with nothing kept"
grep -q "snapshot 2 (snapshots/chain-snap2.vhd) is damaged: ETag: the catalog records" err2 || { cat err2; fail "replaced object, opened anew: unclear"; }
ok "a replaced object: EIO from a server that had it open, and refused when opened: $(grep -m1 -o 'ETag: .*' err2)"

# Wrong keys, a missing bucket: one line each.
for row in "AWS_SECRET_ACCESS_KEY=wrong|s3://bkt/backups/site1|403" "|s3://nobucket/x|NoSuchBucket"; do
  env=${row%%|*} rest=${row#*|} loc=${rest%%|*} want=${rest#*|}
  if env $env "$zxblk" list --store "$loc" >/dev/null 2>err; then fail "list $loc with $env"; fi
  [ "$(wc -l <err)" = 1 ] && grep -q "$want" err || { cat err; fail "$env $loc: not one line with $want"; }
  grep -q "$AWS_SECRET_ACCESS_KEY" err && fail "the secret key is in an error"
done
ok "wrong keys and a missing bucket are one-line errors, without the secret"

# Through a proxy that refuses, stalls and cuts connections: retries, and
# the right bytes.
proxy_up "$(dirname "$chain")/../s3/net_proxy" proxy --faults
AWS_ENDPOINT_URL=$proxied t "$zxblk" serve --store s3://bkt/backups/site1 --disk fs --cache c6 \
  --stats proxy.stats --run 'nbdcopy "$uri" proxy.out' >/dev/null 2>&1 || fail "copy through the faulty proxy"
cmp proxy.out <(head -c $(stat -c %s fs.raw) fs.raw) || fail "wrong bytes through the faulty proxy"
[ "$(stat_of proxy.stats store_retries)" -gt 0 ] || fail "no retries counted through the faulty proxy"
ok "through a proxy that drops and stalls connections: $(stat_of proxy.stats store_retries) retries, the right bytes"
