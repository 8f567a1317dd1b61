#!/usr/bin/env bash
# The command line as a user meets it: --version, exit codes, one-line usage
# errors with suggestions, numbers and sizes out of range, and configuration
# files checked before use.
set -euo pipefail
zxblk=$1 cmakelists=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*"; exit 1; }

# The version is the project's, as CMake declares it.
want=$(sed -n 's/^project(zxblk VERSION \([0-9.]*\).*/\1/p' "$cmakelists")
[ "$("$zxblk" --version)" = "zxblk $want" ] || fail "--version says '$("$zxblk" --version)', CMake says $want"

mkdir -p "$work/store" "$work/mnt"
# expect CODE TEXT ARGS...: exit code CODE, one line on stderr containing TEXT.
expect() {
  local code=$1 text=$2 rc=0
  shift 2
  "$zxblk" "$@" >"$work/out" 2>"$work/err" || rc=$?
  [ "$rc" = "$code" ] || { cat "$work/err"; fail "zxblk $*: exit $rc, not $code"; }
  [ "$(wc -l <"$work/err")" = 1 ] || { cat "$work/err"; fail "zxblk $*: not one line"; }
  grep -qF -- "$text" "$work/err" || { cat "$work/err"; fail "zxblk $*: no '$text'"; }
}
s=$work/store
expect 2 "unknown command 'impor'; did you mean 'import'?" impor --store "$s"
expect 2 "a command is required"
expect 2 "zxblk cache: unknown command 'lst'; did you mean 'list'?" cache lst
expect 2 "unknown option --stroe; did you mean --store?" list --stroe "$s"
expect 2 "unknown option --extnet-size; did you mean --extent-size?" import --store "$s" --disk d --extnet-size 64K x.vhd
expect 2 "--store is required" list
expect 2 "--snapshot: Value -2 not in range" mount --store "$s" --disk d --snapshot -2 "$work/mnt"
expect 2 "--snapshot: Value -1 not in range" index --store "$s" --disk d --snapshot -1
expect 2 "'1Q' is not a size" mount --store "$s" --disk d --cache-limit 1Q "$work/mnt"
expect 2 "'18446744073709551616' is not a size" mount --store "$s" --disk d --cache-limit 18446744073709551616 "$work/mnt"
expect 2 "'-1' is not a size" mount --store "$s" --disk d --cache-limit -1 "$work/mnt"
expect 2 "would cause number overflow" mount --store "$s" --disk d --cache-limit 16E "$work/mnt"
expect 2 "0 is out of range" mount --store "$s" --disk d --cache-limit 0 "$work/mnt"
expect 2 "--flush-threshold: Value 0 not in range" mount --store "$s" --disk d --flush-threshold 0 "$work/mnt"
expect 2 "--flush-threshold: '-1' is not a whole number" mount --store "$s" --disk d --flush-threshold -1 "$work/mnt"
expect 2 "--flush-threshold: '010': give it without leading zeros" mount --store "$s" --disk d --flush-threshold 010 "$work/mnt"
expect 2 "--log-level: Value 12 not in range" index --store "$s" --disk d --log-level 12

# Configuration files: each fault names the file and, where it has one, the line.
c=$work/conf.ini
printf '[VirtualServer]\nbEnableMetadataRestoreOptimization = false\n' >"$c.good"
printf '[VirtualServer]\n\nbEnableMetadataRestoreOptimisation = false\n' >"$c.typo"
printf '[VirtualServer]\nbIdentifyFSMetadataDuringCI = maybe\n' >"$c.value"
printf '[VirtualServer\nbIdentifyFSMetadataDuringCI = true\n' >"$c.syntax"
printf '[Virtual]\n' >"$c.section"
expect 1 "$c.missing: cannot read the configuration file" index --store "$s" --disk d --config "$c.missing"
expect 1 "$c.typo:3: unknown key 'bEnableMetadataRestoreOptimisation' in [VirtualServer]; did you mean bEnableMetadataRestoreOptimization?" \
  index --store "$s" --disk d --config "$c.typo"
expect 1 "$c.value:2: bIdentifyFSMetadataDuringCI = maybe: give true or false" index --store "$s" --disk d --config "$c.value"
expect 1 "$c.syntax:1:" index --store "$s" --disk d --config "$c.syntax"
expect 1 "$c.section:1: unknown section [Virtual]" index --store "$s" --disk d --config "$c.section"
ZXBLK_CONFIG=$c.typo expect 1 "$c.typo:3: unknown key" index --store "$s" --disk d
# A sound file gets past the check: what fails next is the missing store.
expect 1 "$s is not a zxblk store" index --store "$s" --disk d --config "$c.good"
echo "ok: version, usage errors, ranges and configuration files"

# list: the disks by client, in words and sizes, JSON a parser takes, and
# one lost file shown as such without hiding the rest.
expect 1 "$s is not a zxblk store (no catalog.json)" list --store "$s"
qemu-img create -q -f vpc -o force_size=on "$work/a.vhd" 64M
qemu-img create -q -f vpc -o subformat=fixed,force_size=on "$work/b.vhd" 3M
"$zxblk" import -q --store "$s" --disk a "$work/a.vhd" >/dev/null
"$zxblk" import -q --store "$s" --disk c --client vm2 --client-id 9 "$work/b.vhd" >/dev/null
"$zxblk" import -q --store "$s" --disk b "$work/b.vhd" >/dev/null
# A client keeps its id; another client's id, or another id for a client, is refused.
expect 1 "client id 9 is client vm2's; give another id, or none" import --store "$s" --disk e --client vm3 --client-id 9 "$work/b.vhd"
expect 1 "client vm2 has id 9, not 4" import --store "$s" --disk e --client vm2 --client-id 4 "$work/b.vhd"
"$zxblk" list --store "$s" >"$work/list"
diff <(grep -v "^ " "$work/list") - <<'LIST' || { cat "$work/list"; fail "list: clients and disks"; }
client localhost: 2 disks
a: 64 MiB disk, 1 snapshot, recalled 1 MiB at a time
b: 3 MiB disk, 1 snapshot, recalled 1 MiB at a time

client vm2: 1 disk
c: 3 MiB disk, 1 snapshot, recalled 1 MiB at a time
LIST
grep -qE "^  0 +dynamic VHD .* ok " "$work/list" && grep -qE "^  0 +fixed VHD +3.0 MiB .* ok " "$work/list" ||
  { cat "$work/list"; fail "list: kinds or status"; }
"$zxblk" list --store "$s" --json >"$work/json"
python3 - "$work/json" <<'PY' || fail "list --json: the clients"
import json, sys
d = json.load(open(sys.argv[1]))
assert d["clients"] == [{"name": "localhost", "disks": ["a", "b"]}, {"name": "vm2", "disks": ["c"]}], d["clients"]
assert [(x["name"], x["client"]) for x in d["disks"]] == [("a", "localhost"), ("c", "vm2"), ("b", "localhost")], d
PY
# The export summary as JSON, and -q with nothing but the image.
"$zxblk" export --store "$s" --disk b --out "$work/b.raw" --cache "$work/c1" --json >"$work/sum"
python3 -c 'import json,sys; d=json.load(open(sys.argv[1])); assert d["bytes"] == 3 << 20 and d["disk"] == "b", d' "$work/sum" ||
  { cat "$work/sum"; fail "export --json"; }
qemu-img convert -f vpc -O raw "$work/b.vhd" "$work/b.ref"
cmp "$work/b.raw" "$work/b.ref" || fail "export differs from qemu-img"
# A cache folder taken for another disk is emptied, and the command says so itself.
"$zxblk" read --store "$s" --disk b --cache "$work/c5" --offset 0 --length 4096 >/dev/null
"$zxblk" read --store "$s" --disk a --cache "$work/c5" --offset 0 --length 4096 >/dev/null 2>"$work/err"
[ "$(cat "$work/err")" = "zxblk: note: extent cache $work/c5 held another disk or snapshot list; its extents were dropped" ] ||
  { cat "$work/err"; fail "a cache reused for another disk: not said"; }
"$zxblk" export -q --store "$s" --disk b --out "$work/b2.raw" --cache "$work/c2" >"$work/out" 2>&1
[ ! -s "$work/out" ] || { cat "$work/out"; fail "export -q printed something"; }
# For the refusals below: a copy of the store in which one byte of b's data
# changed after import, its file's size and time kept.
cp -a "$s" "$work/damaged"
printf 'X' | dd of="$work/damaged/snapshots/b-snap0.vhd" bs=1 seek=1000 conv=notrunc status=none
touch -r "$s/snapshots/b-snap0.vhd" "$work/damaged/snapshots/b-snap0.vhd"
rm "$s"/snapshots/b-*
rc=0
"$zxblk" list --store "$s" --json >"$work/json" 2>"$work/err" || rc=$?
[ "$rc" = 1 ] && grep -q "1 of 3 snapshots is missing or damaged" "$work/err" || { cat "$work/err"; fail "list: exit $rc"; }
python3 - "$work/json" <<'PY' || fail "list --json with a missing file"
import json, sys
disks = {d["name"]: d for d in json.load(open(sys.argv[1]))["disks"]}
assert disks["a"]["snapshots"][0]["status"] == "ok", disks["a"]
assert disks["b"]["snapshots"][0]["status"] == "missing", disks["b"]
assert disks["b"]["size"] == 3 << 20 and disks["a"]["snapshots"][0]["kind"] == "dynamic VHD", disks
PY
echo "ok: list by client in words, as JSON, with a missing file"

# Every failure that reaches the command line is one line on standard error
# and exit 1, wherever it arises: the store, the catalog, an extent cache,
# a snapshot file, a mount's daemon, a server's checks before it listens.
# (The configuration files above are refused the same way.) The cache is
# held by an export that waits for its reader.
mkfifo "$work/fifo"
"$zxblk" export --store "$s" --disk a --cache "$work/held" --out "$work/fifo" >/dev/null 2>&1 &
holder=$!
for _ in $(seq 300); do [ "$(head -1 "$work/held/lock" 2>/dev/null | cut -d' ' -f1)" = $holder ] && break; sleep 0.1; done
refusals=(
  "$work/mnt is not a zxblk store (no catalog.json)|export --store $work/mnt --disk a --out $work/x"
  "$s: no disk named 'nosuch'|read --store $s --disk nosuch --offset 0 --length 1"
  "$s: no client named 'nosuch'|mount --store $s --client nosuch $work/mnt"
  "disk a has no snapshot 1 (it has 1)|serve --store $s --disk a --snapshot 1 --run true"
  "the extent cache $work/held is in use by another zxblk process (pid $holder)|read --store $s --disk a --cache $work/held --offset 0 --length 1"
  "b-snap0.vhd: block 0: checksum mismatch|read --store $work/damaged --disk b --cache $work/c3 --offset 0 --length 4096"
  "snapshots/b-snap0.vhd|export --store $s --disk b --cache $work/c4 --out $work/x"
)
for row in "${refusals[@]}"; do
  # shellcheck disable=SC2086
  expect 1 "${row%%|*}" ${row#*|}
done
cat "$work/fifo" >/dev/null
wait $holder || fail "the export that held the cache failed once its reader came"
[ ! -e "$work/x" ] || fail "a refused export left its image"
echo "ok: ${#refusals[@]} refusals (store, disk, client, snapshot, cache in use, damaged block, lost file), one line each"
