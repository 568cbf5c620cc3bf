#!/usr/bin/env bash
# Line coverage of each room by the whole suite; the base and the device rooms must reach 95 %.
set -euo pipefail
build=${1:?build folder}
find "$build" -name '*.gcda' -delete
tools/run_ctest.sh "$build" -LE desktop
report() { # room, floor
  gcovr --root . --filter "$1/" --exclude '.*_test\.cc' --exclude-throw-branches --fail-under-line "$2" --print-summary "$build" \
    | sed -n 's/^lines: //p' | sed "s|^|$1: |"
  return "${PIPESTATUS[0]}"
}
status=0
report deps/pellum 95 || status=1
report device 95 || status=1
for room in embedding plugin usb video platform virtual host; do
  report "$room" 0
done
exit $status
