#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

# Usage: apparmor_check.sh BUILD
# The AppArmor profile is one; and where the kernel enforces profiles, a service under it serves and can't leave it.
set -euo pipefail
build=$1
skip() {
  echo "apparmor_check: skipped: $*"
  exit 77
}
command -v apparmor_parser >/dev/null || skip "there is no apparmor_parser here"
apparmor_parser --skip-kernel-load --skip-cache "$build/usr.sbin.ksd" 2>/dev/null ||
  { apparmor_parser --skip-kernel-load --skip-cache "$build/usr.sbin.ksd"; exit 1; }
[ "$(cat /sys/module/apparmor/parameters/enabled 2>/dev/null)" = Y ] ||
  skip "the profile is well-formed; this kernel has no AppArmor to enforce it"
[ "$(id -u)" = 0 ] || skip "the profile is well-formed; loading it needs root"

# The same profile for a program of another name and its own folders, so that a service that runs here isn't confined.
scratch=$(mktemp -d /tmp/ks-apparmor-XXXXXX)
trap 'apparmor_parser --remove "$scratch/profile" 2>/dev/null; rm -rf "$scratch"' EXIT
cp "$build/ksd" "$scratch/ksd"
mkdir -m 700 "$scratch"/{run,state}
sed -e "s,^profile ksd [^ ]*,profile ks-apparmor-test $scratch/ksd," -e "s,[^ ]*/sbin/ksd mr,$scratch/ksd mr," \
  -e "s,@{run}/ks/,$scratch/run/,; s,/var/lib/ks/,$scratch/state/,; s,/var/lib/ks-key/,$scratch/state/," \
  -e "s,/etc/ks/,$scratch/," "$build/usr.sbin.ksd" >"$scratch/profile"
apparmor_parser --replace --skip-cache "$scratch/profile"
: >"$scratch/ksd.toml"

# start VAULT: returns when the service is ready, or has ended.
start() {
  start-stop-daemon --start --background --notify-await --make-pidfile --pidfile "$scratch/pid" --output "$scratch/log" \
    --exec "$scratch/ksd" -- --allow-root --config "$scratch/ksd.toml" --socket "$scratch/run/ksd.sock" --vault "$1" \
    --master-key-file "$scratch/state/key"
}
start "$scratch/state/vault" || { cat "$scratch/log"; exit 1; }
grep -q 'ks-apparmor-test (enforce)' "/proc/$(cat "$scratch/pid")/attr/current"
start-stop-daemon --stop --retry 30 --pidfile "$scratch/pid" --exec "$scratch/ksd"
! start /root/ks-vault || { echo "apparmor_check: it wrote where it mustn't"; exit 1; }
