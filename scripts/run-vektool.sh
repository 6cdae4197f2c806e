#!/usr/bin/env bash
# Builds BaseLib (Linux x86-64) and runs its command-line program: vektool info.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh main
cmake -S . -B build/main -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBASELIB_TESTS=OFF >/dev/null
cmake --build build/main -j "$(nproc)" >/dev/null
exec build/main/bin/vektool info "$@"
