// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// strike.h: takes out of a datagram what a capture must not hold, and leaves its length.
#ifndef TOOLS_KSCTL_STRIKE_H
#define TOOLS_KSCTL_STRIKE_H

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "base/bytes.h"
#include "host_wire.h"
#include "messages.h"

namespace ksctl {

using Datagram = std::vector<uint8_t>;

// What a byte that was struck out is replaced with.
inline constexpr uint8_t kStruckOut = '*';

// Striker goes along with one connection: what a reply holds, its request tells.
class Striker {
 public:
  Datagram request(ksd::Bytes datagram);
  Datagram reply(ksd::Bytes datagram);

 private:
  struct Asked {
    const Message *message;
    bool of_secret;  // what it names is a secret, and no PAC
  };

  std::map<uint32_t, Asked> asked_;  // by token
};

}  // namespace ksctl

#endif
