#!/usr/bin/env bash
# zxblk boot of the small bootable disk (make_boot_disk.sh) imported as a
# chain, base + differencing child, into an S3 store (a Ceph cluster of the
# test's own), under TCG.
#  - The guest prints the marker and "data OK" (the child's data file), its
#    boot count is in the overlay after the VM stops and says 2 at the next
#    boot, and every object of the store keeps its ETag.
#  - --restore-to of a guest kept up by --wait, radosgw killed (SIGKILL)
#    once the copy is under way: one warning once the store's retries run
#    out, the guest goes on from what is cached to its own power-off, and
#    the restore folder holds nothing.
#   boot_s3_test.sh ZXBLK MAKE_DIFF_VHD
set -euo pipefail
zxblk=$1 diff_vhd=$2
tests=$(cd "$(dirname "$0")/.." && pwd)
. "$tests/s3/e2e_scratch.sh"
. "$tests/boot/boot_common.sh"
needs qemu-system-x86_64 qemu-img debugfs curl

# Once radosgw is gone the copy goes on through what the guest's boot
# cached (some 20 MiB at 1 MiB/s), and at the first extent it must fetch
# the S3 client retries the GET for 20 s before the read fails: the
# warning comes 35-40 s after the kill. The guest stays up well beyond.
wait_s=75
make_disk d
make_disk w --wait $wait_s
. d/disk.env
. "$s3/ceph_env.sh"
make_bucket bkt
store=s3://bkt/vms
t "$zxblk" import -q --store $store --client vm --disk sys d/base.vhd d/child.vhd >/dev/null || fail "import vm"
t "$zxblk" import -q --store $store --client vmw --disk sysw w/base.vhd w/child.vhd >/dev/null || fail "import vmw"
# Every object with its ETag (the store may add its index of mount extents).
objects() { curl_s3 "$AWS_ENDPOINT_URL/bkt?list-type=2" | grep -o '<Key>[^<]*</Key>\|<ETag>[^<]*</ETag>' | paste - -; }
objects >objects.before
[ "$(wc -l <objects.before)" -ge 4 ] || fail "the store should hold the catalog and four snapshots: $(cat objects.before)"

# boot LOG [OPTION...]: one boot with the console in LOG, its own words in
# LOG.err; 180 s is far more than a boot of this disk takes under TCG.
ov=$work/overlays
boot() {
  local log=$1
  shift
  timeout 180 "$zxblk" boot --store $store --client vm --overlay-dir "$ov" --log "$log" "$@" 2>"$log.err"
}
boot con1.log || fail "first boot, exit $?: $(cat con1.log.err)"
grep -q "$marker" con1.log || fail "no marker on the console: $(tail -5 con1.log)"
grep -q "data OK" con1.log || fail "the guest did not read the child's data file: $(tail -5 con1.log)"
# The guest's file, from the overlay laid over the disk the chain presents.
overlay="{\"driver\":\"file\",\"filename\":\"$ov/sys.qcow2\"}"
qemu-img convert -O raw "json:{\"driver\":\"qcow2\",\"file\":$overlay,
  \"backing\":{\"driver\":\"raw\",\"file\":{\"driver\":\"file\",\"filename\":\"$disk\"}}}" merged.raw
written=$(debugfs -R "cat $written_path" "merged.raw?offset=$part_offset" 2>/dev/null)
[ "$written" = "boot=1" ] || fail "the overlay should hold boot=1, holds '$written'"
boot con2.log || fail "second boot, exit $?: $(cat con2.log.err)"
grep -q "boot=2" con2.log || fail "the second boot should count 2: $(tail -3 con2.log)"
missing=$(objects | LC_ALL=C comm -23 <(LC_ALL=C sort objects.before) <(LC_ALL=C sort -))
[ -z "$missing" ] || fail "objects changed or gone: $missing"
ok "booted the chain from $store twice: marker, data OK, boot=1 in the overlay, boot=2;" \
  "$(wc -l <objects.before) objects keep their ETags"

# A copy of a megabyte a second, no readahead: most of the disk is neither
# copied nor cached when radosgw goes.
timeout 300 "$zxblk" boot --store $store --client vmw --overlay-dir "$work/w.ov" --log w.log --cache "$work/w.cache" \
  --restore-to "$work/r" --restore-speed 1M/s --readahead 0 --shutdown-timeout 5 2>w.err &
boot_pid=$!
pids+=($boot_pid)
# until_in FILE PATTERN: waits (120 s at most) until FILE holds PATTERN.
until_in() {
  for _ in $(seq 2400); do grep -q -- "$2" "$1" 2>/dev/null && return 0; sleep 0.05; done
  fail "no '$2' in $1 after 120 s: $(tail -3 "$1")"
}
until_in w.log "$marker"
until_in w.err "restore vmw sysw: [0-9.]* [KM]iB of "
kill -KILL "$(cat ceph/run/client.rgw.a.pid)"
killed=$SECONDS
until_in w.err "warning: live restore of vmw failed"
took=$((SECONDS - killed))
ups=$(grep -c "zxblk-test-guest: up" w.log || true)
rc=0
wait $boot_pid || rc=$?
pids=()
[ $rc = 0 ] || fail "boot with radosgw killed under the copy: exit $rc: $(cat w.err)"
[ "$(grep -c warning w.err)" = 1 ] || fail "one warning wanted: $(cat w.err)"
grep -q "warning: live restore of vmw failed: sysw: .*; the VM goes on running from the backup$" w.err ||
  fail "the warning: $(grep warning w.err)"
[ "$(grep -c "zxblk-test-guest: up" w.log)" -gt "$ups" ] && grep -q "up $wait_s s" w.log ||
  fail "the guest should go on running after the warning: $(tail -3 w.log)"
grep -q "Power down" w.log || fail "the guest should power off by itself: $(tail -3 w.log)"
[ -z "$(ls -A r)" ] || fail "the restore folder should be empty: $(ls -A r)"
ok "radosgw killed under the copy: one warning $took s later, the guest ran on to its power-off, nothing in r"
