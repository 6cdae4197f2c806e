#!/usr/bin/env bash
# Builds the benchmarks in Release (Linux x86-64) and runs them all, or the
# ones named: bench.sh [bench_heap ...]. Extra Google Benchmark flags go in
# BENCH_FLAGS.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh bench
cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=Release -DBASELIB_TESTS=OFF -DBASELIB_BENCH=ON >/dev/null
cmake --build build/bench -j "$(nproc)" >/dev/null
names=("$@")
[ ${#names[@]} -gt 0 ] || names=($(cd build/bench/bin && ls bench_*))
for b in "${names[@]}"; do
  echo "=== $b"
  "build/bench/bin/$b" ${BENCH_FLAGS:-}
done
