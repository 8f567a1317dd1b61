#!/usr/bin/env bash
# ceph_up.sh DIR: a throw-away single-node Ceph cluster for the S3 tests, all
# of it under DIR and on 127.0.0.1 only: one monitor, one OSD that keeps
# objects in its memory (memstore), radosgw (beast) on a free port, and one
# S3 user with fixed test keys. Writes DIR/env, which it also prints:
#   AWS_ENDPOINT_URL AWS_ACCESS_KEY_ID AWS_SECRET_ACCESS_KEY AWS_REGION CEPH_CONF
# Exits 77 ("skipped: ...") where Ceph is not installed. Stop it with
# ceph_down.sh DIR, which stops exactly these daemons and removes DIR.
set -euo pipefail
[ $# -eq 1 ] || { echo "usage: $0 DIR" >&2; exit 2; }
# DIR lands in ceph.conf, whose syntax has no quoting.
case "$1" in *[[:space:],=\;#]*) echo "ceph_up: DIR must not contain spaces or any of , = ; #" >&2; exit 2;; esac
for p in ceph-mon ceph-osd radosgw radosgw-admin monmaptool ceph; do
  command -v "$p" >/dev/null || { echo "skipped: $p is not installed (apt-get install ceph radosgw)"; exit 77; }
done
for p in ss uuidgen curl; do
  command -v "$p" >/dev/null || { echo "ceph_up: $p is not installed" >&2; exit 1; }
done

ACCESS_KEY=ZXBLKTESTACCESSKEY01
SECRET_KEY=zxblkTestSecretKey0000000000000000000001
WAIT=${CEPH_UP_TIMEOUT:-60}

# DIR must be new or empty: never take over another cluster's folder.
mkdir -p -- "$1"
[ -z "$(ls -A -- "$1")" ] || { echo "ceph_up: $1 is not empty" >&2; exit 1; }
D=$(cd -- "$1" && pwd -P)
echo $$ >"$D/.zxblk-ceph"            # ceph_down.sh removes only folders marked so
mkdir -p "$D/run" "$D/log" "$D/mon" "$D/osd/ceph-0" "$D/rgw"
export CEPH_CONF=$D/ceph.conf
started=$(date +%s%N)

# A pid is one of ours while it lives with our ceph.conf on its command line
# (a reused pid or a zombie is not).
ours() { [[ $1 =~ ^[0-9]+$ ]] && tr '\0' '\n' 2>/dev/null <"/proc/$1/cmdline" | grep -qxF -- "$CEPH_CONF"; }
fail() {
  echo "ceph_up: $* (logs in $D/log)" >&2
  local f p
  for f in "$D"/run/*.pid; do
    [ -e "$f" ] && p=$(cat "$f" 2>/dev/null) && ours "$p" && kill -9 "$p" 2>/dev/null || true
  done
  exit 1
}
trap 'fail "command failed at line $LINENO"' ERR

free_port() {   # one nobody listens on now, below the ephemeral range
  local p
  for _ in $(seq 100); do
    p=$((20000 + RANDOM % 12000))
    [ -z "$(ss -Hltn "sport = :$p")" ] && { echo "$p"; return; }
  done
  return 1
}
# Ready means the daemon of that pid file listens on the port: another
# cluster's daemon on a port taken since free_port must not count.
owns_port() { local p; p=$(cat "$D/run/$1.pid" 2>/dev/null) && ss -Hltnp "sport = :$2" | grep -q "pid=$p,"; }
# until NAME WHAT COMMAND...: poll COMMAND; fail early once daemon NAME has died.
until_ready() {
  local name=$1 what=$2 end=$((SECONDS + WAIT)) p seen=
  shift 2
  until "$@" >/dev/null 2>&1; do
    [ $SECONDS -lt $end ] || fail "no $what after ${WAIT}s"
    # The pid file may be caught empty while it is written, and goes when
    # the daemon exits: remember the pid once seen and watch that.
    p=$(cat "$D/run/$name.pid" 2>/dev/null) || p=
    [[ $p =~ ^[0-9]+$ ]] && seen=$p
    [ -z "$seen" ] || ours "$seen" || fail "$name died before $what"
    sleep 0.1
  done
}

MON_PORT=$(free_port)
RGW_PORT=$(free_port)
FSID=$(uuidgen)
cat >"$CEPH_CONF" <<EOF
[global]
fsid = $FSID
mon host = [v2:127.0.0.1:$MON_PORT]
public addr = 127.0.0.1
ms bind msgr1 = false
ms bind ipv6 = false
auth cluster required = none
auth service required = none
auth client required = none
mon warn on insecure global id reclaim allowed = false
run dir = $D/run
pid file = $D/run/\$name.pid
admin socket = $D/run/\$name.asok
log file = $D/log/\$name.log
crash dir = $D/log
mon data = $D/mon/\$cluster-\$id
osd data = $D/osd/\$cluster-\$id
rgw data = $D/rgw
mon cluster log to file = false
# One OSD, one copy, few placement groups.
osd pool default size = 1
osd pool default min size = 1
mon allow pool size one = true
mon warn on pool no redundancy = false
osd pool default pg num = 8
osd pool default pgp num = 8
osd pool default pg autoscale mode = off
mon max pg per osd = 1000
osd crush chooseleaf type = 0
# The monitor batches map changes for 1 s by default; radosgw creates its
# pools one by one at first start, which then takes over ten seconds.
paxos propose interval = 0.05
paxos min wait = 0.01
# A fairly full host disk must not stop the monitor.
mon data avail warn = 2
mon data avail crit = 1
osd objectstore = memstore
memstore device bytes = 2147483648
osd op num shards = 2
osd op num threads per shard = 1

[client]
admin socket =
log file = $D/log/client.log

[client.rgw.a]
admin socket = $D/run/\$name.asok
log file = $D/log/\$name.log
# Without cephx, radosgw's default secure mode to the monitor fails (EACCES)
# only after minutes: ask for crc.
ms mon client mode = crc
rgw frontends = beast endpoint=127.0.0.1:$RGW_PORT
rgw thread pool size = 32
rgw enable usage log = false
rgw enable ops log = false
EOF

# Each daemon forks into the background and writes run/NAME.pid; -c puts
# our ceph.conf on its command line, which is how ours() knows it.
monmaptool --create --fsid "$FSID" --addv a "[v2:127.0.0.1:$MON_PORT]" "$D/monmap" >/dev/null
ceph-mon -c "$CEPH_CONF" --mkfs -i a --monmap "$D/monmap" >"$D/log/mon-mkfs.log" 2>&1 || fail "ceph-mon --mkfs failed"
ceph-mon -c "$CEPH_CONF" -i a 2>>"$D/log/stderr.log"
until_ready mon.a "monitor on port $MON_PORT" eval 'owns_port mon.a $MON_PORT && timeout 5 ceph mon stat'

OSD_UUID=$(uuidgen)
[ "$(timeout 30 ceph osd new "$OSD_UUID")" = 0 ] || fail "ceph osd new did not give osd.0"
ceph-osd -c "$CEPH_CONF" -i 0 --mkfs --osd-uuid "$OSD_UUID" >"$D/log/osd-mkfs.log" 2>&1 || fail "ceph-osd --mkfs failed"
ceph-osd -c "$CEPH_CONF" -i 0 2>>"$D/log/stderr.log"
until_ready osd.0 "osd.0 up" eval 'timeout 10 ceph osd dump | grep -q "^osd\.0 up "'

radosgw -c "$CEPH_CONF" -n client.rgw.a 2>>"$D/log/stderr.log"
ENDPOINT=http://127.0.0.1:$RGW_PORT
until_ready client.rgw.a "radosgw on $ENDPOINT" eval 'owns_port client.rgw.a $RGW_PORT && curl -sf -o /dev/null $ENDPOINT/'
radosgw-admin user create --uid=zxblk-test --display-name="zxblk test" \
  --access-key="$ACCESS_KEY" --secret-key="$SECRET_KEY" >"$D/log/user.json" 2>"$D/log/user.err" ||
  fail "radosgw-admin user create failed"
trap - ERR

cat >"$D/env" <<EOF
AWS_ENDPOINT_URL=$ENDPOINT
AWS_ACCESS_KEY_ID=$ACCESS_KEY
AWS_SECRET_ACCESS_KEY=$SECRET_KEY
AWS_REGION=us-east-1
CEPH_CONF=$CEPH_CONF
EOF
cat "$D/env"
echo "ceph_up: cluster up in $(( ($(date +%s%N) - started) / 1000000 )) ms" >&2
