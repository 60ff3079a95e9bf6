# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

ksctl stats --json
printf secret | ksctl secret put a >/dev/null
ksctl stats --json
ksctl stats --user "$(id -u)" --json
