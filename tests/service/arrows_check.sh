#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

# arrows_check.sh SERVICE_FOLDER: the rooms of the service use each other in one direction only. This fails for an
# include that goes against it, for a file that stands in no room, and for a namespace that isn't its room's.
set -euo pipefail
cd "$1"

# What each room may include: whole rooms, or single files of one.
declare -A allowed=(
  [base]=""
  [config]="base"
  [crypto]="base"
  [vault]="base"
  [fleet]="base vault"
  [handlers]="base crypto vault/store.h"
  [link]="base fleet/engine.h"
  [engine]="base fleet/engine.h link"
  [server]="base config crypto vault fleet link handlers"
)

status=0
report() {
  echo "$*"
  status=1
}

may_include() { # ROOM INCLUDED
  local room=$1 included=$2 right
  for right in "$room" ${allowed[$room]}; do
    case $included in "$right" | "$right"/*) return 0 ;; esac
  done
  return 1
}

while read -r file; do
  room=${file%%/*}
  if [ "$room" = "$file" ] || [ -z "${allowed[$room]+room}" ]; then
    report "$file stands in no room"
    continue
  fi
  while read -r included; do
    # What lies in no room is of the system, of the library's headers or of the platform's.
    [ -e "$included" ] || [ -e "${file%/*}/$included" ] || continue
    may_include "$room" "$included" || report "$file includes $included: $room may use: ${allowed[$room]:-nothing}"
  done < <(sed -nE 's/^ *# *include *["<]([^">]+)[">].*/\1/p' "$file")
  space="ksd::$room"
  [ "$room" != base ] || space=ksd
  while read -r found; do
    [ "$found" = "$space" ] || report "$file opens namespace $found: the room's is $space"
  done < <(sed -nE 's/^namespace (ksd[a-z:]*) \{.*/\1/p' "$file")
done < <(find . -name '*.cc' -o -name '*.h' | sed 's|^\./||' | sort)
exit $status
