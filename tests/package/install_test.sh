#!/bin/bash
# The packages in a bare Debian 12 root: install, run, remove, and nothing stays behind. Needs root and a Debian mirror.
#   tests/package/install_test.sh [PACKAGES_DIR]
set -euo pipefail
packages=$(cd "${1:-$(dirname "$0")/../../build/packages}" && pwd)
[[ $(id -u) -eq 0 ]] || { echo "debootstrap needs root" >&2; exit 2; }
[[ -n $(ls "$packages"/*.deb 2>/dev/null) ]] || { echo "no packages in $packages: make package" >&2; exit 2; }
root=$(mktemp -d /var/tmp/mirn-root-XXXXXX)
clean() {
  umount "$root/proc" 2>/dev/null || true
  rm -rf --one-file-system "$root"
}
trap clean EXIT
# The mirrors of this machine, whatever they are.
mirror=$(sed -n 's/^URIs: *\([^ ]*\).*/\1/p; s/^deb \(\[[^]]*\] \)\?\([^ ]*\) .*/\2/p' \
  /etc/apt/sources.list /etc/apt/sources.list.d/*.sources /etc/apt/sources.list.d/*.list 2>/dev/null | head -n 1 || true)
debootstrap --variant=minbase bookworm "$root" "${mirror:-http://deb.debian.org/debian}" >"$root.log" 2>&1 ||
  { tail -n 20 "$root.log" >&2; exit 1; }
rm -f "$root.log"
rm -f "$root/etc/apt/sources.list"
cp -r /etc/apt/apt.conf.d /etc/apt/sources.list* /etc/apt/trusted.gpg.d /etc/apt/keyrings "$root/etc/apt/" 2>/dev/null || true
cp /etc/resolv.conf "$root/etc/" 2>/dev/null || true
cp -r /usr/local/share/ca-certificates "$root/usr/local/share/" 2>/dev/null || true
mount -t proc proc "$root/proc"
mkdir "$root/packages"
cp "$packages"/*.deb "$root/packages/"
inside() { chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8 "$@"; }
fail() { echo "FAILED: $*" >&2; exit 1; }

inside apt-get update -qq 2>/dev/null
inside sh -c 'dpkg-query -W -f "\${Package}\n" | sort >/before'
inside sh -c 'apt-get install -y -qq --no-install-recommends /packages/*.deb' >/dev/null
echo "installed: $(inside sh -c 'ls /packages | wc -l') packages"

status=0
inside mirnctl doctor || status=$?
[[ $status -eq 3 ]] || fail "mirnctl doctor ended with $status, not with 3 (not plugged in)"
inside mirnctl --virtual info
inside mirnctl --virtual snapshot /shot.png
inside mirn-console --scenario /demo.png >/dev/null 2>&1 || fail "the console's scenario"
[[ -s $root/demo.png ]] || fail "the scenario left no picture"
inside test -f /usr/lib/udev/rules.d/70-mirn.rules || fail "no udev rule"
inside test -f /usr/share/flutter-mirn/pubspec.yaml || fail "no Flutter sources"

inside sh -c 'for deb in /packages/*.deb; do dpkg-deb -f "$deb" Package; done' >"$root/names"
inside sh -c 'xargs apt-get purge -y -qq </names' >/dev/null
left=$(inside sh -c 'find /usr /etc -iname "*mirn*" ! -path "/usr/share/ca-certificates*"')
[[ -z $left ]] || fail "left behind: $left"
echo "installed, ran and was removed without a trace"
