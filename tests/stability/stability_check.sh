#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

# Usage: stability_check.sh BUILD
# Command lines, configuration and exit statuses of version 1, as scripts and files out there count on them: whatever
# stands here goes on working as long as the major version is 1. What is new is added; nothing is taken away.
# docs/stability.md tells what else stays, and by which tests.
set -euo pipefail
build=$1
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
failed=0
fail() {
  printf 'stability_check: %s\n' "$*" >&2
  failed=1
}

# offers PROGRAM OPTION...
offers() {
  local program=$1 help option
  shift
  help=$("$build/$program" --help)
  for option in "$@"; do
    grep -qE -- "(^|[ ,])$option([ ,=]|$)" <<<"$help" || fail "$program has no $option any more"
  done
}
offers ksd --help --version --config --socket --vault --master-key-file --accept-loss --allow-root --check --log-level \
  --log-format
offers ks-session --help --version --vdc --keep
offers ksctl --help --version --socket --json

# ends STATUS COMMAND...
ends() {
  local expected=$1 status=0
  shift
  "$@" >/dev/null 2>&1 || status=$?
  [ "$status" = "$expected" ] || fail "$* ends with $status, not $expected"
}
scratch=$(mktemp -d "${TMPDIR:-/tmp}/ks-stability-XXXXXX")
trap 'rm -rf "$scratch"' EXIT
sed "s,@dir@,$scratch," "$here/version1.toml" >"$scratch/good.toml"
printf '[service]\nno_such_key = 1\n' >"$scratch/bad.toml"
ends 0 "$build/ksd" --version
ends 0 "$build/ksd" --check --config "$scratch/good.toml"
ends 1 "$build/ksd" --check --config "$scratch/bad.toml"
ends 2 "$build/ksd" --no-such-option
ends 7 "$build/ks-session" -- sh -c 'exit 7'
ends 125 "$build/ks-session" --keep /nonexistent/folder -- true
ends 126 "$build/ks-session" -- /
ends 127 "$build/ks-session" -- ./no-such-program
ends 0 "$build/ksctl" --version
exit $failed
