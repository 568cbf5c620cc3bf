#!/usr/bin/env bash
# Runs the test suite of one build folder; the runner's own closing lines come last.
# Skipped tests are counted: more than the known ones (tests/allowed_skips) is a failure, so a skip can't creep in.
set -euo pipefail
build=${1:?build folder}
shift || true
log=$(mktemp)
trap 'rm -f "$log"' EXIT
status=0
ctest --test-dir "$build" --output-on-failure -j "$(nproc)" --no-tests=error "$@" >"$log" 2>&1 || status=$?
if [ $status -ne 0 ]; then
  grep -vE '^ *[0-9]+/[0-9]+ Test .* Passed|^ *Start +[0-9]+:' "$log"
else
  skipped=$(grep -cE '\*\*\*Skipped' "$log" || true)
  allowed=$(grep -cvE '^(#|$)' tests/allowed_skips 2>/dev/null || true)
  grep -E '\*\*\*Skipped' "$log" || true
  if [ "$skipped" -gt "${allowed:-0}" ]; then
    echo "$skipped tests were skipped, ${allowed:-0} are known in tests/allowed_skips" >&2
    status=1
  fi
  tail -n 5 "$log"
fi
exit $status
