// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// handler.h: a handler of messages, and the families of them.
#ifndef SERVICE_HANDLERS_HANDLER_H
#define SERVICE_HANDLERS_HANDLER_H

#include <cstdint>
#include <span>

#include "handlers/reply.h"
#include "handlers/request.h"

namespace ksd::handlers {

class Service;  // what all handlers share (service.h)

using Handler = void (*)(Service &, const Request &, Reply &);

// Work is what a message costs: computing time, or a wait for the disk.
enum class Work { kCompute, kChange };

// Row is one message of the decoder table.
struct Row {
  uint32_t opcode;
  const char *name;  // for logs and counters
  Handler handler;
  Work work = Work::kCompute;
};

// Each family of messages brings its rows; the dispatcher puts them together.
std::span<const Row> device_rows();
std::span<const Row> secret_rows();
std::span<const Row> crypto_rows();
std::span<const Row> pac_rows();

}  // namespace ksd::handlers

#endif
