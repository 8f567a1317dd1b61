#!/usr/bin/env bash
# Installs the libraries and headers into a scratch prefix and builds a small
# host against them with pkg-config, as a host outside this tree would.
set -euo pipefail
build=$1 source=$2
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig:$prefix/lib/x86_64-linux-gnu/pkgconfig"
# Sanitized builds need the same runtime in the host.
extra=""
if readelf -d "$prefix"/lib*/libzxblkvhd.so | grep -c libasan >/dev/null; then extra="-fsanitize=address,undefined"; fi
[ -f "$prefix/lib/libzxblkvhd.so" ] || [ -f "$prefix/lib/x86_64-linux-gnu/libzxblkvhd.so" ]
g++ $extra "$source" -o "$prefix/host" $(pkg-config --cflags --libs zxblkvhd)
ASAN_OPTIONS=detect_leaks=0 "$prefix/host"
