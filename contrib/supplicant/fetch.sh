#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

# Usage: fetch.sh FOLDER
# Fetches Debian's source of wpa_supplicant into FOLDER/source, as it is. The mirrors are those that the machine's own
# lists name; these lists, and what apt knows of them, aren't touched. No root is needed.
set -euo pipefail
mkdir -p "$1"
folder=$(cd "$1" && pwd)
fail() {
  printf 'fetch.sh: %s\n' "$*" >&2
  exit 1
}

command -v dpkg-source >/dev/null || fail "dpkg-source is missing; install dpkg-dev"
scratch=$(mktemp -d "$folder/fetch-XXXXXX")
trap 'rm -rf "$scratch"' EXIT
mkdir -p "$scratch/lists/partial" "$scratch/cache/archives/partial"

# shellcheck source=/dev/null
. /etc/os-release
# shellcheck disable=SC2016 # the placeholders are apt's
apt-get indextargets --format 'deb-src $(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' |
  grep -E " $VERSION_CODENAME(-updates|-security)? main\$" | sort -u >"$scratch/sources.list" ||
  fail "apt's lists name no mirror of Debian's $VERSION_CODENAME; run apt-get update"

# ours COMMAND...: apt-get with lists of its own.
ours() {
  apt-get -q -o Dir::Etc::sourcelist="$scratch/sources.list" -o Dir::Etc::sourceparts=- -o Dir::Cache="$scratch/cache" \
    -o Dir::State::lists="$scratch/lists" -o APT::Sandbox::User= -o Acquire::Languages=none -o Acquire::Retries=3 \
    -o Acquire::http::Timeout=30 "$@"
}
cd "$scratch"
{ ours update && ours source wpa; } >"$scratch/log" 2>&1 || fail "$(tail -n 20 "$scratch/log")"
rm -rf "$folder/source"
mv "$scratch"/wpa-*/ "$folder/source"
