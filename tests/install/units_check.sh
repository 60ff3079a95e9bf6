#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

# Usage: units_check.sh SOURCE BUILD
# What systemd says to the units, the catalogue of messages and the folders that are installed, without running any.
set -euo pipefail
source=$1 build=$2
if ! command -v systemd-analyze >/dev/null; then
  echo "units_check: skipped: there is no systemd-analyze here"
  exit 77
fi
scratch=$(mktemp -d "${TMPDIR:-/tmp}/ks-units-XXXXXX")
trap 'rm -rf "$scratch"' EXIT
fail() {
  printf 'units_check: %s\n' "$*" >&2
  exit 1
}

mkdir -p "$scratch"/{etc,usr/lib/systemd/{system,catalog},usr/lib/{sysusers,tmpfiles}.d}
cp "$source/service/systemd/ksd.socket" "$build/ksd.service" "$scratch/usr/lib/systemd/system"
cp "$source/service/systemd/ksd.catalog" "$scratch/usr/lib/systemd/catalog"
cp "$source/service/systemd/sysusers.conf" "$scratch/usr/lib/sysusers.d/ksd.conf"
cp "$source/service/systemd/tmpfiles.conf" "$scratch/usr/lib/tmpfiles.d/ksd.conf"

# The exposure to attacks, of 10; and nothing that hides who is calling.
systemd-analyze security --offline=true --threshold=10 "$scratch/usr/lib/systemd/system/ksd.service" >"$scratch/exposure" ||
  fail "$(cat "$scratch/exposure")"
! grep -q '^PrivateUsers' "$build/ksd.service" || fail "PrivateUsers= hides who is calling"
! grep -E 'Unknown|Failed to parse|ignoring' "$scratch/exposure" || fail "systemd doesn't know all of the unit"

# The engine, where it is built, may use the network; else it is confined as well.
if [ -e "$build/ksd-engine@.service" ]; then
  cp "$source/service/systemd/ksd-engine.socket" "$build/ksd-engine@.service" "$scratch/usr/lib/systemd/system"
  systemd-analyze security --offline=true --threshold=15 "$scratch/usr/lib/systemd/system/ksd-engine@.service" \
    >"$scratch/exposure" || fail "$(cat "$scratch/exposure")"
  ! grep -E 'Unknown|Failed to parse|ignoring' "$scratch/exposure" || fail "systemd doesn't know all of the engine's unit"
fi

# The user and the folders. Where users of that name can't be made there is nothing to look at.
systemd-sysusers --root="$scratch" >"$scratch/log" 2>&1 || fail "$(cat "$scratch/log")"
grep -q '^ksd:.*Keystore service:/var/lib/ks:' "$scratch/etc/passwd" || fail "no user ksd was made"
if [ "$(id -u)" = 0 ]; then
  systemd-tmpfiles --root="$scratch" --create >"$scratch/log" 2>&1 || fail "$(cat "$scratch/log")"
  user=$(grep '^ksd:' "$scratch/etc/passwd" | cut -d: -f3)
  [ "$(stat -c '%a %u' "$scratch"/{run/ks,var/lib/ks,var/lib/ks-key} | xargs)" = "755 $user 700 $user 700 $user" ] ||
    fail "the folders have other owners or modes"
fi

journalctl --root="$scratch" --update-catalog >"$scratch/log" 2>&1 || fail "$(cat "$scratch/log")"
messages=$(journalctl --root="$scratch" --list-catalog | grep -c '^[0-9a-f]\{32\} ksd: ') || true
ids=$(grep -c '^-- ' "$source/service/systemd/ksd.catalog")
[ "$messages" = "$ids" ] || fail "systemd finds $messages messages in a catalogue of $ids"
