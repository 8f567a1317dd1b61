# Sourced by the end-to-end tests that need S3: starts a throw-away Ceph
# cluster in ./ceph (the caller's scratch folder, which it stops with
# ceph_down.sh), exits 77 where Ceph is not installed, and leaves the
# environment as a user's would be for it alone: its endpoint and keys,
# no profile or credentials file of the machine's. curl_s3 is curl signed
# for it; make_bucket NAME makes a bucket.
rc=0
"$(dirname "${BASH_SOURCE[0]}")/ceph_up.sh" ceph >ceph_up.log 2>&1 || rc=$?
[ $rc = 77 ] && { cat ceph_up.log; exit 77; }
[ $rc = 0 ] || { cat ceph_up.log; echo "FAIL: ceph_up.sh: exit $rc"; exit 1; }
set -a
. ceph/env
set +a
unset AWS_PROFILE AWS_SESSION_TOKEN AWS_DEFAULT_REGION
export AWS_SHARED_CREDENTIALS_FILE=$PWD/none AWS_CONFIG_FILE=$PWD/none
curl_s3() {
  curl -sS --fail-with-body --aws-sigv4 "aws:amz:$AWS_REGION:s3" --user "$AWS_ACCESS_KEY_ID:$AWS_SECRET_ACCESS_KEY" \
    -H "x-amz-content-sha256: UNSIGNED-PAYLOAD" "$@"
}
make_bucket() { curl_s3 -X PUT "$AWS_ENDPOINT_URL/$1" >/dev/null; }
