#!/usr/bin/env bash
# The ABI guard of the shared library (libabigail's abidw and abidiff).
#
#   abi.sh check [BUILD_DIR...]   compares each build's library with the
#       baseline kept in abi/ for its SONAME and architecture; fails, with
#       abidiff's report, on any change a program built against the
#       baseline could notice: a function removed or changed, a public
#       record (a struct the headers define) changed in size or layout.
#       Added functions are compatible. Default: build/linux-x64 and
#       build/linux-x86, those that exist.
#   abi.sh update [--break] [BUILD_DIR...]   writes the baselines from
#       the builds (default: builds the library of the linux-x64 and
#       linux-x86 presets first). It shows what changed and refuses a change
#       that is not compatible under the same SONAME unless --break is
#       given: such a change needs a new major version (README, "ABI and
#       SONAME"). Commit the baselines with the change that made them.
#   abi.sh selftest BUILD_DIR     proves that check catches a break: copies
#       of the build's library, relinked in a scratch folder from its own
#       objects, with one public record grown, one export removed (both
#       must fail) and one function added (must pass).
#
# The baselines are abidw dumps of the RelWithDebInfo library, taken with
# the public headers (--headers-dir Inc), so the records reachable from the
# exported functions are in them with their layout, and nothing private.
set -euo pipefail
cd "$(dirname "$0")/.."
src=$PWD
bash scripts/deps.sh abi

dump() {  # dump LIB HEADERS_DIR OUT
  abidw --headers-dir "$2" --drop-private-types --no-show-locs --no-comp-dir-path \
        --no-corpus-path --out-file "$3" "$1"
  grep -q "<class-decl\|<function-decl" "$3" ||
    { echo "abi.sh: $1 has no debug information (build it RelWithDebInfo)"; exit 2; }
}

# abi/libBaseLib.so.1.x86_64.abi: the baseline for a dump's SONAME and
# architecture.
baseline_of() {  # baseline_of DUMP
  local head soname arch
  head=$(grep -m1 '<abi-corpus ' "$1")
  soname=$(echo "$head" | sed -n "s/.* soname='\([^']*\)'.*/\1/p")
  arch=$(echo "$head" | sed -n "s/.* architecture='\([^']*\)'.*/\1/p")
  case "$arch" in
    elf-amd-x86_64) arch=x86_64 ;;
    elf-intel-80386) arch=i386 ;;
  esac
  [ -n "$soname" ] || { echo "abi.sh: $1: the library has no SONAME"; exit 2; }
  echo "abi/$soname.$arch.abi"
}

# Compares a dump with a baseline; prints abidiff's report and fails on
# anything but added functions.
compare() {  # compare BASELINE DUMP REPORT
  local rc=0
  abidiff --no-added-syms "$1" "$2" >"$3" 2>&1 || rc=$?
  [ $rc -eq 0 ] && return 0
  [ $((rc & 3)) -eq 0 ] || { cat "$3"; echo "abi.sh: abidiff could not compare (status $rc)"; exit 2; }
  return 1
}

check_lib() {  # check_lib LIB HEADERS_DIR WORK_DIR: 0 compatible, 1 not
  local lib=$1 inc=$2 work=$3 base
  mkdir -p "$work"
  dump "$lib" "$inc" "$work/current.abi"
  base=$(baseline_of "$work/current.abi")
  if [ ! -f "$base" ]; then
    echo "abi.sh: no baseline $base for $lib (bash scripts/abi.sh update)"
    return 1
  fi
  if compare "$base" "$work/current.abi" "$work/report.txt"; then
    echo "ABI of $lib: compatible with $base"
    return 0
  fi
  echo "ABI of $lib: INCOMPATIBLE with $base"
  cat "$work/report.txt"
  echo "(an intended change: a new major version, then bash scripts/abi.sh update --break)"
  return 1
}

default_dirs() {
  for d in build/linux-x64 build/linux-x86; do
    [ -e "$d/lib/libBaseLib.so" ] && echo "$d"
  done
  return 0
}

cmd=${1:-check}
[ $# -gt 0 ] && shift
case "$cmd" in
  check)
    dirs=("$@")
    [ ${#dirs[@]} -gt 0 ] || mapfile -t dirs < <(default_dirs)
    [ ${#dirs[@]} -gt 0 ] || { echo "abi.sh check: no build with a shared library"; exit 2; }
    failed=0
    for d in "${dirs[@]}"; do
      check_lib "$d/lib/libBaseLib.so" Inc "$d/abi-check" || failed=1
    done
    exit $failed
    ;;

  update)
    allow_break=0
    if [ "${1:-}" = --break ]; then allow_break=1; shift; fi
    dirs=("$@")
    if [ ${#dirs[@]} -eq 0 ]; then
      bash scripts/deps.sh test
      for preset in linux-x64 linux-x86; do
        cmake --preset "$preset" >/dev/null
        cmake --build --preset "$preset" -j "$(nproc)" --target BaseLib >/dev/null
        dirs+=("build/$preset")
      done
    fi
    mkdir -p abi
    for d in "${dirs[@]}"; do
      work=$d/abi-check
      mkdir -p "$work"
      dump "$d/lib/libBaseLib.so" Inc "$work/current.abi"
      base=$(baseline_of "$work/current.abi")
      if [ -f "$base" ] && ! compare "$base" "$work/current.abi" "$work/report.txt"; then
        cat "$work/report.txt"
        if [ $allow_break = 0 ]; then
          echo "abi.sh update: $d breaks the ABI of $base (above); a new major version is the way,"
          echo "or --break records it anyway (only before that SONAME is first released)"
          exit 1
        fi
      fi
      cp "$work/current.abi" "$base"
      echo "abi.sh update: $base from $d ($(grep -c "<elf-symbol " "$base") functions)"
    done
    ;;

  selftest)
    build=${1:?"abi.sh selftest BUILD_DIR"}
    build=$(cd "$build" && pwd)
    lib=$build/lib/libBaseLib.so
    scratch=$build/abi-selftest
    [ -n "${ABI_SELFTEST_KEEP:-}" ] || rm -rf "$scratch"
    mkdir -p "$scratch/inc"
    soname=$(readelf -d "$lib" | sed -n 's/.*Library soname: \[\(.*\)\].*/\1/p')
    # The copies are relinked from the build's own objects; only those whose
    # sources include a changed header are compiled again.
    relink() {  # relink OUT HEADERS_DIR MAP [EXTRA_OBJECT...]
      python3 - "$build" "$src" "$@" "$soname" <<'EOF'
import json, os, shlex, subprocess, sys
build, src, out, inc, vmap = sys.argv[1:6]
extra, soname = sys.argv[6:-1], sys.argv[-1]
changed = [h for h in os.listdir(inc)
           if open(os.path.join(inc, h), 'rb').read() != open(os.path.join(src, 'Inc', h), 'rb').read()]
work = os.path.dirname(out)
objs, cxx = [], None
for e in json.load(open(os.path.join(build, 'compile_commands.json'))):
    args = shlex.split(e['command'])
    obj = args[args.index('-o') + 1]
    if '/BaseLib.dir/' not in obj:
        continue
    cxx = args[0]
    path = os.path.join(e['directory'], obj)
    deps = path + '.d'
    stale = not os.path.exists(deps) or any(('/' + h) in open(deps).read() for h in changed)
    if changed and stale:
        mine = os.path.join(work, os.path.basename(obj))
        args[args.index('-o') + 1] = mine
        args = ['-I' + inc if a == '-I' + os.path.join(src, 'Inc') else a for a in args]
        subprocess.run(args, cwd=e['directory'], check=True)
        path = mine
    objs.append(path)
link = [cxx, '-shared', '-Wl,-soname,' + soname, '-Wl,--version-script=' + vmap,
        '-o', out] + objs + extra + ['-pthread', '-ldl', '-lrt']
subprocess.run(link, check=True)
EOF
    }
    expect() {  # expect pass|fail NAME LIB HEADERS_DIR PATTERN...
      local want=$1 name=$2 so=$3 inc=$4 got=pass
      shift 4
      check_lib "$so" "$inc" "$scratch/$name" >"$scratch/$name.log" 2>&1 || got=fail
      if [ $got != "$want" ]; then
        cat "$scratch/$name.log"
        echo "abi.sh selftest: $name: the check should $want, it did not"; exit 1
      fi
      for p in "$@"; do
        grep -q -- "$p" "$scratch/$name.log" ||
          { cat "$scratch/$name.log"; echo "abi.sh selftest: $name: no \"$p\" in the report"; exit 1; }
      done
      echo "abi.sh selftest: $name: the check says $want, as it must"
    }
    cp Inc/*.h "$scratch/inc/"
    cp "$build/BaseLib.map" "$scratch/same.map"

    # A public record grows by one member: its size and every function that
    # takes it change.
    mkdir -p "$scratch/inc-grown" "$scratch/grown"
    cp Inc/*.h "$scratch/inc-grown/"
    sed -i 's/^} VekMd5;/    vek_u32 grown;\n} VekMd5;/' "$scratch/inc-grown/VekMd5.h"
    grep -q 'vek_u32 grown;' "$scratch/inc-grown/VekMd5.h" || { echo "abi.sh selftest: no VekMd5 record"; exit 1; }
    relink "$scratch/grown/$soname" "$scratch/inc-grown" "$scratch/same.map"
    expect fail grown "$scratch/grown/$soname" "$scratch/inc-grown" "VekMd5" "size changed"

    # One export removed.
    mkdir -p "$scratch/removed"
    grep -v '^    VekMd5_init;$' "$scratch/same.map" >"$scratch/removed.map"
    relink "$scratch/removed/$soname" "$scratch/inc" "$scratch/removed.map"
    expect fail removed "$scratch/removed/$soname" "$scratch/inc" "VekMd5_init" "1 Removed function"

    # One function added: compatible.
    mkdir -p "$scratch/added"
    printf '__attribute__((visibility("default"))) int vek_abi_selftest_added(int x) { return x + 1; }\n' \
      >"$scratch/added.c"
    cc -g -fPIC -c "$scratch/added.c" -o "$scratch/added.o"
    sed 's/^  global:$/  global:\n    vek_abi_selftest_added;/' "$scratch/same.map" >"$scratch/added.map"
    relink "$scratch/added/$soname" "$scratch/inc" "$scratch/added.map" "$scratch/added.o"
    nm -D --defined-only "$scratch/added/$soname" | grep vek_abi_selftest_added >/dev/null ||
      { echo "abi.sh selftest: the added function is not exported"; exit 1; }
    expect pass added "$scratch/added/$soname" "$scratch/inc"
    [ -n "${ABI_SELFTEST_KEEP:-}" ] || rm -rf "$scratch"
    ;;

  *)
    echo "usage: abi.sh check [BUILD_DIR...] | update [--break] [BUILD_DIR...] | selftest BUILD_DIR" >&2
    exit 2
    ;;
esac
