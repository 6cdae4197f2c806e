#!/usr/bin/env bash
# The plain build (no preset, no options) installs headers, the library, the
# CMake package and the pkg-config file; programs outside the tree build
# against the install both ways and run.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD/build/install-check
rm -rf "$root"
cmake -S . -B "$root/build" >/dev/null
cmake --build "$root/build" -j "$(nproc)" >/dev/null
cmake --install "$root/build" --prefix "$root/prefix" >/dev/null
for f in include/BaseLib/BaseLib.h lib/libBaseLib.so lib/cmake/BaseLib/BaseLibConfig.cmake \
         lib/pkgconfig/BaseLib.pc bin/vektool; do
  [ -e "$root/prefix/$f" ] || { echo "install lacks $f"; exit 1; }
done
if ls "$root/prefix/include/BaseLib" | grep -v -E '\.h$' | grep -q .; then
  echo "install holds more than public headers"; exit 1
fi
for h in "$root"/prefix/include/BaseLib/*.h; do
  grep -q "#include \"$(basename "$h")\"" Inc/BaseLib.h || [ "$(basename "$h")" = BaseLib.h ] ||
    { echo "BaseLib.h does not include $(basename "$h")"; exit 1; }
done
cmake -S tests/install -B "$root/consumer" -DCMAKE_PREFIX_PATH="$root/prefix" >/dev/null
cmake --build "$root/consumer" >/dev/null
LD_LIBRARY_PATH="$root/prefix/lib" "$root/consumer/consumer" | grep -q "BaseLib 1.0.0 from $root/prefix/lib"
PKG_CONFIG_PATH="$root/prefix/lib/pkgconfig" \
  gcc -std=c99 tests/install/consumer.c -o "$root/consumer-pc" $(PKG_CONFIG_PATH="$root/prefix/lib/pkgconfig" pkg-config --cflags --libs BaseLib)
LD_LIBRARY_PATH="$root/prefix/lib" "$root/consumer-pc" | grep -q "BaseLib 1.0.0"
echo "install check passed"
