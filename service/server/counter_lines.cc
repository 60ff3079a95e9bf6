// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "server/counter_lines.h"

#include <fmt/format.h>

#include <utility>

#include "handlers/dispatch.h"

namespace ksd::server {
namespace {

constexpr std::pair<Event, const char *> kEvents[] = {
    {Event::kConnected, "connections"},
    {Event::kRefusedConnection, "refused connections"},
    {Event::kMalformed, "malformed datagrams"},
    {Event::kTooLarge, "datagrams that were too large"},
    {Event::kForeignDatagram, "datagrams of another protocol"},
    {Event::kUnknownOpcode, "unknown opcodes"},
    {Event::kForeignName, "names of other VDCs"},
    {Event::kUnread, "unread replies"},
    {Event::kAdministration, "messages of administrators"},
};
static_assert(std::size(kEvents) == static_cast<size_t>(Event::kCount));

std::string joined(const char *head, const std::vector<std::string> &parts) {
  return fmt::format("{}: {}", head, fmt::join(parts, ", "));
}

}  // namespace

std::vector<std::string> counter_lines(const Counters &counters) {
  const handlers::Dispatcher dispatcher;
  std::vector<std::string> messages;
  for (uint32_t opcode = kFirstOpcode; opcode <= kLastOpcode; ++opcode) {
    const handlers::Row *row = dispatcher.find(opcode);
    if (row == nullptr) continue;
    const uint64_t done = counters.done(opcode);
    const uint64_t failed = counters.failed(opcode);
    if (done != 0 && failed == 0) messages.push_back(fmt::format("{} {}", row->name, done));
    if (failed != 0) messages.push_back(fmt::format("{} {} and {} failed", row->name, done, failed));
  }
  std::vector<std::string> events;
  for (const auto &[event, name] : kEvents) {
    if (const uint64_t count = counters.total(event); count != 0) events.push_back(fmt::format("{} {}", name, count));
  }
  std::vector<std::string> lines;
  lines.push_back(messages.empty() ? "no messages" : joined("messages", messages));
  if (!events.empty()) lines.push_back(joined("events", events));
  return lines;
}

}  // namespace ksd::server
