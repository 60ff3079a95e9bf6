#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

# Usage: examples_say_why.sh EXAMPLES
# Without a service an example ends with status 1, and says where it looked for one and what to do.
set -euo pipefail
export KS_SOCKET=/nonexistent/ksd.sock
expected="$KS_SOCKET: no keystore service is there: the folder doesn't exist (No such file or directory). Start the \
service, ksd, or run the program under \`ks-session --\`; KS_SOCKET names another socket"

failed=0
for example in first_program device "secrets list"; do
  read -ra command <<<"$example"
  status=0
  said=$("$1/${command[0]}" "${command[@]:1}" 2>&1) || status=$?
  [ "$status" = 1 ] || { echo "$example: ended with status $status"; failed=1; }
  [ "$(tail -n 1 <<<"$said")" = "$expected" ] || { echo "$example: said $said"; failed=1; }
done
exit $failed
