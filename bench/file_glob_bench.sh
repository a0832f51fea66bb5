#!/usr/bin/env bash
# file_glob through the host, started and asked once as a user would, against rg --files, fd and
# find over /usr: the rg road (host told of rg) and the walk road (host never told of one).
# Each pair runs in turn, A B A B ..., and the median of the pairwise ratios is quoted, so that
# drift of a shared machine falls on both sides. A second figure is the time of one request in a
# host that is already running: (eleven requests - one request) / 10.
# Usage: bench/file_glob_bench.sh [path/to/quay_tools_host] [runs]
set -euo pipefail
host=$(realpath "${1:-$(dirname "$0")/../build/quay_tools_host}")
runs=${2:-7}
rg=/usr/bin/rg
fd=$(command -v fdfind || command -v fd || true)
work=$(mktemp -d /tmp/quay_glob_bench.XXXXXX)
trap 'rm -rf "$work"' EXIT
source "$(dirname "$0")/pair_timing.sh"
config='{"log":{"log_dir":"","log_level":0},"transport":null}'
init='{"method":"internal:initialize","params":{"rg_executable":"'"$rg"'"}}'

echo "tree: /usr, $(find /usr 2>/dev/null | wc -l) entries"
find /usr >/dev/null 2>&1 || true  # warm the dentry cache

# requests NAME INIT(0/1) COUNT PARAMS: a request file for one host run.
requests() {
  local file=$work/$1.req
  : >"$file"
  [[ $2 == 1 ]] && echo "$init" >>"$file"
  for ((i = 0; i < $3; ++i)); do echo '{"method":"file_glob","params":'"$4"'}' >>"$file"; done
  echo "$file"
}
host_cmd() { echo "$host --brimo-stack-host-config '$config' < $1 > $work/host.out"; }

# in_host LABEL INIT PARAMS: one request inside a running host.
in_host() {
  local one eleven
  one=$(host_cmd "$(requests one "$2" 1 "$3")")
  eleven=$(host_cmd "$(requests eleven "$2" 11 "$3")")
  local t1=() t11=()
  for ((i = 0; i < runs; ++i)); do t1+=("$(seconds "$one")") t11+=("$(seconds "$eleven")"); done
  printf '%-34s %.3f s per request in a running host\n' "$1" \
    "$(echo "($(printf '%s\n' "${t11[@]}" | median) - $(printf '%s\n' "${t1[@]}" | median)) / 10" | bc -l)"
}

h_rg='{"pattern":"**/*.h","path":"/usr","type":"file","max_depth":100,"timeout_ms":600000}'
stdio='{"pattern":"**/stdio.h","path":"/usr","type":"file","max_depth":100,"timeout_ms":600000}'
prefix='{"pattern":"include/**/*.h","path":"/usr","type":"file","max_depth":100,"timeout_ms":600000}'

by_rg="$rg --files -g '*.h' /usr"
by_find="find /usr -name '*.h'"
pair "rg road **/*.h vs rg --files" "$(host_cmd "$(requests h 1 1 "$h_rg")")" "$by_rg"
pair "rg road **/stdio.h vs rg --files" "$(host_cmd "$(requests stdio 1 1 "$stdio")")" "$rg --files -g stdio.h /usr"
pair "rg road include/**/*.h vs rg" "$(host_cmd "$(requests prefix 1 1 "$prefix")")" "$rg --files -g '*.h' /usr/include"
[[ -n $fd ]] && pair "rg road **/*.h vs fd" "$(host_cmd "$(requests h 1 1 "$h_rg")")" "$fd -t f -g '*.h' . /usr"
pair "walk road **/*.h vs find" "$(host_cmd "$(requests walk 0 1 "$h_rg")")" "$by_find"
pair "walk road **/*.h vs rg --files" "$(host_cmd "$(requests walk 0 1 "$h_rg")")" "$by_rg"
in_host "rg road **/*.h" 1 "$h_rg"
in_host "walk road **/*.h" 0 "$h_rg"

bash -c "$(host_cmd "$(requests h 1 1 "$h_rg")")"
echo "host listed $(grep -o '"/usr/[^"]*"' "$work/host.out" | wc -l) files; rg --files $(bash -c "$by_rg" | wc -l); find $(bash -c "$by_find" | wc -l)"
