#!/usr/bin/env bash
# An import that dies at any of its steps (crash_import, an import whose
# storage ends the process there) leaves a store that lists as it was (or as
# the finished import), that the next import of the same snapshots accepts
# without help, removing any snapshot or checksum file it left, and that then
# exports right.
set -euo pipefail
zxblk=$1 chain=$2 crash=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*"; exit 1; }

"$chain" "$work" $((4 * 1048576)) 1048576 2 41 >/dev/null
for step in copied renamed renamed-all catalog-written saved; do
  for kind in new added; do  # a new disk's chain, or snapshots added to a disk already there
    store="$work/$step-$kind"
    images=("$work/snap1.vhd" "$work/snap2.vhd")
    before=1
    if [ "$kind" = added ]; then
      "$zxblk" import --store "$store" --disk d "$work/snap0.vhd" >/dev/null
    else
      images=("$work/snap0.vhd" "${images[@]}")
      before=0
    fi
    rc=0
    "$crash" $step "$store" d "${images[@]}" >/dev/null 2>&1 || rc=$?
    [ "$rc" = 9 ] || fail "$step, $kind disk: the import did not die at that step (exit $rc)"
    want=$before
    [ "$step" = saved ] && want=3
    if [ "$want" = 0 ]; then  # a new store that never got its catalog is no store yet
      [ ! -e "$store/catalog.json" ] || fail "$step, $kind disk: a catalog was written"
    else
      "$zxblk" list --store "$store" --json >"$work/list" 2>"$work/err" || { cat "$work/err"; fail "$step, $kind disk: list refused"; }
      listed=$(python3 -c 'import json, sys; print(sum(len(d["snapshots"]) for d in json.load(sys.stdin)["disks"]))' <"$work/list")
      [ "$listed" = "$want" ] || { cat "$work/list"; fail "$step, $kind disk: $listed snapshots listed, not $want"; }
    fi
    if [ "$step" != saved ]; then
      "$zxblk" import --store "$store" --disk d "${images[@]}" >/dev/null 2>"$work/err" ||
        { cat "$work/err"; fail "$step, $kind disk: the next import was refused"; }
    fi
    left=$(ls -A "$store/snapshots" "$store/sums" | grep -vxE 'd-snap[012]\.vhd(\.sums)?|.*:|' || true)
    [ -z "$left" ] || fail "$step, $kind disk: left in the store: $left"
    "$zxblk" export --store "$store" --disk d --out "$work/out" --cache "$work/cache-$step-$kind" >/dev/null 2>"$work/err" ||
      { cat "$work/err"; fail "$step, $kind disk: export failed"; }
    cmp "$work/out" "$work/snap2.raw" || fail "$step, $kind disk: the export differs from the plan"
    echo "ok: killed at $step ($kind disk): store repaired by the next import, exports right"
  done
done
