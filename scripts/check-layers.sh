#!/usr/bin/env bash
# Holds the platform layer to the calls up into the portable layer that
# Src/AlPlat.h lists: every symbol the object files of posix/ (or win/) use
# and the portable layer's object files define must be on that list.
#   check-layers.sh BUILD_DIR   (a build of any leg)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:?usage: check-layers.sh BUILD_DIR}
objs=$build/CMakeFiles/BaseLib.dir
nm=nm
plat=posix
if [ -d "$objs/win" ]; then
  plat=win
  nm=x86_64-w64-mingw32-nm
fi
[ -d "$objs/$plat" ] || { echo "check-layers.sh: no objects of $plat/ in $build" >&2; exit 2; }
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
# Names without their parameter lists: the list names functions.
objects() { find "$1" -maxdepth 1 \( -name '*.o' -o -name '*.obj' \) | sort; }
"$nm" -C --defined-only $(objects "$objs/Src") | awk 'NF >= 3 && $2 ~ /^[TWBDRVu]$/ { $1 = ""; $2 = ""; print substr($0, 3) }' |
  sed 's/(.*//' | sort -u >"$tmp/portable"
"$nm" -C -u $(objects "$objs/$plat") | awk 'NF >= 2 { $1 = ""; print substr($0, 2) }' | sed 's/(.*//' | sort -u >"$tmp/used"
sed -n '/^ \* Calls up:$/,/^ \*\/$/p' Src/AlPlat.h | sed '1d;$d' | sed 's/^ \*//' |
  awk '{ for (i = 1; i <= NF; i++) if ($i ~ /^[A-Za-z_][A-Za-z_0-9:]*$/ && ($i ~ /_/ || $i ~ /::/)) print $i }' |
  sort -u >"$tmp/allowed"
[ -s "$tmp/allowed" ] || { echo "check-layers.sh: no list found in Src/AlPlat.h" >&2; exit 2; }
comm -12 "$tmp/used" "$tmp/portable" >"$tmp/up"
stray=$(comm -23 "$tmp/up" "$tmp/allowed")
if [ -n "$stray" ]; then
  echo "check-layers.sh: $plat/ calls into the portable layer beyond the list of Src/AlPlat.h:" >&2
  echo "$stray" | sed 's/^/  /' >&2
  exit 1
fi
echo "layers of $build: $plat/ calls up only as Src/AlPlat.h lists ($(wc -l <"$tmp/up") names)"
