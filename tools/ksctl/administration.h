// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// administration.h: what the commands for administrators share: replies taken apart, users in words.
#ifndef TOOLS_KSCTL_ADMINISTRATION_H
#define TOOLS_KSCTL_ADMINISTRATION_H

#include <array>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "service_link.h"
#include "value.h"

namespace ksctl {

// text_in gives the text in a field of fixed size.
template <size_t size>
std::string text_in(const char (&field)[size]) {
  return {field, strnlen(field, size)};
}

// user_name gives the name of a user, null for one without; the users without a VDC are "(unmapped)".
Value user_name(uint32_t uid);

template <typename Head, typename Record>
struct Records {
  Head head;
  std::vector<Record> records;
};

[[noreturn]] void refuse_cut_reply();

// records_of takes a reply apart whose head has a `count` of records that follow it. Failure kFailed for one that
// holds fewer.
template <typename Head, typename Record>
Records<Head, Record> records_of(const std::vector<uint8_t> &payload) {
  Records<Head, Record> reply;
  if (payload.size() < sizeof reply.head) refuse_cut_reply();
  std::memcpy(&reply.head, payload.data(), sizeof reply.head);
  if ((payload.size() - sizeof reply.head) / sizeof(Record) < reply.head.count) refuse_cut_reply();
  reply.records.resize(reply.head.count);
  if (reply.head.count != 0) {
    std::memcpy(reply.records.data(), payload.data() + sizeof reply.head, reply.head.count * sizeof(Record));
  }
  return reply;
}

// is_of_fleet tells whether the service shares the entries of a fleet, and so has no vault of its own.
bool is_of_fleet(ServiceLink &link);

// FleetOwners has the names by which users own entries of a fleet, from their numbers. A service that keeps its entries
// alone has none.
class FleetOwners {
 public:
  explicit FleetOwners(ServiceLink &link);

  bool is_known() const { return is_known_; }  // whether the service is one of a fleet

  // name gives the fleet's name for a number, or null.
  Value name(uint32_t uid) const;

  // is_user tells whether the number is that of a user of this machine; else it stands for the name alone.
  bool is_user(uint32_t uid) const;

 private:
  bool is_known_ = false;
  std::map<uint32_t, HostFleetOwner> owners_;
};

// ask_for_all gives all records of a list, page by page.
template <typename Record>
std::vector<Record> ask_for_all(ServiceLink &link, uint32_t opcode) {
  std::vector<Record> all;
  for (uint32_t from = 0;;) {
    std::array<uint8_t, sizeof from> descriptor;
    std::memcpy(descriptor.data(), &from, sizeof from);
    const auto page = records_of<HostPageReply, Record>(link.ask(opcode, descriptor));
    if (page.head.record_size != sizeof(Record)) refuse_cut_reply();
    all.insert(all.end(), page.records.begin(), page.records.end());
    if (page.head.more == 0 || page.records.empty() || all.back().uid == UINT32_MAX) return all;
    from = all.back().uid + 1;
  }
}

}  // namespace ksctl

#endif
