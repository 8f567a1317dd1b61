#!/usr/bin/env bash
# Corruption sweep of `zxblk import`: mutated VHD images (qemu-img dynamic and
# fixed VHDs, a differencing chain from the test tree's writer) must each be
# refused with one line and the store left unchanged, or be accepted and
# export exactly what an independent reference reads. See corruption_sweep.py.
#
# corruption_sweep.sh ZXBLK MAKE_VHD_CHAIN TAMPER_PY [COUNT] [SEED] [ONLY]
#   COUNT  mutants (default 200); SEED defaults to one drawn at random and
#          printed; ONLY runs mutant number ONLY of that seed alone and keeps
#          its files, to reproduce a failure.
# A long campaign (5,000 mutants, a fresh seed each time):
#   cmake --build build --target corruption_campaign
# or directly:
#   tests/e2e_store/corruption_sweep.sh build/tools/zxblk \
#     build/tests/support/make_vhd_chain tests/e2e_store/vhd_tamper.py 5000
set -euo pipefail
zxblk=$1 chain=$2 tamper=$3 count=${4:-200} seed=${5:-$(( (RANDOM << 15 | RANDOM) ))} only=${6:-}
command -v qemu-img >/dev/null || { echo "corruption sweep needs qemu-img"; exit 1; }
work=$(mktemp -d "${TMPDIR:-/tmp}/corruption_sweep.XXXXXX")
if [ -z "$only" ]; then trap 'rm -rf "$work"' EXIT; fi
# A private cache home, so nothing lands under the user's ~/.cache.
export HOME=$work/home XDG_CACHE_HOME=$work/home/.cache
mkdir -p "$HOME"
python3 "$(dirname "$0")/corruption_sweep.py" "$zxblk" "$chain" "$tamper" "$count" "$seed" "$work" $only
