# Timing helpers sourced by the bench scripts: wall seconds of whole commands, run in turn
# (A B A B ...) so that drift of a shared machine falls on both sides, and the median of the
# pairwise ratios. Needs `runs` set by the caller.

# Wall seconds of one run of a shell command.
seconds() {
  local start=$EPOCHREALTIME
  bash -c "$1" >/dev/null 2>&1 || true
  echo "$EPOCHREALTIME - $start" | bc -l
}
median() { sort -g | awk '{v[NR] = $1} END {print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2}'; }

# pair LABEL A B: one warm-up each, then `runs` alternations.
pair() {
  local a_times=() b_times=() ratios=() ta tb
  seconds "$2" >/dev/null
  seconds "$3" >/dev/null
  for ((i = 0; i < runs; ++i)); do
    ta=$(seconds "$2")
    tb=$(seconds "$3")
    a_times+=("$ta") b_times+=("$tb") ratios+=("$(echo "$ta / $tb" | bc -l)")
  done
  printf '%s\n  host:  %s\n  other: %s\n' "$1" "$2" "$3"
  printf '  median wall: host %.3f s, other %.3f s; median of pairwise ratios %.2f\n' \
    "$(printf '%s\n' "${a_times[@]}" | median)" "$(printf '%s\n' "${b_times[@]}" | median)" \
    "$(printf '%s\n' "${ratios[@]}" | median)"
}

