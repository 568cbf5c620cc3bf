#!/bin/bash
# make demo: the console on a virtual Mirn. Without a display that answers the same job runs without a window, says each
# step, fails aloud and leaves demo.png with what the target shows.
#   apps/demo.sh BUILD_DIR [PICTURE]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
console=$root/${1:-build}/bin/mirn-console
[[ -x $console ]] || console=${1:-build}/bin/mirn-console
picture=${2:-$root/demo.png}

# A name alone opens no window: with sudo or ssh it may be left over, or not meant for this user.
wayland_answers() {
  local socket=${WAYLAND_DISPLAY:-}
  [[ -z $socket || $socket == /* ]] || socket=${XDG_RUNTIME_DIR:-}/$socket
  [[ -n $socket && -S $socket && -w $socket ]]
}
x_answers() {
  [[ -n ${DISPLAY:-} ]] || return 1
  # Without the tool the display is taken at its word.
  command -v xdpyinfo >/dev/null || return 0
  timeout 10 xdpyinfo >/dev/null 2>&1
}

if wayland_answers || x_answers; then
  echo "Opening the console on a virtual Mirn."
  exec "$console" --virtual
fi
why="No display"
[[ -z ${WAYLAND_DISPLAY:-}${DISPLAY:-} ]] || why="The display ${WAYLAND_DISPLAY:-$DISPLAY} doesn't answer this user"
echo "$why: running the whole job without a window."
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
