// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// One user in a storm of requests or connections, and another who wants little: the other is served all the while.
// Nothing is asserted of time. KS_HOSTILE_MEASURE=1 measures instead what the other sees.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>
#include <thread>

#include "service/service_process.h"
#include "storms.h"

namespace {

using ks_test::Datagram;
using ks_test::RawClient;
using ks_test::ServiceProcess;
using ks_test::ServiceSetup;
using Clock = std::chrono::steady_clock;

constexpr uid_t kAttacker = 23456;

ServiceSetup two_users() {
  ServiceSetup setup;
  setup.config = "[[vdc]]\nid = 7\nusers = [0]\n[[vdc]]\nid = 8\nusers = [23456]\n";
  return setup;
}

std::chrono::milliseconds time_of_each(int usual_ms) {
  const char *seconds = std::getenv("KS_HOSTILE_SECONDS");
  return std::chrono::milliseconds(seconds != nullptr ? std::atoi(seconds) * 1000 : usual_ms);
}

// The quiet user. FIPS 197, appendix C.1, is what it computes.
class Quiet {
 public:
  explicit Quiet(const ServiceProcess &service) : service_(service), client_(service.socket()) {
    Datagram key;
    for (uint8_t i = 0; i < 16; ++i) key.push_back(i);
    EXPECT_TRUE(client_.send(storms::store_secret(7, "quiet", key)));
    EXPECT_EQ(client_.receive()->result(), 1u);
  }

  void encrypts() {
    const Datagram plain{0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                         0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
    ASSERT_TRUE(client_.send(storms::aes_ecb(7, "quiet", plain)));
    EXPECT_THAT(client_.receive()->data(), testing::ElementsAre(0x69, 0xc4, 0xe0, 0xd8, 0x6a, 0x7b, 0x04, 0x30, 0xd8,
                                                                0xcd, 0xb7, 0x80, 0x70, 0xb4, 0xc5, 0x5a));
  }
  void stores() {
    ASSERT_TRUE(client_.send(storms::store_secret(7, "other", {1, 2, 3})));
    EXPECT_EQ(client_.receive()->result(), 1u);
  }
  void connects() {
    RawClient another(service_.socket());
    EXPECT_EQ(another.hello().vdc_id, 7u);
  }

 private:
  const ServiceProcess &service_;
  RawClient client_;
};

class Crowd : public testing::TestWithParam<storms::Storm> {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to be two users";
  }
};

TEST_P(Crowd, LeavesAnotherUserServed) {
  ServiceProcess service(two_users());
  storms::prepare(kAttacker, service.socket());
  Quiet quiet(service);
  const storms::Attackers attackers(kAttacker, service.socket(), GetParam(), 40);
  const auto end = Clock::now() + time_of_each(200);
  do {
    quiet.encrypts();
    quiet.stores();
    quiet.connects();
  } while (Clock::now() < end && !HasFailure());
}

std::string test_name(const testing::TestParamInfo<storms::Storm> &info) {
  std::string name = info.param.name;
  name.erase(std::remove_if(name.begin(), name.end(), [](char c) { return std::isalnum(c) == 0; }), name.end());
  return name;
}

INSTANTIATE_TEST_SUITE_P(Of, Crowd, testing::ValuesIn(storms::all()), test_name);

// The service's threads, by their numbers.
std::set<std::string> threads_of(const ServiceProcess &service) {
  std::set<std::string> threads;
  for (const auto &one : std::filesystem::directory_iterator("/proc/" + std::to_string(service.pid()) + "/task")) {
    threads.insert(one.path().filename());
  }
  return threads;
}

TEST(Threads, ServeOneConnectionAfterTheOther) {
  const ServiceProcess service;
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    RawClient client(service.socket());
    client.hello();
    seen.merge(threads_of(service));
  }
  EXPECT_LT(seen.size(), 50u);  // a thread that isn't through yet with its last one gets company, now and then
}

TEST(Threads, WaitForConnectionsInASmallNumber) {
  const ServiceProcess service;
  const size_t before = threads_of(service).size();
  {
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < 60; ++i) {
      clients.push_back(std::make_unique<RawClient>(service.socket()));
      clients.back()->hello();
    }
    EXPECT_EQ(threads_of(service).size(), before + 60);
  }
  const auto limit = Clock::now() + std::chrono::seconds(30);
  while (threads_of(service).size() > before + 16 && Clock::now() < limit) std::this_thread::yield();
  EXPECT_EQ(threads_of(service).size(), before + 16);
}

// What the scheduler was asked for. Kernels before 6.12 don't tell.
TEST(Threads, HaveShortTurns) {
  const ServiceProcess service;
  RawClient client(service.socket());
  client.hello();
  if (sched_getscheduler(0) != SCHED_OTHER) GTEST_SKIP() << "the service keeps what it was started with";
  for (const std::string &thread : threads_of(service)) {
    std::array<uint64_t, 6> attributes{};  // the fourth is the length of a turn
    if (syscall(SYS_sched_getattr, std::stoi(thread), attributes.data(), sizeof attributes, 0) != 0) GTEST_SKIP();
    if (attributes[3] == 0) GTEST_SKIP() << "this kernel has no turns of other lengths";
    EXPECT_EQ(attributes[3], 100'000u);
  }
}

// The user wants little: without a pause it would be busy itself, and have its own share of the processors to wait for.
constexpr std::chrono::milliseconds kPause(2);

template <typename Deed>
void measure(Deed deed) {
  std::vector<double> times;
  const auto end = Clock::now() + time_of_each(1000);
  while (Clock::now() < end) {
    const auto start = Clock::now();
    deed();
    times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    std::this_thread::sleep_for(kPause);
  }
  std::sort(times.begin(), times.end());
  std::printf(" %8.3f %8.3f", times[times.size() / 2], times[times.size() * 99 / 100]);
}

void measure_all(ServiceProcess &service, const char *name) {
  Quiet quiet(service);
  std::printf("%-24s", name);
  measure([&] { quiet.encrypts(); });
  measure([&] { quiet.connects(); });
  measure([&] { quiet.stores(); });
  std::printf("\n");
  std::fflush(stdout);
}

TEST(Measure, WhatAnotherUserSees) {
  if (std::getenv("KS_HOSTILE_MEASURE") == nullptr) GTEST_SKIP() << "only with KS_HOSTILE_MEASURE=1";
  const char *wanted = std::getenv("KS_HOSTILE_MEASURE");
  std::printf("ms, p50 and p99 of       AES of 16 bytes  connect and hello          a store\n");
  for (const storms::Storm &storm : storms::all()) {
    if (std::string(wanted) != "1" && storm.name.find(wanted) == std::string::npos) continue;
    ServiceProcess service(two_users());
    storms::prepare(kAttacker, service.socket());
    measure_all(service, "nobody else");
    const storms::Attackers attackers(kAttacker, service.socket(), storm, 250);
    measure_all(service, storm.name.c_str());
  }
}

}  // namespace
