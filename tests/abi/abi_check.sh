#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

# Usage: abi_check.sh LIBRARY DUMP [record]
# Compares the binary interface of LIBRARY, as its debug information tells it, with the one recorded in DUMP. What was
# added is welcome; a function, a variable or a record that is gone or has changed would break programs that are built
# already. `record` writes the dump instead.
set -euo pipefail
library=$1 dump=$2

if ! command -v abidiff >/dev/null; then
  echo "abi_check: skipped: there is no abidiff here; abigail-tools has it"
  exit 77
fi

if [ "${3:-}" = record ]; then
  # Folders and lines of the machine that it was built on are nobody's interface.
  abidw --no-show-locs --no-comp-dir-path --no-corpus-path --no-elf-needed --no-parameter-names --drop-undefined-syms \
    --exported-interfaces-only --type-id-style hash --out-file "$dump" "$library"
  exit
fi

if abidiff --no-added-syms "$dump" "$library"; then
  exit 0
fi
cat >&2 <<END
abi_check: $library differs from $dump in what programs that are built already count on.
What must not change has changed: see docs/stability.md. A version that breaks them takes a new SONAME, a line in NEWS,
and new dumps (./dev abi).
END
exit 1
