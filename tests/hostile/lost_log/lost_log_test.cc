// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Files of the vault that are damaged, cut or gone after a kill under load: a service that starts on them has all that
// it acknowledged, and one that hasn't doesn't start. KS_HOSTILE_TRIALS sets the number of trials.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <stdexcept>
#include <thread>

#include "service/raw_client.h"
#include "service/service_process.h"

namespace {

using ks_test::Datagram;
using ks_test::RawClient;
using ks_test::ServiceProcess;
using testing::HasSubstr;

constexpr uint32_t kStoreSecret = 0x10402, kExists = 0x10405, kSuccess = 1;
constexpr int kClients = 3, kStoresOfEach = 12;

Datagram wire_name(const std::string &name) {
  Datagram bytes{0x30, 0, 0, 7};
  bytes.insert(bytes.end(), name.begin(), name.end());
  return bytes;
}

uint8_t low(size_t n) {
  return static_cast<uint8_t>(n);
}

uint32_t store(RawClient &client, const std::string &name) {
  Datagram sections = wire_name(name);
  const size_t name_len = sections.size(), at = 12 + name_len;
  sections.push_back('s');
  return client
      .exchange(kStoreSecret, {low(name_len), 12, 0, low(at), 1, 0, low(at), 0, 0, 0, low(at + 1), 0}, sections)
      .result();
}

bool is_there(RawClient &client, const std::string &name) {
  const Datagram section = wire_name(name);
  return client.exchange(kExists, {low(section.size()), 2}, section).result() == kSuccess;
}

// run_and_kill gives what was acknowledged when the service was killed amid further stores.
std::set<std::string> run_and_kill(ServiceProcess &service) {
  std::array<std::set<std::string>, kClients> acknowledged;
  std::atomic<int> warm{0};
  std::vector<std::jthread> clients;
  for (int c = 0; c < kClients; ++c) {
    clients.emplace_back([&, c] {
      try {
        RawClient client(service.socket());
        for (int n = 0;; ++n) {
          const std::string name = std::to_string(c) + "-" + std::to_string(n);
          if (store(client, name) == kSuccess) acknowledged[static_cast<size_t>(c)].insert(name);
          if (n == kStoresOfEach) ++warm;
        }
      } catch (const std::runtime_error &) {  // the service is gone
        warm += kClients;
      }
    });
  }
  while (warm < kClients) std::this_thread::yield();
  service.kill();
  clients.clear();
  std::set<std::string> all;
  for (const auto &one : acknowledged) all.insert(one.begin(), one.end());
  return all;
}

// damage does one of the things that happen to a log, and says which.
std::string damage(const std::string &log, unsigned how, std::mt19937 &random) {
  const auto size = static_cast<size_t>(std::filesystem::file_size(log));
  const size_t at = random() % size;
  if (how % 3 == 0) {
    std::filesystem::remove(log);
    return "removed";
  }
  if (how % 3 == 1) {
    std::filesystem::resize_file(log, at);
    return "cut to " + std::to_string(at) + " of " + std::to_string(size);
  }
  std::fstream file(log, std::ios::binary | std::ios::in | std::ios::out);
  file.seekg(static_cast<std::streamoff>(at));
  const char byte = static_cast<char>(file.get());
  file.seekp(static_cast<std::streamoff>(at));
  file.put(static_cast<char>(byte ^ (1 << random() % 8)));
  return "a bit flipped at " + std::to_string(at) + " of " + std::to_string(size);
}

TEST(LostLog, IsNeverServedAsFewerEntries) {
  const char *wanted = std::getenv("KS_HOSTILE_TRIALS");
  const int trials = wanted == nullptr ? 9 : std::atoi(wanted);
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  int refused = 0;
  for (int trial = 0; trial < trials; ++trial) {
    ServiceProcess service;
    const std::set<std::string> acknowledged = run_and_kill(service);
    ASSERT_GT(acknowledged.size(), size_t{kClients});
    SCOPED_TRACE(damage(service.vault() + "-wal", static_cast<unsigned>(trial), random));
    try {
      service.start();
    } catch (const std::runtime_error &) {
      ++refused;
      EXPECT_THAT(service.log(), HasSubstr("--accept-loss"));
      continue;
    }
    RawClient client(service.socket());
    for (const std::string &name : acknowledged) EXPECT_TRUE(is_there(client, name)) << name << " is missing";
  }
  EXPECT_GE(refused, trials / 2);
}

TEST(LostLog, IsNoCopyOfTheVaultAlone) {
  ServiceProcess service, other;
  RawClient client(service.socket());
  ASSERT_EQ(store(client, "a"), kSuccess);
  ASSERT_EQ(other.stop(), 0);
  const auto overwrite = std::filesystem::copy_options::overwrite_existing;
  std::filesystem::copy_file(service.vault(), other.vault(), overwrite);
  std::filesystem::copy_file(service.master_key_file(), other.master_key_file(), overwrite);
  EXPECT_THROW(other.start(), std::runtime_error);
  EXPECT_THAT(other.log(), HasSubstr(other.vault() + "-wal: it is missing or empty, and the vault was in use"));
}

}  // namespace
