#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

# Usage: install_check.sh SOURCE BUILD SESSION [COMPILER OPTION...]
# Installs BUILD into a scratch folder and uses it from there as a stranger would: the first program with both compilers,
# as C99 and C++20, with the library shared and inside, by pkg-config and by CMake; and the programs of the helpers in the
# same ways. SESSION is ks-session, or empty for the one that was installed.
set -euo pipefail
source=$1 build=$2 session=$3
shift 3

scratch=$(mktemp -d "${TMPDIR:-/tmp}/ks-install-XXXXXX")
trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/opt
fail() {
  printf 'install_check: %s\n' "$*" >&2
  exit 1
}

cmake --install "$build" --prefix "$prefix" >"$scratch/log" || fail "$(cat "$scratch/log")"
session=${session:-$prefix/bin/ks-session}
libraries=$(dirname "$(find "$prefix" -name libks.a)")
export PKG_CONFIG_PATH=$libraries/pkgconfig LD_LIBRARY_PATH=$libraries

while IFS= read -r file; do
  ! readelf -d "$file" 2>/dev/null | grep -E 'RUNPATH|RPATH' || fail "$file has a search path of its own"
done < <(find "$prefix" -type f \( -name 'lib*.so.*' -o -perm -100 \))
! grep -rl "$build" "$prefix" --include='*.pc' --include='*.cmake' || fail "these name the build's folder"

# Everything that pkg-config says is there.
for variable in includedir libdir examplesdir; do
  folder=$(pkg-config --variable="$variable" ks)
  [ -d "$folder" ] || fail "ks.pc: $variable is $folder, which isn't there"
done
read -r major minor patch < <(sed -nE 's/^#define KS_VERSION_(MAJOR|MINOR|PATCH) //p' "$source/include/ks_version.h" | xargs)
for package in ks ks-helpers; do
  [ "$(pkg-config --modversion $package)" = "$major.$minor.$patch" ] ||
    fail "$package.pc has another version than ks_version.h"
done

program=$(pkg-config --variable=examplesdir ks)/first_program.c
# shellcheck disable=SC2034 # both lists are used by name
read -ra shared < <(pkg-config --cflags --libs ks)
# shellcheck disable=SC2034
read -ra inside < <(echo "$(pkg-config --cflags ks) -L$libraries -l:libks.a $(pkg-config --libs ks-platform)")
names=()
for compiler in gcc clang; do
  for standard in c99 c++20; do
    language=c
    [ "$standard" = c99 ] || language=c++
    for way in shared inside; do
      declare -n options=$way
      name=$scratch/$compiler-$standard-$way
      "$compiler" "$@" "-std=$standard" -pedantic -Wall -Wextra -Werror -x "$language" "$program" -x none "${options[@]}" \
        -o "$name"
      needs=$(readelf -d "$name" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
      case $way in
        shared) grep -qx libks.so.1 <<<"$needs" || fail "$name doesn't need libks.so.1" ;;
        inside) ! grep -q libks <<<"$needs" || fail "$name needs libks beside itself" ;;
      esac
      names+=("$name")
    done
  done
done

cmake -S "$(dirname "$program")" -B "$scratch/examples" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_FLAGS="$*" \
  -DCMAKE_CXX_FLAGS="$*" >"$scratch/log" 2>&1 || fail "$(cat "$scratch/log")"
cmake --build "$scratch/examples" --target first_program device pac_expiry_in_c >"$scratch/log" 2>&1 || fail "$(cat "$scratch/log")"
names+=("$scratch/examples/first_program")

package=$prefix/lib/python3/dist-packages
if [ -e "$package/ks" ]; then
  printf '%s\n' '#!/usr/bin/python3 -B' 'import sys' "sys.path.insert(0, '$package')" 'import ks' 'ks.init(1)' \
    'print(ks.device.random(16).hex())' >"$scratch/in_python"
  chmod +x "$scratch/in_python"
  names+=("$scratch/in_python")
fi

# Each prints 16 random bytes, and no two the same.
# shellcheck disable=SC2016 # it is the inner shell's
"$session" -- sh -c 'for program; do "$program" || exit 1; done' sh "${names[@]}" >"$scratch/out" ||
  fail "a program failed: $(cat "$scratch/out")"
[ "$(grep -cE '^[0-9a-f]{32}$' "$scratch/out")" = ${#names[@]} ] || fail "wrong output: $(cat "$scratch/out")"
[ "$(sort -u "$scratch/out" | wc -l)" = ${#names[@]} ] || fail "two programs were given the same random bytes"

# The helpers: a C++ program needs no library beside libks for them, a C program has one of its own.
examples=$(dirname "$program")
# shellcheck disable=SC2046 # these are lists
{
  g++ "$@" -std=c++17 "$examples/pac_expiry.cc" $(pkg-config --cflags --libs ks) -o "$scratch/helpers-c++"
  gcc "$@" -std=c99 "$examples/pac_expiry_in_c.c" $(pkg-config --cflags --libs ks-helpers) -o "$scratch/helpers-c"
  gcc "$@" -std=c99 "$examples/pac_expiry_in_c.c" $(pkg-config --cflags ks-helpers) -L"$libraries" -l:libks-helpers.a \
    -l:libks.a $(pkg-config --libs ks-platform) -o "$scratch/helpers-inside"
}
! readelf -d "$scratch/helpers-c++" | grep -q libks-helpers || fail "a C++ program needs libks-helpers"
readelf -d "$scratch/helpers-c" | grep -q libks-helpers.so.1 || fail "a C program doesn't need libks-helpers"
! readelf -d "$scratch/helpers-inside" | grep NEEDED | grep -q libks || fail "a program with all inside needs a library"
for name in "$scratch"/helpers-* "$scratch/examples/pac_expiry_in_c"; do
  "$session" -- "$name" | grep -qx 'a PAC for alice, good for 2160 hours' || fail "$name failed"
done
