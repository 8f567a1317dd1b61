#!/usr/bin/env bash
# Corruption sweep of `zxblk import` over VHDX files: every named mutant of
# vhdx_mutate.py (of qemu-img's dynamic and fixed VHDX files and of a
# differencing file made from them) goes into a store that already holds a
# disk. It must be refused with one line on standard error, a non-zero exit
# and the store exactly as it was, or be accepted and export byte-identical
# to qemu-img's reading of it (or, for a differencing file, which qemu-img
# does not read with its parent, and a file with a log to replay, which it
# reads only after writing the replay into the file, to the mutator's own
# reading from the format; qemu-img's replay agreed when this was written). Then bytes of
# the stored copies are damaged: export must fail in one line naming the
# file and the block, and verify must report it.
#   corruption_test.sh ZXBLK MUTATE_PY [NAME]
# NAME runs that mutant alone and keeps its files.
set -euo pipefail
zxblk=$(realpath "$1") mutate=$(realpath "$2") only=${3:-}
for t in qemu-img qemu-io python3; do
  command -v $t >/dev/null || { echo "skip: the VHDX corruption sweep needs $t"; exit 77; }
done
work=$(mktemp -d "${TMPDIR:-/tmp}/vhdx_corrupt.XXXXXX")
if [ -z "$only" ]; then trap 'rm -rf "$work"' EXIT; else echo "files kept in $work"; fi
export HOME=$work/home XDG_CACHE_HOME=$work/home/.cache
mkdir -p "$HOME" "$work/m"
cd "$work"
t() { timeout 60 "$@"; }

# Mutants qemu-img reads that zxblk refuses on purpose, and mutants zxblk
# takes that qemu-img refuses: name|why. Anything else of either kind fails.
stricter=(
  "seq-older-current-version.crc|the current header is of another version, a file not to be processed; qemu-img takes the other header"
  "version.crc|the current header is of another version, a file not to be processed; qemu-img takes the other header"
  "seq-older-current-log.crc|a log with no whole sequence of entries makes the file corrupt; qemu-img reads on as if it were empty"
  "log-guid.crc|a log with no whole sequence of entries makes the file corrupt; qemu-img reads on as if it were empty"
  "log-guid-both|a log with no whole sequence of entries makes the file corrupt; qemu-img reads on as if it were empty"
  "log-offset-past-end|a log outside the file; qemu-img does not look at an empty log"
  "rt-bat-past-end|a BAT region past the end of the file, which qemu-img reads as zeros"
  "rt-bat-length-unaligned|a region length not a multiple of 1 MiB"
  "md-item-too-long|a metadata item over 1 MiB"
  "md-items-overlap|overlapping metadata items"
  "size-unaligned|a disk size not a multiple of the logical sector, which qemu-img rounds down"
  "pss-1024|a physical sector size neither 512 nor 4096"
  "bat-state-5|a reserved block state, which qemu-img reads as zeros"
  "bat-in-header|a block in the header section, which qemu-img reads as the disk's data"
  "bat-two-at-one|two blocks at one file offset"
)
# These must still read as the clean source does.
lenient=(
  "log-version-empty-log|a log version other than 0 with no log to replay may be read; qemu-img refuses it"
  "rt1-alone|the first region table damaged and the second intact: the second is read; qemu-img reads only the first"
)
listed() { local e; for e in "${@:2}"; do [ "${e%%|*}" = "$1" ] && { echo "${e#*|}"; return 0; }; done; return 1; }

# Sources: 8 MiB disks of 1 MiB blocks, some written whole, some in part.
vhdx() { qemu-img create -q -f vhdx -o block_size=1M${3:+,$3} "$1" "$2"; }
io() { local f=$1; shift; for c in "$@"; do qemu-io -f vhdx -c "write -P $c" "$f" >/dev/null; done; }
vhdx dyn.vhdx 8M && io dyn.vhdx "0x11 0 1M" "0x22 2M 300K" "0x23 3M 4K" "0x33 7M 1M"
vhdx fixed.vhdx 4M subformat=fixed && io fixed.vhdx "0x44 1M 1M" "0x45 3M 64K"
vhdx parent.vhdx 8M && io parent.vhdx "0x51 0 2M" "0x52 2M 1M" "0x54 4M 3M"
vhdx c0.vhdx 8M && io c0.vhdx "0x61 512K 4K" "0x62 2M 1M" "0x63 3M 8K"
python3 "$mutate" child c0.vhdx parent.vhdx child.vhdx
# The same chain with 4096-byte sectors (which qemu-img does not read).
python3 "$mutate" sectors4k parent.vhdx parent4k.vhdx && python3 "$mutate" sectors4k c0.vhdx c04k.vhdx
python3 "$mutate" child c04k.vhdx parent4k.vhdx child4k.vhdx
qemu-img convert -f vhdx -O raw parent.vhdx parent.raw
t "$zxblk" import -q --store clean --disk c parent.vhdx >/dev/null
t "$zxblk" import -q --store clean --disk k parent4k.vhdx >/dev/null

fails=0 n=0
fail() { echo "FAIL $*"; fails=$((fails + 1)); }
one_line() { [ "$(grep -c . "$1")" = 1 ] && ! grep -qE 'Sanitizer|runtime error' "$1"; }

check() {
  local name=$1 src=$2 judge=$3 disk=m rc=0 qrc=1 why
  [ "$src" = child ] && disk=c
  [ "$src" = child4k ] && disk=k
  rm -rf s x.raw q.raw cache; cp -a clean s
  t "$zxblk" import -q --store s --disk $disk m/mutant.vhdx >/dev/null 2>err || rc=$?
  if [ "$judge" != refuse ] && [ "$judge" != ref ]; then
    qemu-img convert -f vhdx -O raw m/mutant.vhdx q.raw 2>/dev/null && qrc=0
  fi
  if [ $rc -ge 124 ] || grep -qE 'Sanitizer|runtime error' err; then
    fail "$name: import crashed or hung (exit $rc): $(tail -c 300 err)"; return
  fi
  if [ $rc != 0 ]; then
    one_line err || { fail "$name: refused with $(grep -c . err) lines: $(head -c 400 err)"; return; }
    diff -rq clean s >/dev/null || { fail "$name: refused ($(cat err)) but the store changed"; return; }
    if [ $qrc = 0 ] || [ "$judge" = ref ]; then
      why=$(listed "$name" "${stricter[@]}") ||
        { fail "$name: refused although $([ $qrc = 0 ] && echo qemu-img reads it || echo it is legal): $(cat err)"; return; }
      echo "ok $name: refused, stricter than qemu-img on purpose ($why): $(cat err)"
    else
      echo "ok $name: refused: $(cat err)"
    fi
    return
  fi
  if [ "$judge" = refuse ]; then fail "$name: accepted, must be refused"; return; fi
  rc=0; t "$zxblk" export -q --store s --disk $disk --cache cache --out x.raw >/dev/null 2>err || rc=$?
  [ $rc = 0 ] || { fail "$name: accepted, but export exits $rc: $(head -c 300 err)"; return; }
  if [ $qrc = 0 ] && cmp -s x.raw q.raw; then echo "ok $name: accepted, exports as qemu-img reads it"; return; fi
  if [[ $judge == *ref ]] && cmp -s x.raw m/mutant.ref; then echo "ok $name: accepted, exports as the format reads it"; return; fi
  if [ $qrc = 0 ] || [[ $judge == *ref ]]; then
    fail "$name: accepted, export ($(stat -c %s x.raw) bytes) differs from $([ $qrc = 0 ] && echo "qemu-img's reading" || echo "the format's reading")"
    return
  fi
  why=$(listed "$name" "${lenient[@]}") || { fail "$name: accepted, qemu-img refuses it"; return; }
  cmp -s x.raw $src.raw || { fail "$name: accepted where qemu-img refuses ($why), and exports otherwise than the clean source"; return; }
  echo "ok $name: accepted where qemu-img refuses ($why), exports as the clean source"
}

# The clean sources first: the harness itself must hold.
for s in dyn fixed; do
  rm -rf s; cp -a clean s
  t "$zxblk" import -q --store s --disk m $s.vhdx >/dev/null && t "$zxblk" export -q --store s --disk m --cache cache --out x.raw &&
    qemu-img convert -f vhdx -O raw $s.vhdx $s.raw && cmp x.raw $s.raw || { echo "FAIL: the clean $s source"; exit 1; }
done

# A child of 4096-byte sectors on top of a parent of 512-byte ones, which
# names it as its parent.
cp child4k.vhdx m/mutant.vhdx && check child4k-over-512-byte-sectors child refuse && n=1

coproc MUT { python3 "$mutate" mutants "$work/m" dyn.vhdx fixed.vhdx child.vhdx child4k.vhdx parent.raw $only; }
mut_pid=$MUT_PID
exec 3<&"${MUT[0]}" 4>&"${MUT[1]}"
while read -r name src judge <&3; do
  check "$name" "$src" "$judge"
  n=$((n + 1))
  [ -n "$only" ] || echo >&4
done
exec 4>&-
wait "$mut_pid" || { echo "FAIL: the mutator stopped"; exit 1; }
[ -n "$only" ] && exit $((fails > 0))

# Bytes of the stored copies damaged after a clean import: export fails in
# one line naming the file (and the block, where one block's data is hit),
# and verify reports the file.
rm -rf stored; cp -a clean stored
t "$zxblk" import -q --store stored --disk m dyn.vhdx >/dev/null
t "$zxblk" import -q --store stored --disk c child.vhdx >/dev/null
for c in "payload m snap0 block" "bitmap c snap1 block" "bat m snap0 " "headers m snap0 "; do
  read -r what disk snap word <<<"$c"
  rm -rf s cache x.raw; cp -a stored s
  file=$(cd s && ls snapshots/$disk-$snap.*)
  at=$(python3 "$mutate" locate "s/$file" "$what")
  python3 -c 'import sys; f = open(sys.argv[1], "r+b"); f.seek(int(sys.argv[2])); b = f.read(16); f.seek(int(sys.argv[2])); f.write(bytes(x ^ 0xA5 for x in b))' "s/$file" "$at"
  rc=0; t "$zxblk" export -q --store s --disk $disk --cache cache --out x.raw >/dev/null 2>err || rc=$?
  if [ $rc != 1 ] || ! one_line err || ! grep -q "$file.*$word" err; then
    fail "stored $what: export exits $rc with: $(head -c 300 err)"; continue
  fi
  [ ! -e x.raw ] || { fail "stored $what: export left its output"; continue; }
  rc=0; t "$zxblk" verify --store s >out 2>&1 || rc=$?
  if [ $rc = 0 ] || ! grep -q "$file" out || grep -qE 'Sanitizer|runtime error' out; then
    fail "stored $what: verify exits $rc with: $(head -c 300 out)"; continue
  fi
  echo "ok stored $what: export: $(cat err); verify: $(grep -m1 "$file" out)"
done

echo "$n mutants and 4 damaged stored copies, $fails failures"
[ $fails = 0 ]
