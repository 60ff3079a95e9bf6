// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "operations.h"

namespace contract {

std::vector<Operation> all_operations() {
  std::vector<Operation> all;
  for (const auto &family : {
           device_operations(),
           crypto_operations(),
           pac_operations(),
           secret_operations(),
       }) {
    all.insert(all.end(), family.begin(), family.end());
  }
  return all;
}

}  // namespace contract
