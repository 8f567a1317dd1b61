#!/usr/bin/env bash
# A store on S3 a network away (100 ms there and back), through a proxy that
# delays every segment and logs every request: a disk of a four-snapshot
# chain is ready after at most three waves of requests that wait on one
# another (the catalog, then every snapshot's metadata at once) and, opened
# again by a new process on a new extent cache, after one (the catalog,
# asked whether it changed); a reader in order gets several blocks per GET;
# the bytes are the merged chain's, also when the service restarts in the
# middle of an export.
#   s3_network_test.sh ZXBLK MAKE_VHD_CHAIN NET_PROXY
set -euo pipefail
zxblk=$1 chain=$2 proxyb=$3
. "$(dirname "$0")/../s3/e2e_scratch.sh"
. "$s3/ceph_env.sh"
export XDG_CACHE_HOME=$work/xdg
make_bucket bkt
store=s3://bkt/net

# A chain of four snapshots with blocks of 2 MiB, and a disk whose blocks
# lie in the file in the disk's order, as qemu-img writes them.
mkdir chain
"$chain" chain $((64 * 1048576)) 2097152 3 7 >/dev/null
head -c $((24 * 1048576)) /dev/urandom >seq.raw
truncate -s 32M seq.raw
qemu-img convert -f raw -O vpc -o subformat=dynamic,force_size=on seq.raw seq.vhd
t "$zxblk" import --store $store --disk chain chain/snap{0,1,2,3}.vhd >/dev/null || fail "import chain"
t "$zxblk" import --store $store --disk seq seq.vhd >/dev/null || fail "import seq"

# A round trip long enough that threads started at once under a loaded
# machine (sanitizers, other tests) still send their requests within it.
proxy_up "$proxyb" proxy --delay-ms 50 --log requests.log
export AWS_ENDPOINT_URL=$proxied
# waves T0: the waves of the requests sent since T0 (Unix time) to get the
# disk ready: all but the GETs of data (more than 64 KiB), once the proxy
# has logged them (a line is written when its answer is through).
waves() {
  sleep 0.3
  grep -v -E '"range":"bytes=[0-9]+-[0-9]+"' requests.log >ready.log || true
  grep -E '"range":"bytes=' requests.log | awk -F'"range":"bytes=' '{ split($2, r, "[-\"]");
    if (r[2] - r[1] < 65536) print }' >>ready.log
  "$proxyb" waves ready.log --epoch --since "$1" ${2:-}
}
# One sector read of the chain's disk: opening it, then one recall.
ready() { t "$zxblk" read --store $store --disk chain --cache "$1" --offset 0 --length 512 >/dev/null || fail "read on $1"; }

rm -rf xdg
t0=$EPOCHREALTIME; ready cold; cold=$(waves "$t0")
[ "$cold" -le 3 ] || { waves "$t0" -v; fail "ready after $cold waves, cold"; }
t0=$EPOCHREALTIME; ready warm; warm=$(waves "$t0")
[ "$warm" = 1 ] || { waves "$t0" -v; fail "ready after $warm waves, warm"; }
# The export's memory: what it held of what it fetched stays within the
# store's budget (16 MiB) and the blocks of the recalls at once (16 of
# 2 MiB), and, where no sanitizer inflates it, the process stays under
# 64 MB. The round trip its replies measured is the link's 100 ms at least.
python3 -c 'import resource, subprocess, sys
r = subprocess.run(sys.argv[2:]).returncode
open(sys.argv[1], "w").write(str(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss))
sys.exit(r)' rss.kib "$zxblk" export --store $store --disk chain --cache warm --out chain.out --json >export.json ||
  fail "export of the chain"
cmp chain.out chain/snap3.raw || fail "the chain's export differs from the merged chain"
read -r held rtt < <(python3 -c 'import json, sys; s = json.load(open(sys.argv[1]))["store"]
print(s["heldPeak"], s["rttSeconds"])' export.json)
[ "$held" -le $((48 << 20)) ] || fail "the export held $held bytes of what it fetched"
python3 -c "import sys; sys.exit(not $rtt >= 0.1)" || fail "a round trip of $rtt s measured through a 100 ms link"
rss=$(cat rss.kib)
# grep reads all of ldd's output: with -q it could stop at the match, and
# ldd, cut off, would fail the pipeline under pipefail.
if ldd "$zxblk" | grep -E 'lib(a|t)san' >/dev/null; then rss_said="(RSS not checked under a sanitizer)"
else [ "$rss" -lt 62500 ] || fail "the export's RSS reached $rss KiB"; rss_said="RSS $rss KiB"; fi
ok "a four-snapshot chain is ready after $cold waves of requests cold, $warm warm; its export is the merged chain, holding at most $held bytes fetched, $rss_said"

# One reader going through the disk in order, one read at a time (no
# readahead): each GET carries on where the last one ended.
t "$zxblk" read --store $store --disk seq --cache seq --offset 0 --length $((24 * 1048576)) >seq.out ||
  fail "read of seq"
cmp seq.out <(head -c $((24 * 1048576)) seq.raw) || fail "the read of seq differs"
sleep 0.3
# Ranged GETs of the data of seq's snapshot (its metadata is read in 64 KiB
# and 512-byte stretches), and the bytes they asked for.
read -r gets bytes largest < <(awk -F'"range":"bytes=' '/seq-snap0.vhd/ && NF > 1 {
  split($2, r, "[-\"]"); n = r[2] - r[1] + 1; if (n > 65536) { gets++; bytes += n; if (n > most) most = n } }
  END { print gets + 0, bytes + 0, most + 0 }' requests.log)
blocks=12  # 24 MiB of data in blocks of 2 MiB
[ "$gets" -gt 0 ] && [ "$gets" -le $((blocks / 2)) ] && [ "$largest" -ge $((3 * 2097152)) ] ||
  fail "$gets GETs for $blocks blocks read in order: $(grep -o 'seq-snap0.vhd[^,]*,"range":"[^"]*' requests.log | tr '\n' ' ')"
[ "$bytes" -lt $((blocks * 2 * 1048576 * 3 / 2)) ] || fail "$bytes bytes fetched for $blocks blocks"
ok "a reader in order fetched $blocks blocks in $gets GETs ($bytes bytes, at most $largest in one)"

# The service goes away in the middle of an export, as radosgw restarting
# would: every connection reset once 20 MB have gone through, and new ones
# refused for a second and a half. Retries carry the export over it.
proxy_up "$proxyb" restart --delay-ms 5 --reset-after-bytes 20000000 --down-for 1.5
AWS_ENDPOINT_URL=$proxied t "$zxblk" export --store $store --disk chain --cache restart --out restart.out -q \
  2>restart.log || { cat restart.log; fail "export across a restart"; }
# Its counters, which it prints as it ends.
kill "${pids[-1]}" && wait "${pids[-1]}" 2>/dev/null || true
cmp restart.out chain/snap3.raw || fail "wrong bytes across a restart"
grep -q "resets=[1-9]" restart.err || { cat restart.err; fail "the proxy reset nothing"; }
ok "an export across the service's restart: retried, the merged chain ($(grep -o 'resets=[0-9]*' restart.err))"
