#!/usr/bin/env bash
# Sets up, builds with AddressSanitizer and UndefinedBehaviorSanitizer, and
# runs the whole suite.
set -euo pipefail
cd "$(dirname "$0")"
scripts/setup.sh build-asan -DCMAKE_BUILD_TYPE=Debug -DZXBLK_SANITIZE=ON
echo "==> running the test suite (ctest)"
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
ctest --test-dir build-asan --output-on-failure -j"$(nproc)" --timeout 600
