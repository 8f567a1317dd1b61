#!/usr/bin/env bash
# net_proxy_test.sh NET_PROXY: the shaping proxy between curl and a small HTTP
# server of the test's own (keep-alive, ranges, uploads). Bytes come through
# unchanged both ways; a request's round trip through it is at least twice
# the one-way delay and a download no faster than the cap; its log names each
# request as curl sent it (method, path, Range, If-None-Match, status, bytes),
# and its wave count tells requests made one after another on one
# connection from requests made at once. Needs no Ceph.
set -euo pipefail
proxy_bin=$1
work=$(mktemp -d)
server='' proxy=''
cleanup() {
  for p in $proxy $server; do kill "$p" 2>/dev/null || true; wait "$p" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*"; [ -e "$work/proxy.err" ] && cat "$work/proxy.err"; exit 1; }
ok() { echo "ok: $*"; }
wait_file() { for _ in $(seq 200); do [ -s "$1" ] && return 0; sleep 0.05; done; fail "$2 did not start"; }
cd "$work"

head -c $((4 << 20)) /dev/urandom >blob
python3 - "$work" <<'PY' &
import hashlib, http.server, os, sys
work = sys.argv[1]
blob = open(work + "/blob", "rb").read()

class H(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    def log_message(self, *a): pass
    def answer(self, body):
        rng = self.headers.get("Range")
        status, part = 200, body
        if rng and rng.startswith("bytes="):
            a, b = rng[6:].split("-")
            part, status = body[int(a):int(b) + 1], 206
        self.send_response(status)
        self.send_header("Content-Length", str(len(part)))
        self.end_headers()
        return part
    def do_GET(self): self.wfile.write(self.answer(blob))
    def do_HEAD(self): self.answer(blob)
    def do_PUT(self):
        got = self.rfile.read(int(self.headers["Content-Length"]))
        self.wfile.write(self.answer(hashlib.sha256(got).hexdigest().encode()))

s = http.server.ThreadingHTTPServer(("127.0.0.1", 0), H)
open(work + "/server.port.tmp", "w").write(str(s.server_address[1]))
os.replace(work + "/server.port.tmp", work + "/server.port")
s.serve_forever()
PY
server=$!
wait_file server.port "the HTTP server"

delay_ms=20 rate=100M
"$proxy_bin" "127.0.0.1:$(cat server.port)" proxy.port --delay-ms $delay_ms --rate $rate --log proxy.log 2>proxy.err &
proxy=$!
wait_file proxy.port "net_proxy"
url=http://127.0.0.1:$(cat proxy.port)
min_rtt=$(awk -v d=$delay_ms 'BEGIN { print 2 * d / 1000 }')
# waves T0 T1: the proxy's wave count for requests begun between two stamps.
waves() { "$proxy_bin" waves proxy.log --epoch --since "$1" --until "$2"; }
# line N: the Nth request of the log (the clock line is not counted).
line() { grep -v '"clock"' proxy.log | sed -n "${1}p"; }

# Bad input is refused in one line.
for bad in "--rate 5X" "--profile moon" "--delay-ms -1"; do
  # shellcheck disable=SC2086
  if "$proxy_bin" 127.0.0.1:1 x.port $bad 2>err; then fail "net_proxy accepted $bad"; fi
  [ "$(wc -l <err)" = 1 ] || fail "net_proxy $bad: not one line: $(cat err)"
done
ok "bad options refused in one line"

# Down the link: the bytes, no sooner than the cap allows.
curl -sS -o got -w '%{time_total}\n' "$url/blob" >t
cmp got blob || fail "the download differs from what the server sent"
awk -v t="$(cat t)" -v b=$((4 << 20)) 'BEGIN { exit !(t >= b * 8 / 100e6) }' ||
  fail "4 MiB came in $(cat t) s, faster than 100 Mbit/s allows"
ok "4 MiB downloaded unchanged in $(cat t) s (the cap allows no less than 0.336 s)"

# Up the link: the server hashes what it received.
head -c 1000000 /dev/urandom >up
[ "$(curl -sS -T up "$url/up")" = "$(sha256sum <up | cut -d' ' -f1)" ] || fail "the upload reached the server changed"
ok "1 MB uploaded unchanged"

# Three requests one after another on one connection: three waves, and on
# this clock four round trips at least (the connection's handshake, then
# each request).
t0=$EPOCHREALTIME
curl -sS -r 0-99 -o /dev/null "$url/a" --next -r 0-99 -o /dev/null "$url/b" --next -r 0-99 -o /dev/null "$url/c"
t1=$EPOCHREALTIME
[ "$(waves "$t0" "$t1")" = 3 ] || fail "three requests in turn counted as $(waves "$t0" "$t1") waves"
awk -v a="$t0" -v b="$t1" -v m="$min_rtt" 'BEGIN { exit !(b - a >= 4 * m) }' ||
  fail "three requests in turn took $(awk -v a="$t0" -v b="$t1" 'BEGIN { print b - a }') s, less than four round trips of $min_rtt s"
ok "three requests in turn: 3 waves, four round trips of $min_rtt s at least"

# Three at once, on connections of their own: one wave.
t0=$EPOCHREALTIME
curl -sS --no-progress-meter -Z --parallel-immediate -r 0-99 -o /dev/null "$url/x" -r 0-99 -o /dev/null "$url/y" -r 0-99 -o /dev/null "$url/z"
t1=$EPOCHREALTIME
[ "$(waves "$t0" "$t1")" = 1 ] || fail "three requests at once counted as $(waves "$t0" "$t1") waves"
ok "three requests at once: 1 wave"

# The log, line by line, against what curl sent and the server answered.
curl -sS -o /dev/null -H 'Range: bytes=10-19' -H 'If-None-Match: "e1"' "$url/obj?partNumber=2&x=y"
curl -sS -I -o /dev/null "$url/blob"
n=$(grep -vc '"clock"' proxy.log)
[ "$n" = 10 ] || fail "the log has $n requests, not 10"
while read -r at want; do
  got=$(line "$at" | python3 -c 'import json, sys; r = json.load(sys.stdin); print(r["method"], r["path"], r["range"], r["if_match"], r["if_none_match"], r["status"], r["bytes"], r["t_req"] <= r["t_first"] <= r["t_last"])')
  [ "$got" = "$want" ] || fail "log line $at: '$got', not '$want'"
done <<EOF
1 GET /blob None False False 200 $(( (4 << 20) + $(curl -sS -o /dev/null -w '%{size_header}' http://127.0.0.1:$(cat server.port)/blob) )) True
2 PUT /up None False False 200 $(( 64 + $(curl -sS -o /dev/null -T up -w '%{size_header}' http://127.0.0.1:$(cat server.port)/up) )) True
3 GET /a bytes=0-99 False False 206 $(( 100 + $(curl -sS -o /dev/null -r 0-99 -w '%{size_header}' http://127.0.0.1:$(cat server.port)/a) )) True
9 GET /obj?partNumber=2&x=y bytes=10-19 False True 206 $(( 10 + $(curl -sS -o /dev/null -r 10-19 -w '%{size_header}' http://127.0.0.1:$(cat server.port)/obj) )) True
10 HEAD /blob None False False 200 $(curl -sS -I -o /dev/null -w '%{size_header}' http://127.0.0.1:$(cat server.port)/blob) True
EOF
ok "the log names each request with its Range, If-None-Match, status and answer bytes"

kill "$proxy"
wait "$proxy" || true
proxy=''
grep -q "^net_proxy: connections refuse=0 stall=0 slow=0 cut=0 pass=8; bytes up=.* down=.*; requests=10" proxy.err ||
  fail "counters on exit: $(cat proxy.err)"
ok "counters on exit: $(cat proxy.err)"
