#!/usr/bin/env bash
# Runs the fuzz targets under libFuzzer with ASan and UBSan (clang).
#   scripts/fuzz.sh [--minimise] [--smoke] [TARGET|all] [SECONDS] [RUNS]
# TARGET is a name such as fuzz_ini (or ini); without it (or with "all")
# every target runs, SECONDS each (default 60), or until RUNS executions
# when that comes first (a campaign: all 1200 10000000). Each run starts from a working copy of the seed
# corpus fuzz/corpus/<target>/ in build/fuzz-work/<target>/, so the repository
# is left alone; crashes go to build/fuzz-crashes/<target>/. With --minimise
# the working corpus is merged (-merge=1) back into fuzz/corpus/<target>/,
# which keeps only inputs that reach new code (edges, not hit counts).
# With --smoke each run starts from the seed corpus alone (a fresh working
# folder), as the clang leg of scripts/test-all.sh does: a few seconds of
# every target, failing when any of them dies.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
minimise=0
smoke=0
args=()
for a in "$@"; do
  case "$a" in
    --minimise|--minimize) minimise=1 ;;
    --smoke) smoke=1 ;;
    -h|--help) sed -n '2,13p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) args+=("$a") ;;
  esac
done
target=${args[0]:-}
[ "$target" != all ] || target=
seconds=${args[1]:-60}
runs=${args[2]:--1}
# Every target in fuzz/, so that a new one is never left out of the smoke run.
all=($(cd fuzz && ls fuzz_*.cpp | sed 's/\.cpp$//'))
if [ -n "$target" ]; then
  [[ "$target" == fuzz_* ]] || target="fuzz_$target"
  [ -f "fuzz/$target.cpp" ] || { echo "fuzz.sh: no target $target (${all[*]})" >&2; exit 2; }
  targets=("$target")
else
  targets=("${all[@]}")
fi
[[ "$seconds" =~ ^[0-9]+$ ]] || { echo "fuzz.sh: SECONDS must be a number" >&2; exit 2; }
[[ "$runs" =~ ^-?[0-9]+$ ]] || { echo "fuzz.sh: RUNS must be a number" >&2; exit 2; }

bash scripts/deps.sh fuzz
build=build/fuzz
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DBASELIB_LIBFUZZER=ON -DBASELIB_TESTS=ON -DBASELIB_TOOLS=OFF -DBASELIB_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target "${targets[@]}" >/dev/null

# Report a sanitizer finding as a crash, not a stream of warnings.
export ASAN_OPTIONS=${ASAN_OPTIONS:-abort_on_error=1:detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
status=0
summary=()
for t in "${targets[@]}"; do
  seed=fuzz/corpus/$t
  work=build/fuzz-work/$t
  if [ "$smoke" = 1 ]; then
    work=build/fuzz-smoke/$t
    rm -rf "$work"
  fi
  crashes=build/fuzz-crashes/$t
  mkdir -p "$work" "$crashes" "$seed"
  cp -n "$seed"/* "$work"/ 2>/dev/null || true
  log=$work.log
  echo "== $t: $seconds s"
  rc=0
  start=$(date +%s)
  "$build/bin/$t" -max_total_time="$seconds" -runs="$runs" -print_final_stats=1 -timeout=10 -rss_limit_mb=2048 \
    -artifact_prefix="$crashes/" "$work" >"$log" 2>&1 || rc=$?
  execs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | tail -n 1 | grep -o '[0-9]*$' || true)
  cov=$(grep -oE '(#[0-9]+).*cov: [0-9]+ ft: [0-9]+' "$log" | tail -n 1 | grep -oE 'cov: [0-9]+ ft: [0-9]+' || true)
  files=$(find "$work" -type f | wc -l)
  if [ "$rc" -ne 0 ]; then
    status=1
    echo "   CRASH (exit $rc); see $log and $crashes/"
    grep -m 3 -E 'ERROR|runtime error|SUMMARY' "$log" | sed 's/^/   /' || true
  fi
  line="$t: ${execs:-?} runs in $(( $(date +%s) - start )) s, ${cov:-cov ?}, corpus $files files"
  echo "   $line"
  summary+=("$line")
  if [ "$minimise" = 1 ]; then
    tmp=$(mktemp -d)
    # Edges only (no hit counts): a seed corpus to keep in the repository
    # wants few inputs, not every loop count the run happened to reach.
    "$build/bin/$t" -merge=1 -use_counters=0 -timeout=10 "$tmp" "$seed" "$work" >>"$log" 2>&1 || echo "   merge failed; see $log"
    rm -rf "$seed"
    mkdir -p "$seed"
    cp "$tmp"/* "$seed"/ 2>/dev/null || true
    rm -rf "$tmp"
    echo "   minimised into $seed: $(find "$seed" -type f | wc -l) files, $(du -sk "$seed" | cut -f1) KiB"
  fi
done
echo "== summary"
printf '%s\n' "${summary[@]}"
exit $status
