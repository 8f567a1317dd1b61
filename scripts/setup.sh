#!/usr/bin/env bash
# Installs what is missing (Debian packages) and configures and builds the
# project. Idempotent: a second run installs nothing and rebuilds only what
# changed.
#
#   scripts/setup.sh BUILD_DIR [extra cmake arguments...]
set -euo pipefail
cd "$(dirname "$0")/.."

# Everything the project needs to build, test and run, in one place.
PACKAGES=(
  cmake make g++ clang libclang-rt-14-dev pkg-config
  libboost-dev libgtest-dev libgmock-dev libbenchmark-dev
  nlohmann-json3-dev libcli11-dev libsqlite3-dev sqlite3
  libfuse3-dev fuse3 nbdkit nbdkit-plugin-dev libnbd-bin libxxhash-dev
  qemu-utils libvhdi-utils e2fsprogs python3 strace cryptsetup-bin
  libblkid-dev fdisk gdisk python3-libnbd
  ceph radosgw libcurl4-openssl-dev uuid-runtime libpugixml-dev qemu-block-extra
  qemu-system-x86 seabios ipxe-qemu busybox-static extlinux syslinux-common
)

say() { printf '==> %s\n' "$*"; }

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  say "installing missing packages: ${missing[*]}"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
else
  say "all ${#PACKAGES[@]} required packages are installed"
fi

build_dir=${1:?usage: scripts/setup.sh BUILD_DIR [cmake args...]}
shift
say "configuring $build_dir ($*)"
cmake -S . -B "$build_dir" "$@" >"$build_dir.configure.log" 2>&1 || { cat "$build_dir.configure.log"; exit 1; }
say "building $build_dir with $(nproc) jobs"
cmake --build "$build_dir" -j"$(nproc)"
