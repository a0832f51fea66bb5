#!/usr/bin/env bash
# file_read against wc -l on a 1 GiB text file of 19 million lines (offset 9,000,000, limit 2,000).
# Usage: bench/file_read_bench.sh [path/to/quay_tools_host]   (file kept in $BENCH_DIR, default /tmp)
set -euo pipefail
host=${1:-$(dirname "$0")/../build/quay_tools_host}
dir=${BENCH_DIR:-/tmp}
file=$dir/quay_file_read_bench.txt
lines=19000000

if [[ ! -f $file ]] || [[ $(stat -c %s "$file") -lt 1073000000 ]]; then
  # 56 or 57 bytes a line: 19 million lines make 1 GiB.
  awk -v n=$lines 'BEGIN { f = "the quick brown fox jumps over the lazy dog, twice."
    for (i = 1; i <= n; i++) printf "%08d %s\n", i, substr(f, 1, 46 + i % 2) }' > "$file"
fi
cat "$file" > /dev/null  # both sides read from the page cache

best() { sort -n | head -1; }
wc_time=$(for _ in 1 2 3; do /usr/bin/time -f %e wc -l "$file" 2>&1 >/dev/null; done | best)
request=$(printf '{"method":"file_read","params":{"path":"%s","offset":9000000,"limit":2000}}' "$file")
config='{"log":{"log_dir":"","log_level":0},"transport":null}'
runs=$(for _ in 1 2 3; do
  printf '%s\n' "$request" | /usr/bin/time -f '%e %M' "$host" --brimo-stack-host-config "$config" 2>&1 >/tmp/quay_file_read_bench.out | tail -1
done)
read_time=$(echo "$runs" | awk '{print $1}' | best)
peak_kib=$(echo "$runs" | awk '{print $2}' | sort -n | tail -1)
head -c 120 /tmp/quay_file_read_bench.out; echo
echo "file: $(stat -c %s "$file") bytes, $(wc -l < "$file") lines"
echo "wc -l: ${wc_time} s"
echo "file_read offset 9000000 limit 2000: ${read_time} s (best of 3, host start included)"
echo "ratio: $(echo "$read_time $wc_time" | awk '{printf "%.2f", $1 / $2}')"
echo "peak RSS of the host: ${peak_kib} KiB"
