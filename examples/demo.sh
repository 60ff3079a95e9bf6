#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

# demo.sh BUILD: shows what the library does, each step by a program of examples/ against a private keystore service.
set -euo pipefail
build=$(cd "$1" && pwd)
examples=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

if [ -z "${KS_SESSION_DIR:-}" ]; then
  printf 'Starting a private keystore service for the length of this demo.\n'
  exec "$build/ks-session" --vdc 7 -- "${BASH_SOURCE[0]}" "$build"
fi

# Bold is for terminals alone, and not where NO_COLOR is set.
bold='' plain=''
if [ -t 1 ] && [ -z "${NO_COLOR:-}" ]; then
  bold=$'\033[1m' plain=$'\033[0m'
fi

title() { printf '\n%s%s%s\n' "$bold" "$*" "$plain"; }
run() { "$build/examples/$1" "${@:2}"; }

title 'The keystore: another process, over a Unix socket'
printf '  service: process %s at %s\n' "$(cat "$KS_SESSION_DIR/ksd.pid")" "$KS_SOCKET"
run device 2>&1

title 'Secrets: stored, found by walking the table, described'
run secrets store
run secrets list

title 'The service is killed with SIGKILL and started again: nothing is lost'
# From then on it has all reports recorded, for the end of this demo.
printf '\n[trace]\nrecord = [100, 103]\n' >>"$KS_SESSION_DIR/ksd.toml"
before=$(cat "$KS_SESSION_DIR/ksd.pid")
kill -KILL "$before"
run secrets list
printf '  these came from process %s, after %s was killed\n' "$(cat "$KS_SESSION_DIR/ksd.pid")" "$before"

title 'A backup, taken while the service goes on and sealed under a passphrase, and read again to see that it is whole'
backup="$KS_SESSION_DIR/demo-$$.backup"
trap 'rm -f "$backup"' EXIT
for step in "backup $backup --passphrase-cost interactive" "restore $backup --verify"; do
  # shellcheck disable=SC2086 # the words of a command
  printf '  ksctl %s\n    %s\n' "$step" "$("$build/ksctl" --json $step --passphrase-fd 3 3<<<'correct horse')"
done

title 'Secrets: renamed and cleared'
run secrets rename
run secrets clear

title 'Cryptography on keys that never leave the service'
run crypto

title 'The same from a shell: a secret by a pipe, a PAC from a supplicant, a code in words'
ksctl() { "$build/ksctl" "$@"; }
printf 'correct horse battery staple' | ksctl secret put wifi-psk --metadata ssid=attic
ksctl secret list
(umask 077 && printf '%s\n' 'wpa_supplicant EAP-FAST PAC file - version 1' START "PAC-Key=$(printf '%064d' 1)" \
  PAC-Opaque=0a0b0c PAC-Info=000300047fff000800050005616c696365 A-ID=6174746963 END >"$KS_SESSION_DIR/pacs")
ksctl pac import "$KS_SESSION_DIR/pacs"
ksctl pac list
ksctl context clear --yes
ksctl explain KS_NOT_FOUND

if [ -e "$build/python/ks/_native.abi3.so" ]; then
  title 'The same from Python'
  PYTHONPATH="$build/python" /usr/bin/python3 -B "$examples/../bindings/python/examples/keystore.py"
fi

title 'A RADIUS client whose shared secret is in the keystore, and a server that has it in the clear'
if command -v python3 >/dev/null; then
  printf xyzzy5461 | ksctl secret put radius
  coproc peer { exec python3 "$examples/../tests/radius/peer.py" xyzzy5461 alice clientPass; }
  server=$!
  read -r port <&"${peer[0]}"
  printf clientPass | run radius_client "127.0.0.1:$port" radius alice
  printf clientPast | run radius_client "127.0.0.1:$port" radius alice || printf 'status %s\n' $?
  eval "exec ${peer[1]}>&-" # the server serves until then
  wait "$server"
else
  printf '  left out: the server needs python3, which is not there\n'
fi

title 'The PAC cache: written by one process, read by another, emptied by a third'
run cache write
run cache read
run cache purge

title 'PACs: what each step costs in messages to the keystore'
run pac

title 'A PAC with a time and a name, stored and read warm by ks.hpp and by its library for C'
run pac_expiry | sed 's/^/  /'
run pac_expiry_in_c | sed 's/^/  /'

title 'What the service says of itself, what a look at everything finds, and what the programs did'
"$build/ksctl" status
"$build/ksctl" doctor --config "$KS_SESSION_DIR/ksd.toml"
"$build/ksctl" history --timeline --last 24

printf '\nDone. What was shown is in examples/; ./dev help lists what else there is.\n'
