#!/usr/bin/env bash
# Sets up, builds and runs the main job on a sample backup it makes itself:
# an ext4 disk in a store of VHD snapshots, mounted and read without being
# restored first. Arguments go to `zxblk demo` (for example --dir DIR).
set -euo pipefail
cd "$(dirname "$0")"
scripts/setup.sh build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZXBLK_TESTS=OFF
echo "==> running the main job: build/tools/zxblk demo $*"
exec build/tools/zxblk demo "$@"
