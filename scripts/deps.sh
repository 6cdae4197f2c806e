#!/usr/bin/env bash
# Installs what BaseLib needs on Debian, skipping what is already there.
#   deps.sh main    compiler and CMake (build and run vektool)
#   deps.sh test    also the x86 and Windows toolchains, wine64, GoogleTest,
#                   Google Benchmark
#   deps.sh bench   also the peer libraries the benchmarks compare against
set -euo pipefail
want=${1:-main}
pkgs=(cmake make g++ pkg-config)
if [ "$want" = test ] || [ "$want" = bench ]; then
  pkgs+=(g++-multilib mingw-w64 wine64 libgtest-dev libbenchmark-dev)
fi
if [ "$want" = bench ]; then
  pkgs+=(libinih-dev libglib2.0-dev)
  pkgs+=(libssl-dev)
fi
missing=()
for p in "${pkgs[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
sudo=""
[ "$(id -u)" = 0 ] || sudo=sudo
echo "installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
