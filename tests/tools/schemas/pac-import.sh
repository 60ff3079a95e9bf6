# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

. "${0%/*}/three_pacs.inc"
ksctl pac import pacs --json || true
ksctl pac import pacs --with-expired --replace --json
