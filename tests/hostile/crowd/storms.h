// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// storms.h: what one user can do to be a burden to another: many requests of one kind at once, as fast as they go.
#ifndef TESTS_HOSTILE_CROWD_STORMS_H
#define TESTS_HOSTILE_CROWD_STORMS_H

#include <functional>
#include <string>
#include <vector>

#include "service/raw_client.h"

namespace storms {

// Storm is one kind of burden. `turn` is done over and over by each of many threads, with a number of its own.
struct Storm {
  std::string name;
  std::function<void(const std::string &socket, unsigned number)> turn;
};

// all are the storms that there are. They use the entries that prepare makes for a user of VDC 8.
std::vector<Storm> all();
void prepare(uid_t uid, const std::string &socket);

// Attackers are a process of another user with many threads in a storm, until the object goes.
class Attackers {
 public:
  Attackers(uid_t uid, const std::string &socket, const Storm &storm, unsigned threads);
  ~Attackers();
  Attackers(const Attackers &) = delete;
  Attackers &operator=(const Attackers &) = delete;

 private:
  pid_t pid_;
};

// The requests that both sides make.
ks_test::Datagram name_of(uint8_t tag, uint8_t vdc, const std::string &text);
ks_test::Datagram store_secret(uint8_t vdc, const std::string &name, const ks_test::Datagram &secret);
ks_test::Datagram aes_ecb(uint8_t vdc, const std::string &name, const ks_test::Datagram &data);

}  // namespace storms

#endif
