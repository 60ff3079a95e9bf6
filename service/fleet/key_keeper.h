// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// key_keeper.h: where a machine's master keys live, while they are changed.
#ifndef SERVICE_FLEET_KEY_KEEPER_H
#define SERVICE_FLEET_KEY_KEEPER_H

#include <string>

#include "base/secret_bytes.h"

namespace ksd::fleet {

// KeyKeeper has keys be there at the next start. Each gives what stands in the way, for people and with what to do, or
// nothing when it is done, also for a machine that is switched off right after.
class KeyKeeper {
 public:
  // keep_next puts the next key beside the present one, in the place of another next one: not before `present`, the key
  // of the fleet, is in its own place, for it may be that other one.
  virtual std::string keep_next(const SecretBytes &next, const SecretBytes &present) = 0;

  // use puts the next key in the place of the present one. It is done already when that is the key.
  virtual std::string use(const SecretBytes &key) = 0;

 protected:
  ~KeyKeeper() = default;
};

}  // namespace ksd::fleet

#endif
