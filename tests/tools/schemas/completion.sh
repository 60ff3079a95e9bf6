# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

for shell in bash zsh fish; do ksctl completion $shell --json; done
