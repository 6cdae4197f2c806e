#!/usr/bin/env bash
# Installs what BaseLib needs on Debian, skipping what is already there.
#   deps.sh main    compiler and CMake (build and run vektool)
#   deps.sh test    also GoogleTest, clang, the x86 and Windows toolchains,
#                   wine64, the time-zone data and libcurl's runtime
#                   (every test leg)
#   deps.sh bench   the main set, Google Benchmark and the peer libraries
#                   the benchmarks compare against
#   deps.sh docs    the main set and Doxygen
#   deps.sh fuzz    the main set, clang and its libFuzzer and sanitizer
#                   runtimes (scripts/fuzz.sh)
#   deps.sh coverage  the main set, GoogleTest and gcovr (scripts/coverage.sh)
#   deps.sh abi     the main set and libabigail's tools (scripts/abi.sh)
#   deps.sh package the main set, what cpack needs for Debian packages and
#                   man-db to read their manual page (scripts/package.sh deb,
#                   scripts/check-packages.sh)
#   deps.sh package-win  the main set and the Windows cross compiler
#                   (scripts/package.sh zip)
#   deps.sh i386-emu  qemu-i386, for 32-bit programs where the kernel
#                   refuses them (scripts/i386-exec.sh)
set -euo pipefail
want=${1:-main}
pkgs=(cmake make g++ pkg-config)
case "$want" in
  main) ;;
  test) pkgs+=(libgtest-dev clang g++-multilib mingw-w64 wine64 tzdata python3)
        pkgs+=(libcurl4)       # the download tests load it at run time
        pkgs+=(libexpat1-dev) ;;  # the XML decoder is compared with expat
  bench) pkgs+=(libbenchmark-dev libinih-dev libglib2.0-dev zlib1g-dev libssl-dev python3)
         pkgs+=(libspdlog-dev)
         pkgs+=(libexpat1-dev) ;;  # the XML decoder's peer
  docs) pkgs+=(doxygen python3) ;;
  fuzz) pkgs+=(clang libclang-rt-dev libgtest-dev) ;;
  coverage) pkgs+=(libgtest-dev gcovr tzdata) ;;
  abi) pkgs+=(abigail-tools) ;;
  package) pkgs+=(dpkg-dev file man-db) ;;
  package-win) pkgs+=(mingw-w64) ;;
  i386-emu) pkgs+=(qemu-user) ;;
  *) echo "deps.sh: unknown set \"$want\" (main, test, bench, docs, fuzz, coverage, abi, package, package-win, i386-emu)" >&2; exit 2 ;;
esac
# vektool's peers: xxd in its tests; /usr/bin/time and xxd in bench-vektool.sh
case "$want" in
  test) pkgs+=(xxd) ;;
  bench) pkgs+=(xxd time) ;;
esac
# The tests also check the ABI, build the Debian packages and read the
# manual page they install.
[ "$want" = test ] && pkgs+=(abigail-tools dpkg-dev file man-db)
# Timers and the task server are compared with libuv.
if [ "$want" = bench ]; then pkgs+=(libuv1-dev); fi
missing=()
for p in "${pkgs[@]}"; do
  dpkg -s "$p" 2>/dev/null | grep -q '^Status: install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
sudo=""
[ "$(id -u)" = 0 ] || sudo=sudo
echo "installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
