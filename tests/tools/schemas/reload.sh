# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

ksctl reload --json
printf '[service]\nport = 1\n' >> "$KS_SESSION_DIR/ksd.toml"
ksctl reload --json || true
