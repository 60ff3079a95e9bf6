#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

# Usage: check_library.sh LIBRARY HEADER[:HEADER...] NEEDED...
# A library that loads into every client exports what its headers declare and nothing else, and needs no libraries but
# those named.
set -euo pipefail
library=$1 header=$2
IFS=: read -ra headers <<<"$header"
shift 2

declared=$(grep -ohP '^KS_(EXTERN_C|EXPORT) [^(\[]*?\b\K\w+(?=[(\[])' "${headers[@]}" | sort)
exported=$(nm -D --defined-only "$library" | awk '$2 != "A" {sub("@.*", "", $3); print $3}' | sort)
needed=$(readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort)
expected=$(printf '%s\n' "$@" | sort)

failed=0
diff <(echo "$declared") <(echo "$exported") || { echo "$library: exports (>) differ from $header (<)"; failed=1; }
diff <(echo "$expected") <(echo "$needed") || { echo "$library: needs (>) other libraries than (<)"; failed=1; }
readelf -d "$library" | grep -q TEXTREL && { echo "$library: has text relocations"; failed=1; }
# The compiler's own start-up has one entry in each of these lists; another would be a constructor or destructor.
word=$(readelf -h "$library" | grep -q 'Class:.*ELF64' && echo 8 || echo 4)
for list in INIT_ARRAYSZ FINI_ARRAYSZ; do
  size=$(readelf -d "$library" | sed -n "s/.*($list) *\([0-9]*\) .*/\1/p")
  [ "${size:-0}" -le "$word" ] || { echo "$library: runs code of its own when loaded or unloaded ($list)"; failed=1; }
done
exit $failed
