#!/usr/bin/env bash
# Sets up, builds with AddressSanitizer and UndefinedBehaviorSanitizer, and
# runs the whole suite; then the fuzz targets (and the lock annotations)
# with clang, and the tests of what crosses threads under ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")"
scripts/setup.sh build-asan -DCMAKE_BUILD_TYPE=Debug -DZXBLK_SANITIZE=ON
echo "==> running the test suite (ctest)"
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
ctest --test-dir build-asan --output-on-failure -j"$(nproc)" --timeout 600
if command -v clang++ >/dev/null 2>&1; then
  # The clang build also checks the lock annotations of the host and of
  # what it builds on (-Wthread-safety, an error when one is broken).
  echo "==> fuzz smoke run and lock annotations: building the fuzz targets and the host library in build-fuzz"
  cmake -S . -B build-fuzz -DZXBLK_FUZZ=ON -DZXBLK_TESTS=OFF -DZXBLK_THREAD_SAFETY=ON \
    -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo >build-fuzz.configure.log 2>&1 || { cat build-fuzz.configure.log; exit 1; }
  cmake --build build-fuzz -j"$(nproc)" --target fuzz_targets zxhost zxblk_api >build-fuzz/build.log 2>&1 ||
    { tail -n 50 build-fuzz/build.log; exit 1; }
  scripts/fuzz_smoke.sh build-fuzz
else echo "skipped: fuzz smoke run and lock annotations (no clang)"; fi
# Many disks of many stores open at once in one process, read from many
# threads, and the host's parts that cross threads, under ThreadSanitizer
# (the whole suite is clean there too: ctest --test-dir build-tsan, README).
echo "==> ThreadSanitizer: the VMs test, the host and the router in build-tsan"
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DZXBLK_TSAN=ON >build-tsan.configure.log 2>&1 ||
  { cat build-tsan.configure.log; exit 1; }
cmake --build build-tsan -j"$(nproc)" --target zxblk nbdkit_zxblk_plugin read_disks make_vhd_chain disk_host_test \
  service_router_test >build-tsan/build.log 2>&1 || { tail -n 50 build-tsan/build.log; exit 1; }
TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1} ctest --test-dir build-tsan --output-on-failure -j"$(nproc)" \
  --timeout 900 -R '^(e2e_vm|DiskHost.*|ServiceRouter.*)$'
