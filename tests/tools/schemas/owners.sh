# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

ksctl owners --json
printf secret | ksctl secret put a >/dev/null
ksctl owners --json
