#!/bin/bash
# The installed console in a root, with a window on an X server of its own: waits for the picture, closes the window.
#   console_in_root.sh ROOT
set -euo pipefail
root=$1
fail() { echo "FAILED: $*" >&2; exit 1; }
exec 7< <(exec Xvfb -displayfd 1 -screen 0 1280x800x24 -nolisten tcp 2>/dev/null)
server=$!
clean() {
  kill "$server" 2>/dev/null || true
  umount "$root/tmp/.X11-unix" 2>/dev/null || true
  rmdir "$root/tmp/.X11-unix" 2>/dev/null || true
  rm -rf "$root/tmp/console"
}
trap clean EXIT
read -r -t 60 display <&7 || fail "no X server"
mkdir -p "$root/tmp/.X11-unix" "$root/tmp/console"
mount --bind /tmp/.X11-unix "$root/tmp/.X11-unix"

coproc CONSOLE {
  exec chroot "$root" /usr/bin/env -i PATH=/usr/bin:/bin HOME=/tmp/console XDG_CACHE_HOME=/tmp/console LC_ALL=C.UTF-8 \
    DISPLAY=":$display" GSETTINGS_BACKEND=memory mirn-console --virtual --steer --settings /tmp/console/settings.ini 2>"$root/tmp/console/errors"
}
console=$CONSOLE_PID
exec 8<&"${CONSOLE[0]}" 9>&"${CONSOLE[1]}"
answer=
for ((question = 0; question < 300; question++)); do
  echo state >&9 || true
  read -r -t 60 answer <&8 || fail "the console ended: $(tail -n 5 "$root/tmp/console/errors")"
  [[ $answer != *'"condition":"fine"'* ]] || break
  sleep 0.2 # between two questions
done
[[ $answer == *'"condition":"fine"'* ]] || fail "no picture in the window: $answer"
echo close >&9
exec 9>&-
wait "$console" || fail "the console ended with $?"
echo "the console's window showed the picture and closed"
