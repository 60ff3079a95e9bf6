# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

printf '[limits]\nentries = 1\n' > good.toml
ksctl config check good.toml --json || true
printf '[service]\nport = 1\n' > bad.toml
ksctl config check bad.toml --json || true
