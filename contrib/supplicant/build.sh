#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

# Usage: build.sh SOURCE OUT [TARGET...]
# Builds TARGET (eapol_test and wpa_supplicant) of wpa_supplicant's SOURCE, which fetch.sh fetches, into the folder OUT,
# with PAC keys in the keystore. What stands in these variables counts:
#   KS_CFLAGS, KS_LIBS   how to compile and link with libks (pkg-config's words for ks)
#   CONFIG               what to build of it (peer.config; Debian's own is SOURCE/debian/config/wpasupplicant/linux)
#   CC, CFLAGS, LDFLAGS  as usual
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
fail() {
  printf 'build.sh: %s\n' "$*" >&2
  exit 1
}

[ $# -ge 2 ] || fail "usage: build.sh SOURCE OUT [TARGET...]"
[ -f "$1/src/eap_peer/eap_fast_pac.h" ] || fail "$1 isn't the source of wpa_supplicant; fetch.sh fetches it"
source=$(cd "$1" && pwd)
mkdir -p "$2"
out=$(cd "$2" && pwd)
shift 2
targets=("${@:-eapol_test}")
[ $# -gt 0 ] || targets+=(wpa_supplicant)
if [ -z "${KS_LIBS:-}" ]; then
  pkg-config --exists ks || fail "libks isn't installed (libks-dev); or say in KS_CFLAGS and KS_LIBS where it is"
  KS_CFLAGS=$(pkg-config --cflags ks) KS_LIBS=$(pkg-config --libs ks)
fi
CONFIG=$(realpath "${CONFIG:-$here/peer.config}")
export CC=${CC:-cc} CFLAGS=${CFLAGS:--O2 -g -MMD -Wno-deprecated-declarations}

# What the linker leads to us: calls from one object of the peer to another one.
pac_functions=(load_pac load_pac_bin save_pac save_pac_bin add_pac pac_list_truncate derive_master_secret)
wrapped=("${pac_functions[@]/#/eap_fast_}" SSL_new)

for name in keystore_pac pac_reference; do
  # shellcheck disable=SC2086 # lists of options
  $CC $CFLAGS -std=gnu11 -Wall -Wextra -D_GNU_SOURCE -I"$source/src/utils" -I"$source/src" ${KS_CFLAGS:-} \
    -c "$here/$name.c" -o "$out/$name.o"
done

! grep -qx 'CONFIG_WPA_TRACE=y' "$CONFIG" || fail "$CONFIG: CONFIG_WPA_TRACE gives the peer another allocator than ours"

cd "$source/wpa_supplicant"
cmp -s "$CONFIG" .config || cp "$CONFIG" .config
rm -f "${targets[@]}" # they are to be linked with what was just compiled
LDFLAGS="${LDFLAGS:-} ${wrapped[*]/#/-Wl,--wrap=}" LIBS="$out/keystore_pac.o $out/pac_reference.o $KS_LIBS" \
  make -j "$(nproc)" "${targets[@]}"

# A peer whose functions stand in one object with their callers would keep its keys, and nobody would notice.
peer=$source/build/wpa_supplicant/src/eap_peer/eap_fast.o
undefined=$(nm -u "$peer")
for name in "${pac_functions[@]/#/eap_fast_}"; do
  grep -q " $name\$" <<<"$undefined" || fail "$peer doesn't call $name of another object: EAP-FAST has to be built in
(CONFIG_EAP_FAST=y), without optimisation across objects (-flto)"
done
cp "${targets[@]}" "$out"
