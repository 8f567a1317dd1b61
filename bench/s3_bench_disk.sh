# The disk bench/s3_bench.sh reads: files made up, an ext4 file system of
# them in a dynamic VHD, a differencing VHD in which some files changed, and
# both imported into the store. Kept apart from the runs and the report;
# sourced by s3_bench.sh, never run on its own. It uses the script's
# settings ($work, $file, $store, $zxblk, $direct...) and bench_common.sh.
# shellcheck shell=bash

# make_disk: the files, base.img and its base.vhd, changed.img and its
# child.vhd in $work; sets original (the file read, as written), files_mib,
# base_vhd_bytes, child_vhd_bytes and disk_data (bytes of data in the disk).
make_disk() {
    step "generating about 2 GiB of files, small and large, in $work/files ..."
    python3 - "$work/files" <<'PY'
import os, random, sys
top = sys.argv[1]
rng = random.Random(7)
def put(path, size):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        left = size
        while left:
            n = min(left, 8 << 20)
            f.write(os.urandom(n))
            left -= n
for d in range(20):                       # 2000 notes of 1-16 KiB
    for i in range(100):
        put(f"{top}/docs/d{d}/note{i}.txt", rng.randint(1, 16) << 10)
for d in range(10):                       # 300 files of 256 KiB to 5 MiB
    for i in range(30):
        put(f"{top}/data/m{d}/f{i}.bin", rng.randint(1, 20) << 18)
put(f"{top}/data/m3/f7.bin", (6 << 20) + 12288)
for i in range(10):                       # 10 files of 128 MiB
    put(f"{top}/data/large/big{i}.bin", 128 << 20)
PY
    original=$work/original.bin
    cp "$work/files$file" "$original"
    files_mib=$(du -sm "$work/files" | cut -f1)

    step "making an ext4 file system of 8 GiB from them (mke2fs -d), and its dynamic VHD ..."
    mke2fs -q -F -t ext4 -L zxblk-bench -d "$work/files" "$work/base.img" 8G >"$work/mke2fs.log" 2>&1 ||
        { cat "$work/mke2fs.log" >&2; die "mke2fs failed"; }
    qemu-img convert -q -f raw -O vpc -o subformat=dynamic,force_size=on "$work/base.img" "$work/base.vhd"

    step "changing files for a second snapshot, a differencing VHD ..."
    cp --sparse=always "$work/base.img" "$work/changed.img"
    python3 - "$work" >"$work/debugfs.cmds" <<'PY'
import os, sys
work = sys.argv[1]
os.makedirs(work + "/new", exist_ok=True)
def new(name, size):
    with open(f"{work}/new/{name}", "wb") as f:
        f.write(os.urandom(size))
    return f"{work}/new/{name}"
for i in range(4):                        # four files of the middle size rewritten
    print(f"rm /data/m5/f{i}.bin")
    print(f"write {new(f'f{i}.bin', (3 << 20) + i * 4096)} /data/m5/f{i}.bin")
for i in range(50):                       # fifty notes rewritten
    print(f"rm /docs/d3/note{i}.txt")
    print(f"write {new(f'note{i}.txt', 5000 + i)} /docs/d3/note{i}.txt")
print(f"write {new('added.bin', 48 << 20)} /data/large/added.bin")
PY
    debugfs -w -f "$work/debugfs.cmds" "$work/changed.img" >"$work/debugfs.log" 2>&1 ||
        { cat "$work/debugfs.log" >&2; die "debugfs -w failed"; }
    rm -rf "$work/files" "$work/new"
    write_vhd_child "$work/base.vhd" "$work/base.img" "$work/changed.img" "$work/child.vhd" >"$work/child.log" ||
        { cat "$work/child.log" >&2; die "writing the differencing VHD failed"; }
    rm "$work/base.img"
    base_vhd_bytes=$(stat -c %s "$work/base.vhd") child_vhd_bytes=$(stat -c %s "$work/child.vhd")
    disk_data=$(data_bytes "$work/changed.img" raw)
}

# import_disk: both VHDs imported into $store (directly, not through the
# link); sets base_key and child_key, the two snapshot objects, and makes the
# base object public-read.
import_disk() {
    step "importing both into $store (directly, not through the link) ..."
    AWS_ENDPOINT_URL=$direct timeout --foreground 900 "$zxblk" import --store "$store" --disk fs "$work/base.vhd" "$work/child.vhd" \
        >"$work/import.log" 2>&1 || { cat "$work/import.log" >&2; die "zxblk import --disk fs into $store failed"; }
    AWS_ENDPOINT_URL=$direct "$zxblk" list --store "$store" --disk fs --json >"$work/list.json" || die "zxblk list --store $store failed"
    read -r base_key child_key < <(python3 - "$work/list.json" "$prefix" <<'PY'
import json, sys
snaps = next(d for d in json.load(open(sys.argv[1]))["disks"] if d["name"] == "fs")["snapshots"]
print(" ".join(sys.argv[2] + "/" + s["file"] for s in snaps))
PY
    ) || die "zxblk list --json names no snapshots of disk fs"
    for k in "$base_key" "$child_key"; do
        case $k in "$prefix"/snapshots/*.vhd) ;; *) die "unexpected snapshot object '$k'" ;; esac
    done
    # For qemu's HTTP driver, which cannot sign (see s3_bench.sh's header).
    curl_s3 -X PUT -H 'x-amz-acl: public-read' -H 'Content-Length: 0' "$direct/$bucket/$base_key?acl=" >"$work/acl.log" 2>&1 ||
        { cat "$work/acl.log" >&2; die "cannot make $base_key public-read"; }
}
