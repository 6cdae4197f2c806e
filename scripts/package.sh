#!/usr/bin/env bash
# Builds the release packages into build/packages/:
#   package.sh [deb|zip|all] [BUILD_DIR]
#     deb  the Debian packages libbaselib<N>, libbaselib-dev and vektool,
#          from a build with the prefix /usr (build/package-deb)
#     zip  BaseLib-<version>-win64.zip: BaseLib.dll, its import library, the
#          headers and vektool.exe (mingw-w64 cross build, build/package-win)
#     all  both (the default)
# With BUILD_DIR, zip packs that Windows build instead of making its own
# (scripts/test-all.sh packs the windows-x64 leg's).
set -euo pipefail
cd "$(dirname "$0")/.."
what=${1:-all}
from=${2:-}
out=$PWD/build/packages
jobs=$(nproc)
mkdir -p "$out"

# Runs cpack in a configured build and moves its packages to $out.
pack() {  # pack BUILD_DIR GENERATOR
  rm -rf "$1/packages"
  (cd "$1" && cpack -G "$2" >cpack.log 2>&1) || { cat "$1/cpack.log"; exit 1; }
  find "$1/packages" -maxdepth 1 -type f \( -name '*.deb' -o -name '*.zip' \) -exec mv -f {} "$out/" \;
}

deb() {
  local build=build/package-deb
  bash scripts/deps.sh package
  # Built as a distribution builds it: prefix /usr (the library in the
  # multiarch folder, no run path), optimised with debug information that
  # cpack strips from the packaged files.
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
        -DBASELIB_TESTS=OFF -DBASELIB_TOOLS=ON >/dev/null
  cmake --build "$build" -j "$jobs" >/dev/null
  rm -f "$out"/*.deb
  pack "$build" DEB
  for f in "$out"/*.deb; do
    echo "package: $f"
    dpkg-deb -f "$f" Package Version Architecture Depends | sed 's/^/  /'
  done
}

zip() {
  local build=${from:-build/package-win}
  if [ -z "$from" ]; then
    bash scripts/deps.sh package-win
    cmake -S . -B "$build" --toolchain "$PWD/cmake/toolchain-mingw-w64.cmake" \
          -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBASELIB_TESTS=OFF -DBASELIB_TOOLS=ON >/dev/null
    cmake --build "$build" -j "$jobs" >/dev/null
  fi
  rm -f "$out"/*.zip
  pack "$build" ZIP
  local f
  f=$(ls "$out"/*.zip)
  # What a Windows user needs: the DLL, its import library, the headers and
  # the program.
  local list
  list=$(cmake -E tar tf "$f")
  for want in bin/BaseLib.dll bin/vektool.exe lib/libBaseLib.dll.a include/BaseLib/BaseLib.h \
              lib/cmake/BaseLib/BaseLibConfig.cmake; do
    echo "$list" | grep "/$want\$" >/dev/null || { echo "package.sh: $f lacks $want"; exit 1; }
  done
  echo "package: $f ($(echo "$list" | grep -c -v '/$') files)"
}

case "$what" in
  deb) deb ;;
  zip) zip ;;
  all) deb; zip ;;
  *) echo "usage: package.sh [deb|zip|all] [BUILD_DIR]" >&2; exit 2 ;;
esac
