#!/bin/bash
# The packages in a bare Debian 12 root: they install with nothing but what they depend on, run, and leave nothing when
# they are removed; then programs are built there with the installed headers and Flutter sources. Needs root and the
# Debian mirror that this machine's apt uses.
#   tests/package/install_test.sh [PACKAGES_DIR]        JOBS=n limits the compiler
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
packages=$(cd "${1:-$here/../../build/packages}" && pwd)
fail() { echo "FAILED: $*" >&2; exit 1; }
[[ $(id -u) -eq 0 ]] || { echo "debootstrap needs root" >&2; exit 2; }
compgen -G "$packages/*.deb" >/dev/null || { echo "no packages in $packages: make package" >&2; exit 2; }
root=$(mktemp -d /var/tmp/mirn-root-XXXXXX)
log=$root.log
server=
clean() {
  local status=$?
  [[ -z $server ]] || kill "$server" 2>/dev/null || true
  local mounted
  for mounted in tmp/.X11-unix sys proc; do umount "$root/$mounted" 2>/dev/null || true; done
  [[ $status -eq 0 ]] || tail -n 20 "$log" >&2
  rm -rf --one-file-system "$root" "$root".*
}
trap clean EXIT

# The Debian 12 sources of this machine's apt, whatever they are; each line: codename, deb line.
sources() {
  # shellcheck disable=SC2016  # apt fills these in
  apt-get indextargets --format '$(ORIGIN) $(CODENAME) deb $(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' |
    sed -n 's/^Debian \(bookworm[^ ]* deb \)/\1/p' | sort -u
}
[[ -n $(sources) ]] || apt-get update -qq
mirror=$(sources | awk '$1 == "bookworm" { print $3; exit }')
[[ -n $mirror ]] || { echo "this machine's apt knows no Debian 12 mirror" >&2; exit 2; }
proxy=${http_proxy:-}
eval "$(apt-config shell proxy Acquire::http::Proxy)"
inside() {
  chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8 \
    http_proxy="$proxy" "$@"
}
# quietly COMMAND...: what it says is shown when the test fails.
quietly() { "$@" >>"$log" 2>&1 || fail "$*"; }

echo "== a bare root"
bootstrap=(--variant=minbase)
[[ $mirror != https:* ]] || bootstrap+=(--include=ca-certificates)
quietly env http_proxy="$proxy" debootstrap "${bootstrap[@]}" bookworm "$root" "$mirror"
sources | cut -d ' ' -f 2- >"$root/etc/apt/sources.list"
apt-config dump Acquire >"$root/etc/apt/apt.conf.d/90outside"
cp /etc/resolv.conf /etc/hosts "$root/etc/" 2>/dev/null || true
cp -r /etc/apt/trusted.gpg.d /etc/apt/keyrings "$root/etc/apt/" 2>/dev/null || true
mount -t proc proc "$root/proc"
mount -t sysfs -o ro sysfs "$root/sys"
mkdir "$root/packages"
cp "$packages"/*.deb "$root/packages/"
chmod -R a+rX "$root/packages"
quietly inside apt-get update -qq

# The packages' files by package name.
declare -A file=()
for deb in "$packages"/*.deb; do file[$(dpkg-deb -f "$deb" Package)]=/packages/$(basename "$deb"); done

# prepare PACKAGE...: installs what they depend on, from Debian alone, and notes the state of the root.
prepare() {
  local name depends=
  for name in "$@"; do depends+=$(dpkg-deb -f "$root${file[$name]}" Depends | sed 's/libflutter-mirn0 ([^)]*)\(, \)\?//; s/, $//'),; done
  depends=$(tr ',' '\n' <<<"$depends" | sed 's/^ *//; /^$/d' | sort -u | paste -sd,)
  quietly inside apt-get satisfy -y -qq --no-install-recommends "$depends"
  snapshot "$root.before"
}
# Every file, link and folder with owner, mode and contents, without what is apt's and dpkg's own.
snapshot() {
  local skip=(-path ./proc -o -path ./sys -o -path ./dev -o -path ./run -o -path ./packages -o -path './before.*'
    -o -path ./var/lib/apt -o -path ./var/lib/dpkg -o -path ./var/cache -o -path ./var/log -o -path ./tmp/.X11-unix)
  (
    cd "$root"
    find . -xdev \( "${skip[@]}" \) -prune -o -printf '%y %m %U:%G %p %l\n' | sort
    find . -xdev \( "${skip[@]}" \) -prune -o -type f -print0 | sort -z | xargs -0 md5sum
  ) >"$1"
}
# installed PACKAGE...: dpkg takes them only if nothing is missing.
installed() {
  local name files=()
  for name in "$@"; do files+=("${file[$name]}"); done
  quietly inside dpkg -i "${files[@]}"
  echo "installed: $*"
}
removed() {
  quietly inside dpkg --purge "$@"
  snapshot "$root.after"
  diff "$root.before" "$root.after" >&2 || fail "the root is not as it was before the packages"
  rm "$root.before" "$root.after"
  echo "removed without a trace: $*"
}

echo "== without a desktop"
quietly inside apt-get install -y -qq --no-install-recommends udev
small=(libflutter-mirn0 mirnctl mirn-virtual mirn-udev)
prepare "${small[@]}"
installed "${small[@]}"
status=0
inside mirnctl doctor || status=$?
[[ $status -eq 3 ]] || fail "mirnctl doctor ended with $status, not with 3 (not plugged in)"
inside mirnctl --virtual info
inside mirnctl --virtual snapshot /tmp/shot.png
[[ $(head -c 4 "$root/tmp/shot.png" | tail -c 3) == PNG ]] || fail "the snapshot is no PNG file"
rm "$root/tmp/shot.png"
inside mirn-virtual --version
inside udevadm test /sys/class/mem/null >"$root.udev" 2>&1 || fail "udevadm test"
said=$(grep -F 70-mirn.rules "$root.udev" | sed 's/^Reading rules file: //')
rm "$root.udev"
[[ $said == /usr/lib/udev/rules.d/70-mirn.rules || $said == /lib/udev/rules.d/70-mirn.rules ]] ||
  fail "udev about the rule: ${said:-it was not read}"
removed "${small[@]}"

echo "== all of them"
all=("${!file[@]}")
prepare "${all[@]}"
installed "${all[@]}"
inside mirn-console --scenario /tmp/demo.png >>"$log" 2>&1 || fail "the console's scenario"
[[ -s $root/tmp/demo.png ]] || fail "the scenario left no picture"
rm "$root/tmp/demo.png"
"$here/console_in_root.sh" "$root"
removed "${all[@]}"

echo "== programs are built with what is installed"
quietly inside apt-get install -y -qq --no-install-recommends g++ cmake ninja-build pkg-config
installed "${all[@]}"
mkdir "$root/build"
cp -r "$here/../flutter_host" "$here/consumer.cc" "$root/build/"
inside sh -c 'g++ -std=c++20 -o /build/consumer /build/consumer.cc $(pkg-config --cflags --libs flutter_mirn) && /build/consumer' ||
  fail "a program with the development package"
mkdir "$root/build/links"
inside ln -s /usr/share/flutter-mirn /build/links/flutter_mirn
quietly inside cmake -G Ninja -DCMAKE_BUILD_TYPE=Debug -DFLUTTER_PLUGIN_SYMLINKS=/build/links -S /build/flutter_host/app/linux \
  -B /build/app
quietly inside cmake --build /build/app -j "${JOBS:-$(nproc)}" --target install
inside /build/app/bundle/flutter_mirn_example /build/app/bundle/lib/libflutter_mirn_plugin.so || fail "the host application with the installed Flutter sources"
echo "installed, ran, built and removed: all is well"
