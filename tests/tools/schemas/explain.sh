# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

ksctl explain 12 --json
ksctl explain 0x411a0002 --json
ksctl explain --json
ksctl explain --page --json
