# The peers bench/s3_bench.sh sets beside zxblk, one run of each: restore
# first (curl GET of both snapshot objects, qemu-img convert, the child's
# blocks laid over the base, then debugfs), qemu's HTTP block driver reading
# the base object in place (qemu-nbd + nbdfuse), and a curl PUT of the VHD
# that zxblk imports. zxblk's own runs stay in s3_bench.sh, beside the rounds
# that call both; this file is sourced by it, never run on its own. Each run
# sets the figures it names, as zxblk's do, and uses the script's settings
# and helpers ($work, $out, $link, curl_s3, drop...) and bench_common.sh.
# shellcheck shell=bash

# get_both DEST_BASE DEST_CHILD: both snapshot objects through the link, one
# after the other on one connection.
get_both() {
    curl_s3 -o "$1" "$link/$bucket/$base_key" -o "$2" "$link/$bucket/$child_key" 2>"$work/curl.err" ||
        { cat "$work/curl.err" >&2; die "curl GET of $base_key and $child_key failed"; }
}
# restore_first CHECK -> got ready total (seconds)
restore_first() {
    local t0 t1 t2 t3
    rm -f "$out/dl.vhd" "$out/dl-child.vhd" "$out/q.raw" "$out/ttf"; sync
    t0=$EPOCHREALTIME
    get_both "$out/dl.vhd" "$out/dl-child.vhd"
    t1=$EPOCHREALTIME
    qemu-img convert -f vpc -O raw "$out/dl.vhd" "$out/q.raw" 2>"$work/convert.log" ||
        { cat "$work/convert.log" >&2; die "qemu-img convert of $base_key failed"; }
    apply_vhd_child "$out/q.raw" "$out/dl-child.vhd" || die "laying $child_key over the base failed"
    t2=$EPOCHREALTIME
    timeout --foreground 300 debugfs -R "cat $file" "$out/q.raw" >"$out/ttf" 2>"$work/debugfs.err" || true
    t3=$EPOCHREALTIME
    cmp -s "$out/ttf" "$original" || { cat "$work/debugfs.err" >&2; die "restored first: $file differs from the original"; }
    if [ "$1" = 1 ]; then
        cmp -s "$out/dl.vhd" "$work/base.vhd" || die "the object $base_key differs from the VHD imported"
        cmp -s "$out/dl-child.vhd" "$work/child.vhd" || die "the object $child_key differs from the VHD imported"
        same_bytes "$out/q.raw" "$work/changed.img" || die "restored first: the disk differs from the one imported"
    fi
    rm -f "$out/dl.vhd" "$out/dl-child.vhd" "$out/q.raw" "$out/ttf"
    got=$(secs "$t0" "$t1") ready=$(secs "$t0" "$t2") total=$(secs "$t0" "$t3")
}
# qemu_http -> ready total (seconds): qemu's HTTP driver on the base object,
# served by qemu-nbd and mounted by nbdfuse.
qemu_http() {
    local t0 t1 t2 i
    rm -f "$sock" "$work/qemu-nbd.pid" "$work/nbdfuse.pid" "$out/ttf"
    t0=$EPOCHREALTIME
    # --fork returns once the image is open and the socket listens.
    qemu-nbd --fork --persistent --read-only --shared=8 --pid-file="$work/qemu-nbd.pid" -k "$sock" \
        "json:{\"driver\":\"vpc\",\"file\":{\"driver\":\"http\",\"url\":\"$link/$bucket/$base_key\"}}" \
        2>"$work/qemu-nbd.log" || { cat "$work/qemu-nbd.log" >&2; die "qemu-nbd of the base object over HTTP failed"; }
    qnbd=$(cat "$work/qemu-nbd.pid")
    nbdfuse -r -P "$work/nbdfuse.pid" "$pmnt/disk.raw" --unix "$sock" >"$work/nbdfuse.log" 2>&1 &
    nbdf=$!
    for ((i = 0; i < 2000; i++)); do
        [ -s "$work/nbdfuse.pid" ] && break
        kill -0 "$nbdf" 2>/dev/null || { cat "$work/nbdfuse.log" >&2; die "nbdfuse failed"; }
        sleep 0.005
    done
    [ -s "$work/nbdfuse.pid" ] || die "nbdfuse did not start serving within 10 s"
    t1=$EPOCHREALTIME
    timeout --foreground 300 debugfs -R "cat $file" "$pmnt/disk.raw" >"$out/ttf" 2>"$work/debugfs.err" || true
    t2=$EPOCHREALTIME
    timeout --foreground 30 fusermount3 -u "$pmnt" || die "fusermount3 -u $pmnt failed"
    wait_gone "$nbdf" 10 || die "nbdfuse did not end after the unmount"
    wait "$nbdf" 2>/dev/null || true
    nbdf=
    stop_pid "$qnbd"
    qnbd=
    cmp -s "$out/ttf" "$original" || { cat "$work/debugfs.err" >&2; die "through qemu's HTTP driver: $file differs from the original"; }
    rm -f "$out/ttf"
    ready=$(secs "$t0" "$t1") total=$(secs "$t0" "$t2")
}
# curl_put CHECK -> last (seconds)
curl_put() {
    local p=put$((n += 1)) t0 t1
    t0=$EPOCHREALTIME
    curl_s3 -o /dev/null -T "$work/base.vhd" "$link/$bucket/$p/base.vhd" 2>"$work/curl.err" ||
        { cat "$work/curl.err" >&2; die "curl PUT of base.vhd failed"; }
    t1=$EPOCHREALTIME
    if [ "$1" = 1 ]; then
        curl_s3 -o "$out/back.vhd" "$direct/$bucket/$p/base.vhd" || die "cannot read back $p/base.vhd"
        cmp -s "$out/back.vhd" "$work/base.vhd" || die "curl PUT through the link stored other bytes than base.vhd"
        rm -f "$out/back.vhd"
    fi
    drop "$p/"
    last=$(secs "$t0" "$t1")
}
