#!/usr/bin/env bash
# file_grep through the host (started, initialised and asked once) against the same rg run by
# hand, on a tree of about 150,000 files: hard links to /usr/share twice and /usr/include, so
# the tree costs no disk and both sides read the same page cache.
# Usage: bench/file_grep_bench.sh [path/to/quay_tools_host] [runs]   (tree kept in $BENCH_DIR, default /tmp)
set -euo pipefail
host=$(realpath "${1:-$(dirname "$0")/../build/quay_tools_host}")
runs=${2:-7}
source "$(dirname "$0")/pair_timing.sh"
tree=${BENCH_DIR:-/tmp}/quay_grep_bench_tree
rg=/usr/bin/rg

if [[ ! -d $tree ]]; then
  mkdir -p "$tree"
  cp -al /usr/share "$tree/share1" 2>/dev/null || cp -a /usr/share "$tree/share1"
  cp -al /usr/share "$tree/share2" 2>/dev/null || cp -a /usr/share "$tree/share2"
  cp -al /usr/include "$tree/include" 2>/dev/null || cp -a /usr/include "$tree/include"
fi
echo "tree: $(find "$tree" -type f | wc -l) files, $(du -sh --apparent-size "$tree" | cut -f1)"
"$rg" -c --no-config -e x "$tree" >/dev/null || true  # warm the page cache

config='{"log":{"log_dir":"","log_level":0},"transport":null}'
for word in include quetzalcoatl; do
  init='{"method":"internal:initialize","params":{"rg_executable":"'"$rg"'"}}'
  grep='{"method":"file_grep","params":{"pattern":"'"$word"'","path":"'"$tree"'","pattern_is_regex":false,"timeout_ms":600000}}'
  printf '%s\n%s\n' "$init" "$grep" > /tmp/quay_grep_bench_requests
  by_host="exec $host --brimo-stack-host-config '$config' < /tmp/quay_grep_bench_requests > /tmp/quay_grep_bench_host.out"
  by_hand="sh -c 'exec $rg --no-config --no-follow -n --color never -M 200 --max-columns-preview -F -- $word $tree > /tmp/quay_grep_bench_rg.out'"
  echo "== pattern '$word'"
  pair "file_grep '$word' vs rg by hand" "$by_host" "$by_hand"
  echo "host answered $(wc -c < /tmp/quay_grep_bench_host.out) bytes; rg alone printed $(wc -c < /tmp/quay_grep_bench_rg.out) bytes"
done
