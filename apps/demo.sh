#!/bin/bash
# make demo: the console on a virtual Mirn. Without a display the same job runs without a window, says each step, fails
# aloud and leaves demo.png with what the target shows.
#   apps/demo.sh BUILD_DIR [PICTURE]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
console=$root/${1:-build}/bin/mirn-console
[[ -x $console ]] || console=${1:-build}/bin/mirn-console
picture=${2:-$root/demo.png}

if [[ -n ${WAYLAND_DISPLAY:-} || -n ${DISPLAY:-} ]]; then
  echo "Opening the console on a virtual Mirn."
  exec "$console" --virtual
fi
echo "No display: running the whole job without a window."
# The library's own lines would hide the steps.
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if "$console" --scenario "$picture" 2>"$log"; then
  echo "The target's picture is in $picture"
else
  status=$?
  echo "The demonstration failed. The library said:" >&2
  cat "$log" >&2
  exit "$status"
fi
