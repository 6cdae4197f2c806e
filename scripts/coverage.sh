#!/usr/bin/env bash
# Line and branch coverage of the library by the test suite (gcc --coverage,
# gcovr). Builds the linux-x64 suite in build/coverage, runs ctest, writes
# build/coverage/html/index.html and prints a summary per folder (Src/,
# posix/). Extra arguments go to ctest (e.g. -R vek_str).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bash scripts/deps.sh coverage
build=build/coverage
# A compiler launcher such as ccache with a base folder rewrites the paths
# the counters record, and gcovr then cannot pair them with the sources.
unset CMAKE_C_COMPILER_LAUNCHER CMAKE_CXX_COMPILER_LAUNCHER CCACHE_BASEDIR
# gcov leaves its .gcov files in the current folder when gcovr stops early.
trap 'rm -f "$root"/*.gcov' EXIT
flags="--coverage -O0"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ \
  -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" \
  -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage \
  -DCMAKE_C_COMPILER_LAUNCHER= -DCMAKE_CXX_COMPILER_LAUNCHER= \
  -DBASELIB_TESTS=ON -DBASELIB_TOOLS=ON -DBASELIB_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" >/dev/null
# Counters from an earlier run would add up with this one.
find "$build" -name '*.gcda' -delete
rc=0
(cd "$build" && ctest -j"$(nproc)" --output-on-failure "$@") || rc=$?
[ "$rc" -eq 0 ] || echo "coverage.sh: some tests failed (the report still covers what ran)" >&2
mkdir -p "$build/html"
# Branches a throw or the compiler adds (exception clean-up) are not the
# code's own decisions; they would drown the figures.
common=(-r "$root" --object-directory "$build" --filter 'Src/' --filter 'posix/'
  --exclude-directories '.*/CMakeFiles/[0-9.]+/.*'
  --exclude-throw-branches --exclude-unreachable-branches --gcov-ignore-parse-errors)
gcovr "${common[@]}" --html-details "$build/html/index.html" \
  --json-summary "$build/summary.json" --print-summary >/dev/null
python3 - "$build/summary.json" <<'PY'
import json, sys, collections
d = json.load(open(sys.argv[1]))
agg = collections.defaultdict(lambda: [0, 0, 0, 0])
for f in d["files"]:
    folder = f["filename"].split("/")[0] + "/"
    a = agg[folder]
    a[0] += f["line_covered"]; a[1] += f["line_total"]
    a[2] += f["branch_covered"]; a[3] += f["branch_total"]
pct = lambda c, t: 100.0 * c / t if t else 100.0
print("%-8s %18s %20s" % ("folder", "lines", "branches"))
tot = [0, 0, 0, 0]
for k in sorted(agg):
    a = agg[k]
    tot = [x + y for x, y in zip(tot, a)]
    print("%-8s %6.1f%% %5d/%-5d %6.1f%% %6d/%-6d" % (k, pct(a[0], a[1]), a[0], a[1], pct(a[2], a[3]), a[2], a[3]))
print("%-8s %6.1f%% %5d/%-5d %6.1f%% %6d/%-6d" % ("all", pct(tot[0], tot[1]), tot[0], tot[1], pct(tot[2], tot[3]), tot[2], tot[3]))
PY
echo "report: $build/html/index.html"
exit $rc
