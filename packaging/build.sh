#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

# Usage: build.sh FOLDER
# Builds the Debian packages for amd64 and i386 into FOLDER, then has lintian read them.
#
# The packages of i386 hold libraries alone and are built on amd64 by the same compiler with -m32, whose libraries
# gcc-multilib has: Debian's cross compiler for i386 can't be installed beside it. What dpkg and debhelper expect of a
# cross compiler are its names, so these are made here; the source package itself knows nothing of it and builds on an
# i386 machine, too.
set -euo pipefail
mkdir -p "$1"
out=$(cd "$1" && pwd)
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
[ "$(dpkg --print-architecture)" = amd64 ] || {
  echo "build.sh: packages of both widths are built on amd64" >&2
  exit 1
}

# Always the same one: a cache of compilations knows them by their folder.
work=$out/work
# The time of the last commit is every date in what is built.
SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git -C "$here" log -1 --format=%ct 2>/dev/null || stat -c %Y "$here")}
export SOURCE_DATE_EPOCH
rm -rf "$work"
mkdir "$work"
trap 'rm -rf "$work"' EXIT
rm -f "$out"/*.{deb,dsc,tar.xz,buildinfo,changes,log}
# Debhelper gives compilers another home, where a cache of compilations would be empty.
if command -v ccache >/dev/null; then
  CCACHE_DIR=$(ccache --get-config cache_dir)
  export CCACHE_DIR
fi

# build ARCHITECTURE OPTION...
build() {
  local log=$out/$1.log tree
  tree=$("$here/make_source.sh" "$work/$1")
  shift
  if ! (cd "$tree" && dpkg-buildpackage -us -uc "$@") >"$log" 2>&1; then
    tail -n 60 "$log" >&2
    echo "build.sh: the packages could not be built; all of it is in $log" >&2
    exit 1
  fi
  find "$(dirname "$tree")" -maxdepth 1 -type f -exec mv -t "$out" {} +
}

tools=$work/tools
mkdir "$tools"
for tool in gcc g++ cpp; do
  # shellcheck disable=SC2016 # the arguments are the wrapper's
  printf '#!/bin/sh\nexec %s -m32 "$@"\n' "$(command -v "$tool")" >"$tools/i686-linux-gnu-$tool"
  chmod +x "$tools/i686-linux-gnu-$tool"
done
for tool in ar ld nm objcopy objdump ranlib readelf strip; do
  ln -s "$(command -v "$tool")" "$tools/i686-linux-gnu-$tool"
done

build amd64 -F
PATH=$tools:$PATH build i386 -B -a i386 -d
"$here/bill_of_materials.py" "$out"
lintian --fail-on warning,error --tag-display-limit 0 "$out"/*.changes
