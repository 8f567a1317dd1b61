#!/usr/bin/env bash
# Sets up, builds and runs the main job on a sample backup it makes itself.
set -euo pipefail
cd "$(dirname "$0")"
scripts/setup.sh build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZXBLK_TESTS=OFF
if [ -x build/tools/zxblk ]; then
  if build/tools/zxblk --help 2>/dev/null | grep -q '\bdemo\b'; then
    echo "==> running the main job: build/tools/zxblk demo $*"
    exec build/tools/zxblk demo "$@"
  fi
  echo "==> built build/tools/zxblk; this build has no 'demo' yet. Its commands:"
  exec build/tools/zxblk --help
fi
echo "==> built the libraries in build/ (libzxplatform.so and, once present, libzxblkvhd.so)."
echo "    The zxblk tool is not part of this build yet; ./test.sh runs the test suite."
