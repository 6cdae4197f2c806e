#!/usr/bin/env bash
# Builds the API reference from the public headers with Doxygen into
# build/docs/html, and fails when an exported function has no doc comment.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh docs
export BASELIB_DOCS_SRC=$PWD BASELIB_DOCS_OUT=$PWD/build/docs
rm -rf "$BASELIB_DOCS_OUT"
mkdir -p "$BASELIB_DOCS_OUT"
doxygen docs/Doxyfile
undocumented=$(grep -E '\(function\) of file .* is not documented' "$BASELIB_DOCS_OUT/warnings.txt" |
  sed -E 's/.*Member ([A-Za-z_0-9]+)\(.*/\1/' | sort -u || true)
if [ -n "$undocumented" ]; then
  echo "exported functions without a doc comment ($(echo "$undocumented" | wc -l)):"
  echo "$undocumented"
  exit 1
fi
count=$(cat Inc/*.h | grep -c -E '^\s*VEK_API[^(;]*[A-Za-z_0-9]+\(')
echo "API reference: build/docs/html/index.html ($count exported functions, all documented)"
