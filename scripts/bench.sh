#!/usr/bin/env bash
# Builds the benchmarks in Release (Linux x86-64) and runs them all, or the
# ones named: bench.sh [bench_heap ...]. Each runs 5 repetitions (medians
# reported); extra Google Benchmark flags go in BENCH_FLAGS. The medians
# then go into bench/RESULTS.md: each hot path against its peer, the ratio
# and its goal, with a chart of the ratios (bench/results.svg).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh bench
cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=Release -DBASELIB_TESTS=OFF -DBASELIB_BENCH=ON >/dev/null
cmake --build build/bench -j "$(nproc)" >/dev/null
names=("$@")
[ ${#names[@]} -gt 0 ] || names=($(cd build/bench/bin && ls bench_*))
json=build/bench/json
mkdir -p "$json"
for b in "${names[@]}"; do
  echo "=== $b"
  "build/bench/bin/$b" --benchmark_repetitions=5 --benchmark_report_aggregates_only=true \
    --benchmark_out="$json/$b.json" --benchmark_out_format=json ${BENCH_FLAGS:-}
done
python3 scripts/bench-report.py "$json" bench/RESULTS.md bench/results.svg
echo "=== bench/RESULTS.md"
cat bench/RESULTS.md
