# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

ksctl doctor --config "$KS_SESSION_DIR/ksd.toml" --json || true
ksctl doctor --socket /nowhere/socket --json || true
