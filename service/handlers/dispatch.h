// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// dispatch.h: the decoder table of all messages, and the step from an opcode to its handler.
#ifndef SERVICE_HANDLERS_DISPATCH_H
#define SERVICE_HANDLERS_DISPATCH_H

#include <array>

#include "base/counters.h"
#include "handlers/handler.h"

namespace ksd::handlers {

class Dispatcher {
 public:
  Dispatcher();                                      // of all families
  explicit Dispatcher(std::span<const Row> family);  // of one

  // find gives the row of `opcode`, or null when there is none.
  const Row *find(uint32_t opcode) const {
    const uint32_t position = opcode - kFirstOpcode;  // wraps for smaller ones
    return position < rows_.size() ? rows_[position] : nullptr;
  }

  // answer has the request handled and leaves a reply in every case: KS_RPC_ERROR for an unknown opcode, and a failure
  // when the handler ran out of memory or broke off. Gives false for an unknown opcode.
  bool answer(Service &service, const Request &request, Reply &reply) const;

 private:
  void add(std::span<const Row> family);

  std::array<const Row *, kOpcodeCount> rows_{};
};

}  // namespace ksd::handlers

#endif
