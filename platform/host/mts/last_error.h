// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// last_error.h: why the calling thread's last exchange failed. A failure leaves numbers; words are made when somebody
// asks for them (host_mts.h).
#ifndef MTS_LAST_ERROR_H
#define MTS_LAST_ERROR_H

#include <cstdint>

#include "host_socket.h"

namespace mts {

// Step is what an exchange, or a binding, failed in.
enum class Step : uint8_t {
  kNone,     // it didn't
  kCall,     // arguments that are none, or a queue that isn't bound
  kTake,     // a connection of the pool
  kConnect,  // the making of one
  kSend,
  kReceive,
};

struct Failure {
  Step step;
  host::Obstacle obstacle;  // of kConnect
  uint32_t detail;          // limit in milliseconds with ETIMEDOUT, size with EMSGSIZE, opcode with EBADMSG and EPROTO
  uint32_t error;           // stays when an exchange succeeds
  const char *path;         // of the socket; stays for the life of the process
};

[[gnu::tls_model("initial-exec")]] extern constinit thread_local Failure last_failure;

// forget_failure is for the beginning of a binding or exchange: one store, since each pays for it.
inline void forget_failure() {
  last_failure.step = Step::kNone;
}

}  // namespace mts

#endif
