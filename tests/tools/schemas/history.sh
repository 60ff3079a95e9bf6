# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

printf secret | ksctl secret put a >/dev/null
ksctl history --json
ksctl history --list --json
ksctl history --timeline --json
ksctl history --html page.html --json
