#!/usr/bin/env bash
# The plain builds (no preset; shared, then static) install headers, the
# library, the CMake package, the pkg-config file and vektool with its
# manual page and bash completion; programs
# outside the tree build against each install both ways and run, and the
# installed vektool runs from its prefix with no library path set.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD/build/install-check
rm -rf "$top"

check_prefix() {  # check_prefix KIND ROOT
  local kind=$1 root=$2 lib
  lib=lib/libBaseLib.so
  [ "$kind" = static ] && lib=lib/libBaseLib.a
  for f in include/BaseLib/BaseLib.h $lib lib/cmake/BaseLib/BaseLibConfig.cmake \
           lib/pkgconfig/BaseLib.pc bin/vektool share/man/man1/vektool.1.gz \
           share/bash-completion/completions/vektool; do
    [ -e "$root/prefix/$f" ] || { echo "$kind install lacks $f"; exit 1; }
  done
  if ls "$root/prefix/include/BaseLib" | grep -v -E '\.h$' | grep -q .; then
    echo "$kind install holds more than public headers"; exit 1
  fi
  for h in "$root"/prefix/include/BaseLib/*.h; do
    grep -q "#include \"$(basename "$h")\"" Inc/BaseLib.h || [ "$(basename "$h")" = BaseLib.h ] ||
      { echo "BaseLib.h does not include $(basename "$h")"; exit 1; }
  done
}

for kind in shared static; do
  root=$top/$kind
  opt=OFF
  [ "$kind" = static ] && opt=ON
  # The shared build is a user's plain build, tests and all; the static
  # one only needs what it installs.
  tests=AUTO
  [ "$kind" = static ] && tests=OFF
  cmake -S . -B "$root/build" -DBASELIB_STATIC=$opt -DBASELIB_TESTS=$tests >/dev/null
  cmake --build "$root/build" -j "$(nproc)" >/dev/null
  cmake --install "$root/build" --prefix "$root/prefix" >/dev/null
  check_prefix "$kind" "$root"
  # The installed program starts from its prefix alone, and finds its
  # configuration where the library (static: the program) lives.
  env -u LD_LIBRARY_PATH "$root/prefix/bin/vektool" info >"$root/info.txt"
  libdir=$root/prefix/lib
  [ "$kind" = static ] && libdir=$root/prefix/bin
  grep -q "base folder: *$libdir\$" "$root/info.txt" ||
    { echo "$kind vektool: wrong base folder"; cat "$root/info.txt"; exit 1; }
  env -u LD_LIBRARY_PATH "$root/prefix/bin/vektool" --version | grep -q "(BaseLib) 1.0.0"
  # A CMake consumer and a pkg-config consumer (--static for the archive).
  cmake -S tests/install -B "$root/consumer" -DCMAKE_PREFIX_PATH="$root/prefix" >/dev/null
  cmake --build "$root/consumer" >/dev/null
  pcflags="--cflags --libs"
  [ "$kind" = static ] && pcflags="--static --cflags --libs"
  # shellcheck disable=SC2046
  gcc -std=c99 tests/install/consumer.c -o "$root/consumer-pc" \
    $(PKG_CONFIG_PATH="$libdir/../lib/pkgconfig" pkg-config $pcflags BaseLib)
  if [ "$kind" = shared ]; then
    LD_LIBRARY_PATH="$root/prefix/lib" "$root/consumer/consumer" | grep -q "BaseLib 1.0.0 from $root/prefix/lib"
    LD_LIBRARY_PATH="$root/prefix/lib" "$root/consumer-pc" | grep -q "BaseLib 1.0.0"
  else
    "$root/consumer/consumer" | grep -q "BaseLib 1.0.0 from $root/consumer"
    "$root/consumer-pc" | grep -q "BaseLib 1.0.0 from $root"
  fi
  echo "install check ($kind) passed"
done
