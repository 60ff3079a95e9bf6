# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

fingerprint=$(ksctl fleet request request --join-key-file join.key | sed -n 's/^fingerprint[[:space:]]*//p')
head -c 32 /dev/urandom >fleet.key
chmod 600 fleet.key
fingerprint=$(ksctl fleet admit request answer --fingerprint "$fingerprint" --master-key-file fleet.key |
  sed -n 's/^fingerprint[[:space:]]*//p')
ksctl fleet join answer --fingerprint "$fingerprint" --join-key-file join.key --master-key-file own.key --json
