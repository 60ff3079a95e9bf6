# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

printf hush | ksctl secret put wifi
ksctl secret rm wifi --json
ksctl secret rm wifi --force --json
