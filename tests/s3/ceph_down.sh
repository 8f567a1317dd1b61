#!/usr/bin/env bash
# ceph_down.sh DIR: stops the daemons ceph_up.sh DIR started (radosgw, then
# the OSD, then the monitor: an OSD whose monitor is gone waits seconds before
# it exits) and removes DIR. Only processes whose pid file lies in DIR and
# whose command line names DIR's ceph.conf are touched.
set -uo pipefail
[ $# -eq 1 ] || { echo "usage: $0 DIR" >&2; exit 2; }
[ -d "$1" ] || exit 0
D=$(cd -- "$1" && pwd -P)
[ -e "$D/.zxblk-ceph" ] || { echo "ceph_down: $D was not made by ceph_up.sh; left alone" >&2; exit 1; }
conf=$D/ceph.conf
ours() { [[ $1 =~ ^[0-9]+$ ]] && tr '\0' '\n' 2>/dev/null <"/proc/$1/cmdline" | grep -qxF -- "$conf"; }
started=$(date +%s%N)
for name in client.rgw.a osd.0 mon.a; do
  p=$(cat "$D/run/$name.pid" 2>/dev/null) && ours "$p" || continue
  kill -TERM "$p" 2>/dev/null
  for _ in $(seq 100); do ours "$p" || break; sleep 0.05; done      # 5 s
  if ours "$p"; then
    echo "ceph_down: $name (pid $p) still running after SIGTERM; SIGKILL" >&2
    kill -KILL "$p" 2>/dev/null
    while ours "$p"; do sleep 0.05; done
  fi
done
rm -rf -- "$D"
echo "ceph_down: stopped in $(( ($(date +%s%N) - started) / 1000000 )) ms" >&2
