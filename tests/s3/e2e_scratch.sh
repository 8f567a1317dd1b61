# Sourced by the end-to-end tests that run against S3: a scratch folder of
# the test's own, made the current folder, and a cleanup however the test
# ends: the FUSE mounts in `mounts` unmounted, the processes in `pids`
# stopped, the folder's Ceph cluster (ceph_env.sh starts it) stopped and the
# folder removed. fail and ok print the test's verdicts; t runs a step under
# a time limit (step_timeout seconds, 120 unless the test says otherwise).
s3=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
work=$(mktemp -d)
pids=() mounts=()
cleanup() {
  for m in "${mounts[@]}"; do fusermount3 -u "$m" 2>/dev/null || fusermount3 -uz "$m" 2>/dev/null || true; done
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null && wait "$p" 2>/dev/null || true; done
  [ -d "$work/ceph" ] && "$s3/ceph_down.sh" "$work/ceph" >/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*"; exit 1; }
ok() { echo "ok: $*"; }
t() { timeout "${step_timeout:-120}" "$@"; }
cd "$work"

# proxy_up NET_PROXY NAME [OPTION...]: the test tree's proxy in front of
# $AWS_ENDPOINT_URL, its port in NAME.port and its standard error in
# NAME.err; `proxied` is then its URL.
proxy_up() {
  local bin=$1 name=$2
  shift 2
  "$bin" "${AWS_ENDPOINT_URL#http://}" "$name.port" "$@" 2>"$name.err" &
  pids+=($!)
  for _ in $(seq 100); do [ -s "$name.port" ] && break; sleep 0.05; done
  [ -s "$name.port" ] || fail "the proxy did not start: $(cat "$name.err")"
  proxied=http://127.0.0.1:$(cat "$name.port")
}
