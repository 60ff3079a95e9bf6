# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

ksctl secret list --json
printf hush | ksctl secret put $'wi\xfffi' --metadata ssid=attic
ksctl secret list --json
