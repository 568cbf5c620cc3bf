#!/bin/bash
# Builds the Debian packages into build/packages and lets lintian look at them. What an earlier run left in the build
# folder is used again, its configuration is not.
#   packaging/build_packages.sh            JOBS=n limits the compiler
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build/package-build
stage=$root/build/package-stage
out=$root/build/packages
version=$(sed -n 's/^project(flutter_mirn VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt")
arch=$(dpkg --print-architecture)
triplet=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
maintainer="flutter_mirn authors <flutter-mirn@example.org>"
export SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git -C "$root" log -1 --format=%ct 2>/dev/null || date +%s)}

rm -rf "$stage" "$out"
mkdir -p "$stage" "$out"
# The hardening flags that Debian builds with; no path of this machine in the programs.
export CXXFLAGS="-g -O2 -fstack-protector-strong -D_FORTIFY_SOURCE=2 -ffile-prefix-map=$root=."
export LDFLAGS="-Wl,-z,relro -Wl,-z,now -Wl,--as-needed"
cmake --fresh -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=None -DCMAKE_INSTALL_PREFIX=/usr \
  -DCMAKE_INSTALL_LIBDIR="lib/$triplet" -DMIRN_TESTS=OFF -DMIRN_WERROR=OFF \
  -DMIRN_INSTALL_RPATH= -DCMAKE_BUILD_WITH_INSTALL_RPATH=ON >/dev/null
cmake --build "$build" -j "${JOBS:-$(nproc)}"
DESTDIR=$stage/all cmake --install "$build" >/dev/null
LD_LIBRARY_PATH=$stage/all/usr/lib/$triplet "$root/tests/package/check_files.sh" "$stage/all/usr"
rm "$stage/all/usr/share/flutter-mirn/LICENSE" # every package has it in its copyright file

# take PACKAGE PATH...: moves installed paths (globs, below /usr) into a package.
take() {
  local package=$1 path
  shift
  for path in "$@"; do
    for found in $stage/all/usr/$path; do
      [[ -e $found || -L $found ]] || { echo "nothing is installed at /usr/$path" >&2; exit 1; }
      local target=$stage/$package/usr/${found#"$stage/all/usr/"}
      mkdir -p "$(dirname "$target")"
      mv "$found" "$target"
    done
  done
}
take libflutter-mirn0 "lib/$triplet/libflutter_mirn.so.*"
take libflutter-mirn-dev "lib/$triplet/libflutter_mirn.so" "lib/$triplet/pkgconfig/flutter_mirn.pc" include/flutter_mirn
take mirn-console bin/mirn-console share/applications share/icons share/man/man1/mirn-console.1
take mirnctl bin/mirnctl share/man/man1/mirnctl.1 share/bash-completion share/zsh share/fish
take mirn-virtual bin/mirn-virtual share/man/man1/mirn-virtual.1
take mirn-udev lib/udev/rules.d/70-mirn.rules
take flutter-mirn-source share/flutter-mirn

find "$stage" -name '*.1' -exec gzip -9n {} +
for binary in "$stage"/libflutter-mirn0/usr/lib/*/*.so.* "$stage"/*/usr/bin/*; do
  [[ -L $binary ]] || strip --strip-unneeded --remove-section=.comment --remove-section=.note "$binary"
done

# Documents that every package has.
for package in libflutter-mirn0 libflutter-mirn-dev mirn-console mirnctl mirn-virtual mirn-udev flutter-mirn-source; do
  doc=$stage/$package/usr/share/doc/$package
  mkdir -p "$doc"
  {
    echo "Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/"
    echo "Upstream-Name: flutter_mirn"
    echo
    echo "Files: *"
    echo "Copyright: 2026 the flutter_mirn authors"
    echo "License: BSD-3-clause"
    sed '1,/^Copyright/d; s/^$/./; s/^/ /' "$root/LICENSE" | sed '1{/^ \.$/d}'
  } >"$doc/copyright"
  printf 'flutter-mirn (%s) unstable; urgency=medium\n\n  * See CHANGELOG.md in the sources for what changed.\n\n -- %s  %s\n' \
    "$version" "$maintainer" "$(date -u -R -d "@$SOURCE_DATE_EPOCH")" | gzip -9n >"$doc/changelog.gz"
done

# dpkg-shlibdeps wants a source package to stand in, and must know which package the own library is in.
shlibs=$stage/shlibs
mkdir -p "$shlibs/debian"
printf 'Source: flutter-mirn\n\nPackage: mirnctl\nArchitecture: any\n' >"$shlibs/debian/control"
echo "libflutter_mirn 0 libflutter-mirn0 (>= $version)" >"$shlibs/debian/shlibs.local"
libraries() {
  (cd "$shlibs" && dpkg-shlibdeps -O --ignore-missing-info -l"$stage/libflutter-mirn0/usr/lib/$triplet" "$@" 2>/dev/null) |
    sed -n 's/^shlibs:Depends=//p'
}

# package NAME ARCH SECTION DEPENDS SUMMARY < description lines
package() {
  local name=$1 architecture=$2 section=$3 depends=$4 summary=$5
  mkdir -p "$stage/$name/DEBIAN"
  {
    echo "Package: $name"
    echo "Source: flutter-mirn"
    echo "Version: $version"
    echo "Architecture: $architecture"
    echo "Maintainer: $maintainer"
    echo "Installed-Size: $(du -k -s --apparent-size "$stage/$name" | cut -f1)"
    [[ -z $depends ]] || echo "Depends: $depends"
    [[ $name != mirn-console && $name != mirnctl ]] || echo "Recommends: mirn-udev"
    echo "Section: $section"
    echo "Priority: optional"
    [[ $name != libflutter-mirn* ]] || echo "Multi-Arch: same"
    [[ $architecture != all ]] || echo "Multi-Arch: foreign"
    echo "Description: $summary"
    sed 's/^/ /'
  } >"$stage/$name/DEBIAN/control"
  (cd "$stage/$name" && find usr -type f -print0 | sort -z | xargs -0 md5sum >DEBIAN/md5sums)
  find "$stage/$name" -type d -exec chmod 755 {} +
  find "$stage/$name/usr" -type f -exec chmod u=rwX,go=rX {} +
  dpkg-deb --root-owner-group -Zxz --build "$stage/$name" "$out/${name}_${version}_${architecture}.deb" >/dev/null
}

mkdir -p "$stage"/{libflutter-mirn0,mirn-udev}/DEBIAN
echo "libflutter_mirn 0 libflutter-mirn0 (>= $version)" >"$stage/libflutter-mirn0/DEBIAN/shlibs"
echo "activate-noawait ldconfig" >"$stage/libflutter-mirn0/DEBIAN/triggers"
install -m 755 "$root/packaging/debian/mirn-udev.postinst" "$stage/mirn-udev/DEBIAN/postinst"

# What the plug-in's CMake file looks for, beside Flutter's own needs for Linux (compiler, CMake, Ninja, pkg-config, GTK).
flutter_needs="libgtk-3-dev, libglib2.0-dev, libhidapi-dev, libsimpleini-dev, libturbojpeg0-dev, libudev-dev, libyuv-dev"
package libflutter-mirn0 "$arch" libs "$(libraries -e"$(echo "$stage"/libflutter-mirn0/usr/lib/*/libflutter_mirn.so.*.*)")" \
  "plug-in library for the Mirn" <<'TEXT'
The Mirn is a USB device that shows the screen of another computer as a video
source and plays keyboard and mouse commands into it.
.
This library offers it to applications over one method channel and engine
textures.
TEXT
package libflutter-mirn-dev "$arch" libdevel "libflutter-mirn0 (= $version)" "plug-in library for the Mirn: headers" <<'TEXT'
Headers and the pkg-config file for programs that host the plug-in library for
the Mirn themselves.
TEXT
package mirn-console "$arch" x11 "$(libraries -e"$stage/mirn-console/usr/bin/mirn-console")" \
  "another computer's screen, keyboard and pointer in a window" <<'TEXT'
Shows the picture that a Mirn delivers of the computer behind it, and plays
what is typed and pointed in the window into that computer. Reads and sets
the device's information and upgrades its firmware.
TEXT
package mirnctl "$arch" utils "$(libraries -e"$stage/mirnctl/usr/bin/mirnctl")" \
  "use a Mirn from scripts" <<'TEXT'
Presses keys, types text, moves the pointer, saves the picture, reads and
sets the information of a Mirn, upgrades its firmware, and says what is wrong
when it does not work. Text or JSON.
TEXT
package mirn-virtual "$arch" utils "kmod, $(libraries -e"$stage/mirn-virtual/usr/bin/mirn-virtual")" \
  "virtual Mirn that the kernel's own drivers see" <<'TEXT'
Plugs virtual Mirns into this computer's kernel as USB devices, camera and
keyboard interface, so that programs for the Mirn and any camera program can
be tried without the hardware. Needs root and the kernel module vhci-hcd.
TEXT
package mirn-udev all misc "" "lets the person at the computer use a Mirn" <<'TEXT'
A udev rule that gives whoever sits at this computer access to the keyboard
interface and the camera of a Mirn.
TEXT
package flutter-mirn-source all libdevel "$flutter_needs" "Flutter plug-in for the Mirn: sources" <<'TEXT'
The plug-in for the Mirn as a Flutter application for Linux takes it: name
/usr/share/flutter-mirn as a path dependency in its pubspec.yaml.
TEXT

left=$(find "$stage/all" ! -type d)
[[ -z $left ]] || { echo "installed, but in no package:" >&2; echo "$left" >&2; exit 1; }

as_root=()
[[ $(id -u) -ne 0 ]] || as_root=(--allow-root)
lintian "${as_root[@]}" --fail-on error,warning --tag-display-limit 0 "$out"/*.deb
echo "lintian: no errors, no warnings"
ls -l "$out"
