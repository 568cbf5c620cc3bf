#!/usr/bin/env bash
# Runs every fuzzer of a build folder for some seconds from its seed corpus; a finding is kept and fails.
set -euo pipefail
build=${1:?build folder}
seconds=${2:-60}
found=$build/fuzz-findings
mkdir -p "$found"
passed=0 failed=0
for program in "$build"/fuzz/*; do
  [ -x "$program" ] && [ -f "$program" ] || continue
  name=$(basename "$program")
  seeds=$(find fuzz -type d -path "*/corpus/$name" | head -n 1)
  work=$build/fuzz-corpus/$name
  mkdir -p "$work"
  log=$found/$name.log
  if "$program" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -artifact_prefix="$found/$name-" \
      -print_final_stats=1 "$work" ${seeds:+"$seeds"} >"$log" 2>&1; then
    passed=$((passed + 1))
    printf '%-32s %12s runs  no finding\n' "$name" "$(sed -n 's/.*number_of_executed_units: //p' "$log")"
  else
    failed=$((failed + 1))
    printf '%-32s FINDING, see %s\n' "$name" "$log"
    tail -n 25 "$log"
  fi
done
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
