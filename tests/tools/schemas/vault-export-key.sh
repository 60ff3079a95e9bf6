# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

ksctl backup b --passphrase-cost interactive <<<secret >/dev/null
ksctl restore b --vault "$PWD/copy.db" --master-key-file "$PWD/copy.key" <<<secret >/dev/null
ksctl vault export-key sealed --master-key-file copy.key --passphrase-cost interactive --json <<<secret
