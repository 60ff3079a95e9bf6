# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

printf hush | ksctl secret put wifi --metadata ssid=attic --json
printf hush | ksctl secret put wifi --replace --json
