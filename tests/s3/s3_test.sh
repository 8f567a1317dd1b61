#!/usr/bin/env bash
# s3_test.sh CLIENT_TEST: runs CLIENT_TEST (the S3 client's gtest program)
# against a Ceph cluster of its own, directly and through net_proxy --faults, and
# reads its multipart upload back with curl's own S3 signing. The cluster
# and the proxy are stopped and every file removed however it ends.
# Skipped (77) where Ceph is not installed.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
client_test=$1
work=$(mktemp -d)
proxy=
cleanup() {
  if [ -n "$proxy" ]; then kill "$proxy" 2>/dev/null || true; wait "$proxy" 2>/dev/null || true; fi
  [ -e "$work/proxy.log" ] && cat "$work/proxy.log"
  [ -d "$work/ceph" ] && "$here/ceph_down.sh" "$work/ceph"
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*"; exit 1; }

rc=0
"$here/ceph_up.sh" "$work/ceph" >"$work/up.log" 2>&1 || rc=$?
if [ $rc = 77 ]; then cat "$work/up.log"; exit 77; fi
if [ $rc != 0 ]; then
  cat "$work/up.log"
  tail -n 5 "$work"/ceph/log/*.log 2>/dev/null || true
  fail "ceph_up.sh: exit $rc"
fi
grep '^ceph_up:' "$work/up.log"
# Killed outright (ctest's timeout kills the whole process tree), this
# script runs no trap: a watchdog outside that tree (forked twice, so init
# adopts it) then stops the cluster.
(setsid bash -c 'while kill -0 "$0" 2>/dev/null; do sleep 1; done; "$1" "$2"; rm -rf "$3"' \
  $$ "$here/ceph_down.sh" "$work/ceph" "$work" </dev/null >/dev/null 2>&1 &)
set -a
. "$work/ceph/env"
set +a
# The cluster's keys only: nothing from the caller's environment or ~/.aws.
unset AWS_PROFILE AWS_DEFAULT_PROFILE AWS_SESSION_TOKEN AWS_DEFAULT_REGION AWS_ENDPOINT_URL_S3
export AWS_SHARED_CREDENTIALS_FILE=$work/no-credentials AWS_CONFIG_FILE=$work/no-config

"$(dirname "$client_test")/net_proxy" "${AWS_ENDPOINT_URL#http://}" "$work/proxy.port" --faults 2>"$work/proxy.log" &
proxy=$!
for _ in $(seq 100); do [ -s "$work/proxy.port" ] && break; sleep 0.05; done
[ -s "$work/proxy.port" ] || fail "net_proxy did not start"

# Another S3 client, curl with its own signing: it makes the bucket and
# begins an upload that it leaves open, for the test to find and abort.
bucket=zxblk-test
s3curl() {
  curl -sS --fail-with-body --aws-sigv4 "aws:amz:$AWS_REGION:s3" --user "$AWS_ACCESS_KEY_ID:$AWS_SECRET_ACCESS_KEY" \
    -H "x-amz-content-sha256: UNSIGNED-PAYLOAD" "$@"
}
s3curl -o /dev/null -X PUT "$AWS_ENDPOINT_URL/$bucket"
s3curl -o /dev/null -X POST "$AWS_ENDPOINT_URL/$bucket/abort/dangling?uploads="

ZXBLK_S3_BUCKET=$bucket ZXBLK_S3_WORK=$work ZXBLK_S3_FAULTY_ENDPOINT=http://127.0.0.1:$(cat "$work/proxy.port") \
  "$client_test"

s3curl -o "$work/big.back" "$AWS_ENDPOINT_URL/$bucket/multipart/big.bin"
cmp "$work/big.back" "$work/big.bin" || fail "curl reads other bytes than the file uploaded in parts"
echo "ok: curl reads the multipart upload back byte for byte"
