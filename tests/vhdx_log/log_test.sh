#!/usr/bin/env bash
# A VHDX that was not closed cleanly: the truth of its block table is in its
# log. The store keeps the file as it is and reads it with the log replayed
# in memory: the export equals qemu-img's reading of the clean file, and of
# a copy that qemu-img replayed on disk; a log that holds no whole entry is
# refused in one line, the store unchanged.
#   log_test.sh ZXBLK VHDX_LOG_PY
set -euo pipefail
zxblk=$1 mutate=$2
for tool in qemu-img qemu-io python3; do
  command -v "$tool" >/dev/null || { echo "skipped: $tool is not installed"; exit 77; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

# A 1 GiB disk of 1 MiB blocks: its table spans two 4 KiB sectors, both of
# which the log rewrites.
clean=$work/clean.vhdx
qemu-img create -q -f vhdx -o block_size=1M "$clean" 1G
qemu-io -c 'write -P 0x5a 0 1M' -c 'write -P 0x6b 600M 1M' -c 'write -P 0x7c 1023M 512K' "$clean" >/dev/null
qemu-img convert -f vhdx -O raw "$clean" "$work/truth.raw"
store=$work/store
"$zxblk" import -q --store "$store" --disk other "$clean"

for case in one-entry two-entries; do
  f=$work/$case.vhdx
  python3 "$mutate" "$clean" "$f" "$case"
  cp --sparse=always "$f" "$work/untouched.vhdx"
  "$zxblk" import --store "$store" --disk "$case" "$f" 2>"$work/err" >"$work/out" || { cat "$work/err"; fail "$case: refused"; }
  grep -q "log (.*) was replayed in memory; the file was not changed" "$work/out" || { cat "$work/out"; fail "$case: no word of the replay"; }
  cmp -s "$f" "$work/untouched.vhdx" || fail "$case: the import changed the source file"
  cmp -s "$f" "$store/snapshots/$case-snap0.vhdx" || fail "$case: the store's copy is not the file as it was"
  "$zxblk" export -q --store "$store" --disk "$case" --out "$work/$case.raw"
  cmp "$work/$case.raw" "$work/truth.raw" || fail "$case: export differs from the clean file's disk"
  # qemu-img replays a log when it opens a file read-write.
  cp --sparse=always "$f" "$work/replayed.vhdx"
  if qemu-img check -q -r all "$work/replayed.vhdx" >/dev/null 2>&1 &&
    qemu-img convert -f vhdx -O raw "$work/replayed.vhdx" "$work/qemu.raw" 2>/dev/null; then
    cmp "$work/qemu.raw" "$work/truth.raw" || fail "$case: qemu-img's replay reads otherwise (the mutator is wrong)"
    echo "ok: $case: replayed in memory, as qemu-img replays it on disk"
  else
    echo "ok: $case: replayed in memory (qemu-img could not replay it here)"
  fi
done
"$zxblk" verify --store "$store" >/dev/null || fail "verify of the replayed files"

python3 "$mutate" "$clean" "$work/garbage.vhdx" garbage
before=$(cd "$store" && find . -type f -exec md5sum {} + | sort)
rc=0
"$zxblk" import --store "$store" --disk garbage "$work/garbage.vhdx" 2>"$work/err" || rc=$?
[ "$rc" = 1 ] || fail "garbage log: exit $rc, not 1"
[ "$(wc -l <"$work/err")" = 1 ] && grep -q "log: the header names a log to replay, but it holds no whole sequence" "$work/err" ||
  { cat "$work/err"; fail "garbage log: not one line naming the log"; }
[ "$(cd "$store" && find . -type f -exec md5sum {} + | sort)" = "$before" ] || fail "garbage log: the store changed"
echo "ok: a log with no whole entry refused in one line, the store unchanged"
