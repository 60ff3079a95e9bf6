#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

# manual_check.sh BUILD: the manual has a page for every exported function and every program, each with the sections that
# readers look for, and its source is sound.
set -euo pipefail
build=$(cd "$1" && pwd)
cd "$(dirname "${BASH_SOURCE[0]}")/../../.."
for program in scdoc mandoc; do
  command -v "$program" >/dev/null || {
    echo "skipped: $program isn't installed"
    exit 77
  }
done

out=$(mktemp -d)
trap 'rm -r "$out"' EXIT
KS_BUILD=$build python3 docs/site/man.py "$out"

status=0
fault() {
  echo "$*"
  status=1
}

exported=$(sed -nE 's/^ +((ks|sksd|is)_?\w+);.*/\1/p' src/libks.map helpers/libks-helpers.map | sort)
functions=$(comm -23 <(echo "$exported") <(printf '%s\n' ks_mts_q ks_cache_present ks_cache_uri | sort))
for function in $functions; do
  [ -f "$out/$function.3" ] || fault "$function is exported and has no page"
done
for page in "$out"/*.3; do
  grep -qx "$(basename "$page" .3)" <<<"$functions" || fault "$(basename "$page") tells of what isn't exported"
done
for page in ks.7 ks-session.1 ksctl.1 ksd.8 ksd-engine.8 ksd.toml.5; do
  [ -f "$out/$page" ] || fault "there is no page $page"
done
for page in "$out"/*.[1-8]; do
  for section in NAME DESCRIPTION 'EXIT STATUS' ENVIRONMENT 'SEE ALSO'; do
    grep -qxE "\.SH \"?$section\"?" "$page" || fault "$(basename "$page") has no section $section"
  done
done
# Pages bear no date, so that the same sources give the same bytes.
if faults=$(mandoc -T lint -W warning "$out"/*.[1-8] | grep -v 'missing date'); then
  fault "$faults"
fi
# What a page names in SEE ALSO is there.
for page in "$out"/*.[1-8]; do
  sed -n '/^\.SH "\?SEE ALSO/,$p' "$page" | sed -E 's/\\f[BRP]|\\&|\\//g' | grep -oE '[a-zA-Z0-9_.-]+\([1-8]\)' |
    while read -r named; do
      [ -f "$out/$(sed -E 's/\((.)\)/.\1/' <<<"$named")" ] || echo "$(basename "$page") names $named, which has no page"
    done
done >"$out/unknown"
if [ -s "$out/unknown" ]; then
  fault "$(cat "$out/unknown")"
fi
exit "$status"
