# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

ksctl status --json
printf '[service]\nport = 1\n' >> "$KS_SESSION_DIR/ksd.toml"
ksctl reload >/dev/null 2>&1 || true
ksctl status --json
