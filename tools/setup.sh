#!/usr/bin/env bash
# Installs the Debian packages that a group of targets needs, and only those that are missing.
# Usage: setup.sh GROUP...   (groups: build test bench fuzz vm package coverage; docs/dependencies.md says why each is there)
set -euo pipefail

declare -A group=(
  [build]="cmake ninja-build ccache g++ pkg-config python3 libhidapi-dev libsimpleini-dev libudev-dev libglib2.0-dev
           libyuv-dev libturbojpeg0-dev libcairo2-dev libgtkmm-4.0-dev libepoxy-dev libcli11-dev nlohmann-json3-dev libpng-dev"
  [test]="libgtest-dev libgmock-dev clang clang-14 libclang-rt-14-dev clang-format clang-tidy libumockdev-dev umockdev libgtk-3-dev
          xvfb xdotool openbox xclip weston imagemagick x11-utils shellcheck binutils dbus-x11 fonts-dejavu-core libgl1-mesa-dri git
          desktop-file-utils mandoc zsh fish locales"
  [bench]="libbenchmark-dev libspdlog-dev libfmt-dev libmsgpack-cxx-dev libswscale-dev libopencv-dev
           libgstreamer-plugins-base1.0-dev gstreamer1.0-plugins-base gstreamer1.0-plugins-good srecord xvfb xdotool
           openbox libgl1-mesa-dri fonts-dejavu-core"
  [fuzz]="clang clang-14 libclang-rt-14-dev"
  [vm]="qemu-system-x86 busybox-static cpio kmod udev v4l-utils xvfb xdotool openbox libgl1-mesa-dri fonts-dejavu-core"
  [package]="dpkg-dev lintian debootstrap"
  [coverage]="gcovr"
)

missing=()
for name in "$@"; do
  [ -n "${group[$name]+set}" ] || { echo "setup: no group '$name' (known: ${!group[*]})" >&2; exit 2; }
  for package in ${group[$name]}; do
    dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed || missing+=("$package")
  done
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

root=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "setup: these packages are missing, and neither root nor sudo is here: ${missing[*]}" >&2; exit 1; }
  root=(sudo)
fi
echo "setup: installing ${missing[*]}"
"${root[@]}" apt-get update -qq
"${root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
echo "setup: done"
