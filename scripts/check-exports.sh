#!/usr/bin/env bash
# The library exports exactly the functions its public headers declare
# with VEK_API: nothing internal leaks, nothing declared is missing, and on
# ELF systems every export has a version node.
#   check-exports.sh BUILD_DIR
set -euo pipefail
cd "$(dirname "$0")/.."
dir=$1
declared=$(grep -h -o -E '^\s*VEK_API[^(;]*[A-Za-z_0-9]+\(' Inc/*.h | sed -E 's/.*[^A-Za-z_0-9]([A-Za-z_0-9]+)\($/\1/' | sort -u)
# Exported data: "extern VEK_API type name;" (the trace's generation word).
data=$(grep -h -o -E '^\s*extern VEK_API [^(;]*[A-Za-z_0-9]+;' Inc/*.h | sed -E 's/.*[^A-Za-z_0-9]([A-Za-z_0-9]+);$/\1/' | sort -u)
declared=$(printf '%s\n%s\n' "$declared" "$data" | sed '/^$/d' | sort -u)
if [ -f "$dir/bin/BaseLib.dll" ]; then
  exported=$(x86_64-w64-mingw32-objdump -p "$dir/bin/BaseLib.dll" |
    sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' | sed -n -E 's/^\s*\[\s*[0-9]+\] (.*)$/\1/p' | sort -u)
else
  # ELF: every exported function carries a version node of the library
  # (BASELIB_<major>.<minor>); the nodes themselves show as absolute
  # symbols. A symbol without one would bind to whatever version a program
  # happens to find.
  syms=$(nm -D --defined-only "$dir/lib/libBaseLib.so" | awk '$2 != "A" {print $3}')
  unversioned=$(echo "$syms" | grep -v -E '@@?BASELIB_[0-9]+\.[0-9]+$' || true)
  [ -z "$unversioned" ] || { echo "exported without a BASELIB_ version node:"; echo "$unversioned"; exit 1; }
  exported=$(echo "$syms" | sed -E 's/@.*$//' | sort -u)
fi
extra=$(comm -13 <(echo "$declared") <(echo "$exported"))
missing=$(comm -23 <(echo "$declared") <(echo "$exported"))
[ -z "$extra" ] || { echo "exported but not in a public header:"; echo "$extra"; exit 1; }
[ -z "$missing" ] || { echo "declared but not exported:"; echo "$missing"; exit 1; }
echo "exports of $dir: $(echo "$exported" | wc -l) functions, all declared"
