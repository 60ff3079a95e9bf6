// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "handlers/dispatch.h"

#include <new>

#include "crypto/cleanse.h"
#include "handlers/service.h"

namespace ksd::handlers {
namespace {

constexpr std::array kFamilies{device_rows, secret_rows, crypto_rows, pac_rows};

void run(const Row &row, Service &service, const Request &request, Reply &reply) {
  try {
    row.handler(service, request, reply);
  } catch (const std::bad_alloc &) {
    reply.result(KS_NO_MEMORY);
  } catch (const vault::Unavailable &unavailable) {
    reply.result(unavailable.code());
  } catch (const std::exception &) {
    reply.result(KS_FAILURE);  // counted below; its text might quote the request
  }
}

}  // namespace

Dispatcher::Dispatcher() {
  for (const auto family : kFamilies) add(family());
}

Dispatcher::Dispatcher(std::span<const Row> family) {
  add(family);
}

void Dispatcher::add(std::span<const Row> family) {
  for (const Row &row : family) rows_.at(row.opcode - kFirstOpcode) = &row;
}

bool Dispatcher::answer(Service &service, const Request &request, Reply &reply) const {
  const Row *row = find(request.opcode);
  if (row == nullptr) {
    service.counters.add(Event::kUnknownOpcode);
    reply.result(KS_RPC_ERROR);
    return false;
  }
  reply.reset();
  run(*row, service, request, reply);
  crypto::cleanse_stack();
  if (reply.payload().empty()) reply.result(KS_FAILURE);
  service.counters.message(request.opcode, reply.code() == KS_SUCCESS);
  return true;
}

}  // namespace ksd::handlers
