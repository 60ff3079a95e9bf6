#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

# Usage: bare_debian.sh WORK ROOT
# Makes the folder ROOT a bare Debian 12 that knows the packages of a mirror ($KS_MIRROR; that of the machine), with the
# name servers of this machine. What debootstrap made is kept in WORK for the next time. Needs root.
set -euo pipefail
work=$1 root=$2
# shellcheck disable=SC2016 # the placeholder is apt's
mirror=${KS_MIRROR:-$(apt-get indextargets --format '$(REPO_URI)' "Created-By: Packages" | grep -v security | head -n 1)}

# quietly shows what a command said only when it fails.
quietly() {
  "$@" >"$work/log" 2>&1 || {
    printf 'bare_debian.sh: %s failed: %s\n' "$*" "$(tail -n 40 "$work/log")" >&2
    exit 1
  }
}

if [ ! -e "$work/base.tar" ]; then
  printf '==> a bare Debian 12 from %s\n' "$mirror" >&2
  rm -rf "$work/base"
  quietly debootstrap --variant=minbase bookworm "$work/base" "$mirror"
  quietly chroot "$work/base" dpkg --add-architecture i386
  quietly chroot "$work/base" apt-get update
  quietly chroot "$work/base" apt-get clean
  tar -cf "$work/base.tar.new" -C "$work/base" .
  mv "$work/base.tar.new" "$work/base.tar"
  rm -rf "$work/base"
fi
rm -rf "$root"
mkdir -p "$root"
tar -xf "$work/base.tar" -C "$root"
cp /etc/resolv.conf "$root/etc/resolv.conf"
