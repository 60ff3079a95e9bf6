#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

# Usage: make_source.sh FOLDER
# Makes the Debian source tree below FOLDER out of this repository's files and prints its path. Its changelog, and with
# it every date in the packages, comes from the version in include/ks_version.h and from SOURCE_DATE_EPOCH, so that the same
# commit makes the same packages.
set -euo pipefail
folder=$(mkdir -p "$1" && cd "$1" && pwd)
cd "$(dirname "${BASH_SOURCE[0]}")/.."

version=$(sed -nE 's/^#define KS_VERSION_(MAJOR|MINOR|PATCH) ([0-9]+)$/\2/p' include/ks_version.h | paste -sd.)
time=${SOURCE_DATE_EPOCH:?}
tree=$folder/ks-$version
rm -rf "$tree"
mkdir "$tree"
if [ -e .git ]; then
  git ls-files -z
else
  find . -path ./build -prune -o -type f -print0
fi | tar -c --null --no-recursion -T - | tar -x -C "$tree"
mv "$tree/packaging/debian" "$tree/debian"

maintainer=$(sed -n 's/^Maintainer: //p' "$tree/debian/control")
cat >"$tree/debian/changelog" <<END
ks ($version) unstable; urgency=medium

  * Built from its repository; NEWS and CHANGELOG.md there tell what changed.

 -- $maintainer  $(LC_ALL=C date -u -R -d "@$time")
END
# Whatever the umask and the time of the checkout were.
chmod -R u=rwX,go=rX "$tree"
find "$tree" -exec touch -h -d "@$time" {} +
printf '%s\n' "$tree"
