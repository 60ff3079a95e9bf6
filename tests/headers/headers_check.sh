#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

# headers_check.sh SOURCE: each public header stands by itself and compiles without a warning, in every version of C and
# C++ that programs are written in, with both compilers, and with GCC in both widths; and so do two small programs, which
# have names of their own where ks_api.h has common ones.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
cd "$1"
scratch=$(mktemp -d "${TMPDIR:-/tmp}/ks-headers-XXXXXX")
trap 'rm -rf "$scratch"' EXIT

folders=(include helpers/include platform/host/include platform/include)
flags=(-Wall -Wextra -Wshadow -Wredundant-decls -Wconversion -pedantic -Werror -fsyntax-only "${folders[@]/#/-I}")
# A source for each header, which has nothing beside it and is met twice.
mapfile -t headers < <(find "${folders[@]}" -name '*.h*' -printf '%f\n')
for header in "${headers[@]}"; do
  printf '#include <%s>\n#include <%s>\nextern int used;\nint used = 1;\n' "$header" "$header" >"$scratch/$header.cc"
  [[ $header = *.hpp ]] || cp "$scratch/$header.cc" "$scratch/$header.c"
done

# knows COMPILER LANGUAGE STANDARD: the newest version isn't known to every compiler.
knows() {
  [[ $3 != *2[bx] ]] || "$1" -x "$2" "-std=$3" -fsyntax-only - </dev/null 2>/dev/null
}

failed=0
# check COMMAND...
check() {
  "$@" || { echo "headers_check: $*"; failed=1; }
}
for width in '' -m32; do
  for compiler in gcc clang; do
    [ "$compiler$width" != clang-m32 ] || continue
    for standard in c99 c11 c17 c2x; do
      knows "$compiler" c "$standard" || continue
      check "$compiler" ${width:+"$width"} "-std=$standard" "${flags[@]}" "$scratch"/*.c "$here/program.c"
    done
    for standard in c++17 c++20 c++2b; do
      knows "$compiler" c++ "$standard" || continue
      check "$compiler" ${width:+"$width"} "-std=$standard" "${flags[@]}" "$scratch"/*.cc
      # Exceptions and RTTI make no difference to anybody else's header; without them is the harder case.
      check "$compiler" ${width:+"$width"} "-std=$standard" -fno-exceptions -fno-rtti "${flags[@]}" "$here/program.cc"
    done
  done
done
exit $failed
