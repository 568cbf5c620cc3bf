#!/usr/bin/env bash
# Runs the test suite of one build folder; the runner's own closing lines come last.
# Each skipped test is named with its reason. One that tests/allowed_skips doesn't name is a failure, so a skip can't
# creep in; where CI runs (CI=true) every one is: no reason of that list holds there.
set -euo pipefail
build=${1:?build folder}
shift || true
log=$(mktemp)
trap 'rm -f "$log"' EXIT
status=0
ctest --test-dir "$build" --output-on-failure -j "$(nproc)" --no-tests=error "$@" >"$log" 2>&1 || status=$?
if [ $status -ne 0 ]; then
  grep -vE '^ *[0-9]+/[0-9]+ Test .* Passed|^ *Start +[0-9]+:' "$log"
  exit $status
fi
while read -r name; do
  if ! reason=$(grep -F "$name: " tests/allowed_skips); then
    echo "$name was skipped, and tests/allowed_skips does not name it" >&2
    status=1
  else
    echo "skipped: $reason" >&2
    [ "${CI:-}" != true ] || status=1
  fi
done < <(sed -nE 's/^.* Test +#[0-9]+: ([^ ]+) \.*\*\*\*Skipped.*$/\1/p' "$log")
sed -n '/tests passed/,$p' "$log"
exit $status
