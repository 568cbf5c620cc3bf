#!/usr/bin/env bash
# Formatting, layers and shell scripts of the whole tree, clang-tidy over the rooms that users get (tests, benchmarks and
# fuzzers are left to the compilers' warnings); every finding fails. --quick leaves clang-tidy and the picture of the
# rooms out.
set -euo pipefail
cd "$(dirname "$0")/.."
status=0
say() { printf 'lint: %s\n' "$1"; }

mapfile -t sources < <(git ls-files '*.h' '*.cc')
mapfile -t scripts < <(git ls-files '*.sh' '.ci/run' 'tests/vm/run' 'tests/vm/soak')

say "formatting of ${#sources[@]} files"
printf '%s\0' "${sources[@]}" | xargs -0 -n 40 -P "$(nproc)" clang-format --dry-run -Werror || status=1
say "includes against the arrows"
tools/check_layers.py . || status=1
say "${#scripts[@]} shell scripts"
shellcheck -S warning "${scripts[@]}" || status=1
[ "${1:-}" != "--quick" ] || exit $status
say "the picture of the rooms"
tools/draw_rooms.py --check build docs/architecture.md || status=1
say "clang-tidy"
tools/run_tidy.py build-clang || status=1
exit $status
