# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

ksctl backup b --passphrase-cost interactive <<<secret
ksctl restore b --verify --json <<<secret
for _ in first second; do
  ksctl restore b --vault "$PWD/copy.db" --master-key-file "$PWD/copy.key" --json <<<secret
done
