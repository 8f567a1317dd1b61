#!/usr/bin/env bash
# Two backed-up VMs, as a recovery host presents them: web01, three disks in
# a folder store (a GPT disk with an ext4 partition as a dynamic VHD, a
# differencing chain of three snapshots, a fixed VHD), and db01, two disks in
# a store on S3 (a Ceph cluster of the test's own). One `zxblk serve` per VM
# (nbdinfo --list shows every disk; four nbdcopy at once copy them all),
# one `zxblk mount --client` (every disk and its partitions; debugfs reads a
# file of the ext4 partition), and a program that opens eight disks of both
# stores at once through the library and reads them from eight threads; all
# byte-identical to the images they were made from.
#   vm_test.sh ZXBLK MAKE_VHD_CHAIN READ_DISKS
set -euo pipefail
zxblk=$1 chain=$2 read_disks=$3
for tool in nbdinfo nbdcopy qemu-img sgdisk mke2fs debugfs; do
  command -v $tool >/dev/null || { echo "skipped: $tool is not installed"; exit 77; }
done
step_timeout=300
. "$(dirname "$0")/../s3/e2e_scratch.sh"
export XDG_CACHE_HOME=$work/xdg XDG_RUNTIME_DIR=$work/run
mkdir -p run

# web01: sys, a GPT disk whose ext4 partition holds a few files; data, a
# chain base + two differencing snapshots; logs, a fixed VHD.
mkdir files data db
for i in 1 2 3; do head -c $((i * 300000)) /dev/urandom >files/f$i.bin; done
truncate -s 40M sys.raw
sgdisk -n 1:2048:0 -t 1:8300 sys.raw >/dev/null
mke2fs -q -F -t ext4 -d files part.raw 38M
dd if=part.raw of=sys.raw bs=512 seek=2048 conv=notrunc status=none
qemu-img convert -f raw -O vpc -o subformat=dynamic,force_size=on sys.raw sys.vhd
"$chain" data $((20 * 1048576 + 77 * 512)) 524288 2 11 >/dev/null
head -c 5M /dev/urandom >logs.raw
truncate -s 12M logs.raw
qemu-img convert -f raw -O vpc -o subformat=fixed,force_size=on logs.raw logs.vhd
store=$work/store
imp() { t "$zxblk" import -q --store "$1" --client "$2" --disk "$3" --extent-size 256K "${@:4}" || fail "import $3 into $1"; }
imp "$store" web01 sys sys.vhd
imp "$store" web01 data data/snap0.vhd data/snap1.vhd data/snap2.vhd
imp "$store" web01 logs logs.vhd

# db01 on S3: a chain of two and a dynamic VHD.
. "$s3/ceph_env.sh"
make_bucket vms
remote=s3://vms/site1
"$chain" db $((16 * 1048576)) 1048576 1 23 >/dev/null
head -c 3M /dev/urandom >dblog.raw
truncate -s 8M dblog.raw
qemu-img convert -f raw -O vpc -o subformat=dynamic,force_size=on dblog.raw dblog.vhd
imp $remote db01 db-data db/snap0.vhd db/snap1.vhd
imp $remote db01 db-log dblog.vhd
ok "web01 (3 disks) in a folder store, db01 (2 disks) on S3"

# Every disk of a VM from one server each; what each export must hold.
declare -A ref=([sys]=sys.raw [data]=data/snap2.raw [logs]=logs.raw [db-data]=db/snap1.raw [db-log]=dblog.raw)
declare -A sock=([sys]=web.sock [data]=web.sock [logs]=web.sock [db-data]=db.sock [db-log]=db.sock)
"$zxblk" serve --store "$store" --client web01 --socket "$work/web.sock" -f >web.out 2>web.err &
pids+=($!)
"$zxblk" serve --store $remote --client db01 --socket "$work/db.sock" -f >db.out 2>db.err &
pids+=($!)
for s in web db; do
  for _ in $(seq 600); do [ -S "$work/$s.sock" ] && nbdinfo --list "nbd+unix:///?socket=$work/$s.sock" >/dev/null 2>&1 && break; sleep 0.1; done
  t nbdinfo --list --json "nbd+unix:///?socket=$work/$s.sock" >"$s.list" || { cat $s.err; fail "nbdinfo --list of $s"; }
done
for d in "${!ref[@]}"; do
  list=${sock[$d]%.sock}.list
  python3 - "$list" "$d" <<'PY' || fail "nbdinfo --list does not show $d: $(cat "$list")"
import json, sys
names = [e["export-name"] for e in json.load(open(sys.argv[1]))["exports"]]
sys.exit(0 if sys.argv[2] in names else 1)
PY
done
ok "nbdinfo --list shows every disk of each VM: $(python3 -c 'import json,sys; print(" ".join(e["export-name"] for f in sys.argv[1:] for e in json.load(open(f))["exports"]))' web.list db.list)"
running=0
for d in "${!ref[@]}"; do
  nbdcopy --connections=4 "nbd+unix:///$d?socket=$work/${sock[$d]}" "copy-$d.raw" &
  running=$((running + 1))
  [ $running -lt 4 ] || { wait -n || fail "an nbdcopy failed: $(tail -n 20 web.err db.err)"; running=$((running - 1)); }
done
while [ $running -gt 0 ]; do wait -n || fail "an nbdcopy failed: $(tail -n 20 web.err db.err)"; running=$((running - 1)); done
for d in "${!ref[@]}"; do cmp "copy-$d.raw" "${ref[$d]}" || fail "nbdcopy of $d differs from its image"; done
ok "four nbdcopy at once copied all five disks byte-identical"
for p in "${pids[@]}"; do kill -TERM "$p"; done
wait "${pids[@]}" || true
pids=()

# One mount shows every disk of web01, each with its partitions.
mkdir mnt
t "$zxblk" mount --store "$store" --client web01 "$work/mnt" >mount.out 2>mount.err || { cat mount.err; fail "mount --client"; }
mounts=("$work/mnt")
for d in sys data logs; do cmp "mnt/$d/disk.raw" "${ref[$d]}" || fail "mnt/$d/disk.raw differs"; done
[ -e mnt/sys/part1 ] || fail "no mnt/sys/part1: $(ls mnt/sys)"
# The partition runs to the GPT's end; the file system made for it fills its start.
cmp -n "$(stat -c %s part.raw)" mnt/sys/part1 part.raw || fail "mnt/sys/part1 differs from the file system in it"
for i in 1 2 3; do
  t debugfs -R "cat /f$i.bin" mnt/sys/part1 2>/dev/null >"got$i.bin"
  cmp "got$i.bin" "files/f$i.bin" || fail "debugfs: /f$i.bin differs"
done
fusermount3 -u "$work/mnt"
mounts=()
ok "mount --client: sys, data and logs, sys/part1's files read byte-exact with debugfs"

# Eight disks of both stores open at once in one program, read from eight threads.
t "$read_disks" "$work/api-caches" \
  "$store,sys,-1,sys.raw" "$store,data,2,data/snap2.raw" "$store,data,1,data/snap1.raw" "$store,data,0,data/snap0.raw" \
  "$store,logs,-1,logs.raw" "$remote,db-data,1,db/snap1.raw" "$remote,db-data,0,db/snap0.raw" "$remote,db-log,-1,dblog.raw" \
  >api.out 2>&1 || { cat api.out; fail "eight disks read at once"; }
[ "$(grep -c '^ok:' api.out)" = 8 ] || { cat api.out; fail "not eight disks read"; }
ok "eight disks of two stores read at once from eight threads through the library"
