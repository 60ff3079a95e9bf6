#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

# differences_check.sh: where siblings differ by promise, the code says so with a tag, a test pins it under the same
# tag, and docs/differences.md tells who relies on it. This fails when one of the three lacks a tag of the others.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

tags() {
  grep -rhoE 'DIFFERS\([a-z0-9-]+\)' "$@" | sed -E 's/DIFFERS\((.*)\)/\1/' | sort -u
}

code=$(tags src)
pinned=$(tags tests --include='*.cc')
# shellcheck disable=SC2016 # the backquotes are those of Markdown
told=$(sed -nE 's/^\| `([a-z0-9-]+)` \|.*/\1/p' docs/differences.md | sort -u)

status=0
report() { # TEXT LEFT RIGHT: what is in LEFT only
  local key
  while read -r key; do
    [ -n "$key" ] || continue
    printf '%s: %s\n' "$key" "$1"
    status=1
  done < <(comm -23 <(printf '%s\n' "$2") <(printf '%s\n' "$3"))
}
report 'tagged in src/, but no test carries the tag' "$code" "$pinned"
report 'tagged in src/, but not told in docs/differences.md' "$code" "$told"
report 'carried by a test, but not tagged in src/' "$pinned" "$code"
report 'told in docs/differences.md, but not tagged in src/' "$told" "$code"
[ $status = 0 ] && printf '%s differences, each tagged, pinned and told\n' "$(printf '%s\n' "$code" | wc -l)"
exit $status
