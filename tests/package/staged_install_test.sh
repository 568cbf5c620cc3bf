#!/bin/bash
# `cmake --install` into a temporary DESTDIR with another prefix than was configured: everything lands below it, the
# programs run from there, a program that has only what is installed compiles and runs.
#   staged_install_test.sh BUILD_DIR WORK_DIR
set -euo pipefail
build=$1
work=$2
here=$(cd "$(dirname "$0")" && pwd)
prefix=/opt/mirn
stage=$work/stage\ with\ a\ blank
fail() { echo "FAILED: $*" >&2; exit 1; }

rm -rf "$work"
mkdir -p "$stage"
DESTDIR=$stage cmake --install "$build" --prefix "$prefix" >"$work/install.log"
outside=$(find "$stage" ! -type d ! -path "$stage$prefix/*")
[[ -z $outside ]] || fail "installed outside of the prefix: $outside"
top=$stage$prefix

echo "== the programs run, and find the installed library, not the build folder's"
for program in mirn-console mirnctl mirn-virtual; do
  # An installed tree may be moved: what the programs need is found beside them.
  env -i PATH=/usr/bin:/bin HOME="$work" LC_ALL=C.UTF-8 "$top/bin/$program" --version >"$work/$program.version" ||
    fail "$program --version"
  ! readelf -d "$top/bin/$program" | grep -F "$build" || fail "$program names the build folder"
done
for program in mirn-console mirnctl; do
  library=$(ldd "$top/bin/$program" | sed -n 's/.*libflutter_mirn\.so\.[0-9]* => \(.*\) (0x.*/\1/p')
  [[ $(realpath "$library") == "$(realpath "$top")"/lib* ]] || fail "$program takes the library from '$library'"
done
env -i PATH=/usr/bin:/bin HOME="$work" LC_ALL=C.UTF-8 "$top/bin/mirnctl" --virtual info | grep '^version  1\.0\.0$' ||
  fail "mirnctl --virtual info"

echo "== a program that has only what is installed"
# pkg-config quotes the blank of the path for a shell.
flags=$(PKG_CONFIG_LIBDIR=$(dirname "$(find "$top" -name flutter_mirn.pc)") pkg-config --cflags --libs flutter_mirn)
library_folder=$(dirname "$(find "$top" -name libflutter_mirn.so)")
eval "${CXX:-c++} -std=c++20 -O0 '$here/consumer.cc' -o '$work/consumer' $flags"
LD_LIBRARY_PATH=$library_folder "$work/consumer"

echo "== every installed header stands by itself, and they declare every function that the library shows"
headers=$top/include/flutter_mirn
while IFS= read -r header; do
  eval "${CXX:-c++} -std=c++20 -fsyntax-only -Wall -Werror -include '$header' -x c++ /dev/null $flags" || fail "$header"
done < <(find "$headers" -name '*.h')
shown=$(nm -D --defined-only -C "$library_folder/libflutter_mirn.so" | sed -n 's/.* T mirn::\([A-Za-z]*\).*/\1/p')
[[ -n $shown ]] || fail "the library shows nothing"
for function in $shown; do
  grep -rqE "^MIRN_EXPORT .*\b$function\(" "$headers" || fail "no installed header declares $function"
done

echo "== the files that are neither program nor library"
"$here/check_files.sh" "$top"
