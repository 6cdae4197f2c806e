#!/usr/bin/env bash
# Builds BaseLib on every leg and runs every test there (the test suites,
# the fuzz targets' replay and the examples; on the clang leg also a few
# seconds of every fuzz target under libFuzzer with ASan and UBSan):
#   linux-x64, linux-x86 (g++ -m32; under qemu-i386 on a kernel that
#   cannot run 32-bit programs), windows-x64 (mingw-w64, under wine64),
#   linux-asan (ASan + UBSan), linux-tsan (ThreadSanitizer),
#   linux-clang (clang), linux-x64-static (the static library);
# then checks the plain builds' install (shared and static: CMake package,
# pkg-config, programs built against it, the installed vektool), the
# exported symbols, the platform layer's calls up (scripts/check-layers.sh),
# the texts of the result codes (scripts/check-errtexts.sh), the API
# reference, the ABI against its baseline (and that the check catches a
# break), and the packages: the Windows zip of the windows-x64 leg, the
# Debian packages installed, used and removed.
# BASELIB_LEGS narrows the legs, e.g. BASELIB_LEGS=linux-x64.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh test
jobs=$(nproc)
legs=${BASELIB_LEGS:-"linux-x64 linux-x86 windows-x64 linux-asan linux-tsan linux-clang linux-x64-static"}

wine_dir=""
i386_exec=""
cleanup() {
  if [ -n "$wine_dir" ]; then
    bash scripts/wine.sh stop "$wine_dir"
  fi
  if [ -n "$i386_exec" ]; then
    bash scripts/i386-exec.sh stop
  fi
}
trap cleanup EXIT

for leg in $legs; do
  start=$SECONDS
  echo "=== $leg: build"
  if [ "$leg" = linux-x86 ]; then
    i386_exec=1
    bash scripts/i386-exec.sh start
  fi
  cmake --preset "$leg" >/dev/null
  cmake --build --preset "$leg" -j "$jobs" >/dev/null
  if [ "$leg" = windows-x64 ]; then
    wine_dir=build/$leg
    bash scripts/wine.sh start "$wine_dir"
  fi
  echo "=== $leg: test"
  ctest --preset "$leg" -j "$jobs"
  echo "=== $leg: vektool info"
  if [ "$leg" = windows-x64 ]; then
    cmake/wine-run.sh "build/$leg/bin/vektool.exe" info >/dev/null
    # The zip of this build: its vektool.exe runs from the unpacked folder.
    echo "=== $leg: zip package"
    bash scripts/package.sh zip "build/$leg"
    rm -rf build/package-zip-check && mkdir -p build/package-zip-check
    (cd build/package-zip-check && cmake -E tar xf ../packages/BaseLib-*-win64.zip)
    WINEPREFIX=$PWD/build/$leg/wineprefix cmake/wine-run.sh \
      build/package-zip-check/BaseLib-*-win64/bin/vektool.exe --version | grep "(BaseLib)" >/dev/null
    bash scripts/wine.sh stop "$wine_dir"
    wine_dir=""
  else
    "build/$leg/bin/vektool" info >/dev/null
  fi
  if [ "$leg" = linux-clang ]; then
    echo "=== $leg: libFuzzer run of every fuzz target"
    bash scripts/fuzz.sh --smoke all 5
  fi
  echo "=== $leg: passed in $((SECONDS - start)) s"
done

echo "=== install and exports"
bash scripts/check-errtexts.sh
bash scripts/check-install.sh
for leg in $legs; do
  case "$leg" in
    linux-x64|linux-x86|windows-x64) bash scripts/check-exports.sh "build/$leg" ;;
  esac
  case "$leg" in
    linux-x64|windows-x64) bash scripts/check-layers.sh "build/$leg" ;;
  esac
done
echo "=== API reference"
bash scripts/docs.sh
echo "=== ABI"
abi_dirs=()
for leg in $legs; do
  case "$leg" in
    linux-x64|linux-x86) abi_dirs+=("build/$leg") ;;
  esac
done
if [ ${#abi_dirs[@]} -gt 0 ]; then
  bash scripts/abi.sh check "${abi_dirs[@]}"
fi
case " $legs " in
  *" linux-x64 "*) bash scripts/abi.sh selftest build/linux-x64 ;;
esac
echo "=== Debian packages"
bash scripts/package.sh deb
bash scripts/check-packages.sh
echo "=== all legs passed: $legs"
