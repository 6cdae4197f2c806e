#!/usr/bin/env bash
# Whole-process runs of vektool's streaming commands on 1 GiB of input
# against their peers (coreutils base64, md5sum, cksum; xxd; Python's quopri
# and csv): wall time and peak resident memory of each process, measured by
# /usr/bin/time, the best of BENCH_RUNS runs (3). Output goes to /dev/null
# for both; the inputs are files read from the page cache.
#   bench-vektool.sh [MiB]     input size, 1024 by default
# BENCH_ONLY (an extended regular expression) runs only the rows whose
# "what|peer" matches and keeps the others' last figures. The results go to
# build/bench/json/vektool.json, and bench-report.py puts them into
# bench/RESULTS.md with the library's rows.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh bench
cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=Release -DBASELIB_TESTS=OFF -DBASELIB_BENCH=ON >/dev/null
cmake --build build/bench -j "$(nproc)" >/dev/null
mib=${1:-1024}
runs=${BENCH_RUNS:-3}
tool=$PWD/build/bench/bin/vektool
data=build/bench/data
json=build/bench/json
mkdir -p "$data" "$json"
cd "$data"

# Inputs, made once per size: random bytes and their encodings, and a CSV
# text with quoted fields and line breaks inside them.
[ -s "raw.$mib" ] || head -c $((mib << 20)) /dev/urandom > "raw.$mib"
[ -s "b64.$mib" ] || base64 "raw.$mib" > "b64.$mib"
[ -s "hex.$mib" ] || xxd -p "raw.$mib" > "hex.$mib"
[ -s "qp.$mib" ] || "$tool" qp enc "raw.$mib" > "qp.$mib"
if [ ! -s "csv.$mib" ]; then
  rec='1024,"quoted, with ""quotes""",plain text,"two
lines",-7.5'
  set +o pipefail  # yes ends by a broken pipe
  yes "$rec" | head -n $((2 * ((mib << 20) / (${#rec} + 1)))) > "csv.$mib"
  set -o pipefail
fi
cat > rows.py <<'EOF'
import csv, sys
out = sys.stdout
with open(sys.argv[1], newline='') as f:
    for row in csv.reader(f):
        out.write('\t'.join(row) + '\n')
EOF

# "seconds kilobytes" of the best run of a command line, which must succeed.
measure() {
  local best="" line
  for _ in $(seq "$runs"); do
    line=$( { /usr/bin/time -f "%e %M %x" sh -c "exec $1 > /dev/null" ; } 2>&1 | tail -n 1)
    if [ "${line##* }" != 0 ]; then
      echo "bench-vektool.sh: \"$1\" failed" >&2
      exit 1
    fi
    line=${line% *}
    if [ -z "$best" ] || awk -v a="${line% *}" -v b="${best% *}" 'BEGIN { exit !(a < b) }'; then
      best=$line
    fi
  done
  echo "$best"
}

rows=()
# what | peer name | peer command | vektool arguments
while IFS='|' read -r what peer cmd args; do
  [ -n "$what" ] || continue
  rows+=("$what|$peer|")
  if [ -n "${BENCH_ONLY:-}" ] && ! echo "$what|$peer" | grep -Eq "$BENCH_ONLY"; then
    continue
  fi
  echo "=== $what"
  p=$(measure "$cmd")
  o=$(measure "$tool $args")
  echo "    $peer: $p    vektool: $o (seconds, peak KiB)"
  rows[${#rows[@]} - 1]="$what|$peer|${p% *}|${p#* }|${o% *}|${o#* }"
done <<EOF
vektool b64 enc, $mib MiB|base64|base64 raw.$mib|b64 enc raw.$mib
vektool b64 dec, $mib MiB|base64 -d|base64 -d b64.$mib|b64 dec b64.$mib
vektool hex enc, $mib MiB|xxd -p|xxd -p raw.$mib|hex enc raw.$mib
vektool hex dec, $mib MiB|xxd -r -p|xxd -r -p hex.$mib|hex dec hex.$mib
vektool md5, $mib MiB|md5sum|md5sum raw.$mib|md5 raw.$mib
vektool crc32, $mib MiB|cksum|cksum raw.$mib|crc32 raw.$mib
vektool crc8, $mib MiB|md5sum|md5sum raw.$mib|crc8 raw.$mib
vektool crc8, $mib MiB|cksum|cksum raw.$mib|crc8 raw.$mib
vektool qp enc, $mib MiB|python3 -m quopri|python3 -m quopri raw.$mib|qp enc raw.$mib
vektool qp dec, $mib MiB|python3 -m quopri -d|python3 -m quopri -d qp.$mib|qp dec qp.$mib
vektool csv, $mib MiB|Python csv|python3 rows.py csv.$mib|csv csv.$mib
EOF
cd - >/dev/null
# The rows in the order above, measured now or kept from the last run.
printf '%s\n' "${rows[@]}" | python3 -c '
import json, os, sys
path = sys.argv[1]
old = {}
if os.path.exists(path):
    old = {(r["what"], r["peer"]): r for r in json.load(open(path)).get("rows", [])}
rows = []
for line in sys.stdin.read().splitlines():
    what, peer, *fig = line.split("|")
    if fig and fig[0]:
        peer_s, peer_kb, ours_s, ours_kb = map(float, fig)
        rows.append({"what": what, "peer": peer, "peer_s": peer_s, "peer_kb": peer_kb,
                     "ours_s": ours_s, "ours_kb": ours_kb})
    elif (what, peer) in old:
        rows.append(old[(what, peer)])
json.dump({"rows": rows}, open(path, "w"), indent=1)
' "$json/vektool.json"
python3 scripts/bench-report.py "$json" bench/RESULTS.md bench/results.svg
echo "=== bench/RESULTS.md"
cat bench/RESULTS.md
