#!/usr/bin/env bash
# Every result code a public header defines has its text in Src/VekErr.cpp,
# so that vek_err_text never answers "unknown error" for the library's own
# code. Two names of one code (-51) share one line.
set -euo pipefail
cd "$(dirname "$0")/.."
missing=$(grep -ho '^#define VEK_ERR_[A-Z0-9_]* *(-[0-9]*)' Inc/*.h | tr -d '()' | awk '{ print $2, $3 }' |
  sort -u | while read -r name value; do
    echo "$value $(grep -c "{$name," Src/VekErr.cpp || true) $name"
  done | awk '{ have[$1] += $2; names[$1] = names[$1] " " $3 }
              END { for (v in have) if (!have[v]) print v names[v] }' | sort -n)
if [ -n "$missing" ]; then
  echo "check-errtexts.sh: result codes without a text in Src/VekErr.cpp:" >&2
  echo "$missing" | sed 's/^/  /' >&2
  exit 1
fi
echo "result codes: every one has its text"
