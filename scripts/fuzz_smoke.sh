#!/usr/bin/env bash
# Runs every fuzz target built in BUILD_DIR for a few thousand executions on
# a copy of its seed corpus (libFuzzer adds what it finds to the corpus it is
# given, and the tree's corpus stays as committed). Builds nothing. Prints
# one line per target; exits non-zero when a target crashes, breaks one of
# its checks or trips a sanitizer, and keeps the input that did it.
#
#   scripts/fuzz_smoke.sh BUILD_DIR
#
# FUZZ_SMOKE_RUNS (default 3000) and FUZZ_SMOKE_SECONDS (default 60, a guard
# per target) change how long each target runs.
set -uo pipefail
cd "$(dirname "$0")/.."
build=${1:?usage: scripts/fuzz_smoke.sh BUILD_DIR}
runs=${FUZZ_SMOKE_RUNS:-3000}
seconds=${FUZZ_SMOKE_SECONDS:-60}

# UBSan only prints and carries on unless told to stop; a report must fail.
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}

mapfile -t targets < <(find "$build/fuzz" -type f -name '*_fuzz' -perm -u+x 2>/dev/null | sort)
if [ ${#targets[@]} -eq 0 ]; then
  echo "fuzz smoke: no fuzz targets in $build/fuzz (configure with -DZXBLK_FUZZ=ON and build fuzz_targets)" >&2
  exit 1
fi

failures=0
for bin in "${targets[@]}"; do
  name=$(basename "$bin")
  bin=$(cd "$(dirname "$bin")" && pwd)/$name
  src=fuzz/${name%_fuzz}
  work=$(mktemp -d)
  mkdir "$work/corpus"
  [ -d "$src/corpus" ] && cp "$src"/corpus/* "$work/corpus/" 2>/dev/null
  args=(-runs="$runs" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -artifact_prefix="$work/")
  [ -f "$src/${name%_fuzz}.dict" ] && args+=(-dict="$PWD/$src/${name%_fuzz}.dict")
  start=$(date +%s)
  (cd "$work" && "$bin" "${args[@]}" corpus) >"$work/log" 2>&1
  rc=$?
  took=$(($(date +%s) - start))
  done_line=$(grep -o 'Done [0-9]* runs' "$work/log" | tail -1)
  if [ $rc -eq 0 ]; then
    printf 'fuzz smoke: ok    %-22s %s in %ss, corpus %s -> %s inputs\n' "$name" "${done_line#Done }" "$took" \
      "$(ls "$src/corpus" 2>/dev/null | wc -l)" "$(ls "$work/corpus" | wc -l)"
    rm -rf "$work"
  else
    failures=$((failures + 1))
    keep=$build/fuzz-smoke-failures/$name
    mkdir -p "$keep"
    cp "$work"/crash-* "$work"/leak-* "$work"/timeout-* "$work"/oom-* "$keep/" 2>/dev/null
    cp "$work/log" "$keep/log"
    printf 'fuzz smoke: FAIL  %-22s exit %s after %ss; inputs and log kept in %s\n' "$name" "$rc" "$took" "$keep"
    tail -n 40 "$work/log" | sed 's/^/    /'
    rm -rf "$work"
  fi
done
[ $failures -eq 0 ]
