// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// fixture.h: what tests of fleets have in common.
#ifndef TESTS_SERVICE_FLEET_FIXTURE_H
#define TESTS_SERVICE_FLEET_FIXTURE_H

#include <chrono>
#include <memory>
#include <vector>

#include "base/secret_bytes.h"
#include "fleet/restore.h"
#include "vault/seal.h"

namespace ksd::fleet {

constexpr std::chrono::seconds kSoon{20};  // on a machine with much else to do

using RestoreState = Restore::Progress::State;

inline std::shared_ptr<const SecretBytes> master_key(uint8_t fill = 7) {
  return SecretBytes::copy_of(std::vector<uint8_t>(vault::kMasterKeySize, fill));
}

}  // namespace ksd::fleet

#endif
