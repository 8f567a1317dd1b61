#!/usr/bin/env bash
# The installed tree as a user gets it, moved away from where it was
# installed: the tool runs on the library alone, and the example program
# builds against the library with find_package and with pkg-config and
# reads a disk of a store byte for byte.
set -euo pipefail
build=$1 source=$2 cxx=$3 version=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export ASAN_OPTIONS=${ASAN_OPTIONS:-}:detect_leaks=1
unset LD_LIBRARY_PATH
ok() { echo "ok: $*"; }
fail() { echo "FAIL: $*"; exit 1; }

cmake --install "$build" --prefix "$work/installed" >/dev/null
mv "$work/installed" "$work/prefix"
p=$work/prefix
libdir=$(dirname "$(find "$p" -name libzxblk.so)")
for f in "$p/bin/zxblk" "$libdir"/lib*.so; do
  if readelf -d "$f" | grep -E 'R(UN)?PATH' | grep -qF "$build"; then fail "$f still looks for libraries in the build tree"; fi
done
[ "$("$p/bin/zxblk" --version)" = "zxblk $version" ] || fail "installed zxblk --version: $("$p/bin/zxblk" --version 2>&1)"
"$p/bin/zxblk" list --help >/dev/null || fail "installed zxblk list --help"
[ -f "$p/include/zxblk/zxblk.h" ] || fail "no zxblk/zxblk.h"
if grep -lE 'zxhost|zxstore|zxplatform|zxblkvhd' "$libdir"/cmake/zxblk/*.cmake; then
  fail "the CMake package names the libraries built into libzxblk.so"
fi
ok "the installed tool runs from a moved prefix; the package names only zxblk::zxblk"

# The tool is a client of the library alone: it loads libzxblk.so, holds no
# copy of the host (its symbols are there, so their absence is telling),
# and neither its sources nor the plugin's include more than the public
# header.
loaded=$(ldd "$p/bin/zxblk" | awk '$1 ~ /^libzxblk\.so/ { print $3 }')
[ -n "$loaded" ] && [ "$(realpath "$loaded")" = "$(realpath "$libdir/libzxblk.so")" ] ||
  fail "zxblk does not load $libdir/libzxblk.so: $(ldd "$p/bin/zxblk")"
nm -C "$p/bin/zxblk" >"$work/symbols"
grep -q "registerMountCommand" "$work/symbols" || fail "nm finds none of zxblk's own symbols"
if grep -q "DiskHost" "$work/symbols"; then fail "zxblk holds a copy of the host: $(grep -m1 DiskHost "$work/symbols")"; fi
if grep -rnE '#include +"(host|store|platform|framework)/' "$source/tools" "$source/nbd"; then
  fail "tools/ or nbd/ includes the tree's own headers"
fi
ok "zxblk loads libzxblk.so and holds no DiskHost; tools/ and nbd/ include only the public header"

# A disk made by another tool, and the bytes it must read as.
python3 - "$work/disk.raw" <<'PY'
import os, random, sys
random.seed(7)
size = 6 * 1024 * 1024 + 9 * 512  # not a whole number of extents
data = bytearray(os.urandom(size))
data[1 << 20:(3 << 20) + 4096] = bytes((2 << 20) + 4096)
open(sys.argv[1], "wb").write(data)
PY
qemu-img convert -q -f raw -O vpc -o force_size=on "$work/disk.raw" "$work/disk.vhd"
"$p/bin/zxblk" import --store "$work/store" --disk web01 --extent-size 256K "$work/disk.vhd" >/dev/null
size=$(stat -c %s "$work/disk.raw")

cmake -S "$source/examples" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$p" -DCMAKE_CXX_COMPILER="$cxx" \
  >"$work/log" 2>&1 || { cat "$work/log"; fail "configuring the example with find_package(zxblk)"; }
cmake --build "$work/cmake-build" >"$work/log" 2>&1 || { cat "$work/log"; fail "building the example with CMake"; }
flags=$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs zxblk)
"$cxx" -std=c++17 "$source/examples/read_disk.cpp" -o "$work/read_disk_pc" $flags || fail "building with pkg-config: $flags"

# RANGE per build: one across an extent boundary and into the zero run, one at the very end.
runs=("$work/cmake-build/read_disk $((256 * 1024 - 1000)) $((1 << 20))"
      "$work/read_disk_pc $((size - 300000)) 300000")
for run in "${runs[@]}"; do
  set -- $run
  prog=$1 offset=$2 length=$3
  XDG_CACHE_HOME=$work/cache "$prog" "$work/store" web01 "$offset" "$length" "$work/out" >"$work/listing" ||
    fail "$prog exited $?"
  grep -qx "zxblk $version" "$work/listing" || fail "$prog: version line: $(cat "$work/listing")"
  grep -qx "web01: $size bytes" "$work/listing" || fail "$prog: disk line: $(cat "$work/listing")"
  grep -qE '^  snapshot 0: dynamic VHD, .+, ok$' "$work/listing" || fail "$prog: snapshot line: $(cat "$work/listing")"
  cmp "$work/out" <(tail -c +$((offset + 1)) "$work/disk.raw" | head -c "$length") ||
    fail "$prog: bytes $offset+$length differ from the raw disk"
done
[ -n "$(ls "$work/cache")" ] || fail "the example did not use the cache it was given"
ok "the example built with find_package and with pkg-config reads the disk byte for byte"

XDG_CACHE_HOME=$work/cache "$work/read_disk_pc" "$work/store" web01 "$size" 1 "$work/out" >/dev/null 2>"$work/err" &&
  fail "a read past the end succeeded"
grep -qx "read_disk: range $size+1 is past the end of disk web01 ($size bytes)" "$work/err" || fail "$(cat "$work/err")"
ok "a read past the end is one line through zxblk::Error"

# zxblk serve of the moved tree starts nbdkit with the plugin installed beside it.
plugin=$(find "$p" -name nbdkit-zxblk-plugin.so)
[ -n "$plugin" ] || fail "no nbdkit-zxblk-plugin.so installed"
if readelf -d "$plugin" | grep -E 'R(UN)?PATH' | grep -qF "$build"; then fail "$plugin looks for libraries in the build tree"; fi
if command -v nbdkit >/dev/null && command -v nbdcopy >/dev/null; then
  XDG_CACHE_HOME=$work/cache timeout 120 "$p/bin/zxblk" serve --store "$work/store" --disk web01 \
    --run "nbdcopy \"\$uri\" $work/nbd.out" >/dev/null || fail "installed zxblk serve"
  cmp "$work/nbd.out" "$work/disk.raw" || fail "installed zxblk serve: wrong bytes"
  ok "the installed zxblk serve finds its nbdkit plugin: nbdcopy reads the disk byte for byte"
fi
