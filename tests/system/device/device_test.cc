// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The library over the host platform and a real service: start-up, the messages of the device, and what happens to
// exchanges when one of the two ends stops, dies, forks or comes back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <thread>

#include "ks_api.h"
#include "service/raw_client.h"
#include "service/service_process.h"

namespace {

using ks_test::run_as;
using ks_test::ServiceProcess;
using ks_test::ServiceSetup;

constexpr KsResult kSuccess = 1;
constexpr KsResult kFailure = 2;

constexpr uint8_t kCount = 32;
using Numbers = std::array<uint8_t, kCount>;

KsResult random_numbers(Numbers &numbers) {
  return ks_generate_random_number(numbers.data(), kCount, 0);
}

KsResult random_numbers() {
  Numbers ignored;
  return random_numbers(ignored);
}

// A service of its own, and this process bound to it.
class Device : public testing::Test {
 protected:
  explicit Device(const ServiceSetup &setup = {}) : service(setup) {
    setenv("KS_SOCKET", service.socket().c_str(), 1);
    EXPECT_EQ(ks_init(0, 0x1234, 0), kSuccess);
  }

  ServiceProcess service;
};

class ImpatientDevice : public Device {
 protected:
  ImpatientDevice() : Device(impatient()) {}

 private:
  static ServiceSetup impatient() {
    ServiceSetup setup;
    setup.config = "[service]\nreceive_limit_ms = 1000\n";
    return setup;
  }
};

TEST_F(Device, TellsTheProcessItsVdc) {
  EXPECT_EQ(vdc_id, 7);
  EXPECT_EQ(app_uuid, 0x1234u);
  EXPECT_NE(ks_mts_q, 0xffffffffu);
}

TEST_F(Device, MakesRandomNumbersThatDiffer) {
  Numbers first{};
  Numbers second{};
  EXPECT_EQ(random_numbers(first), kSuccess);
  EXPECT_EQ(random_numbers(second), kSuccess);
  EXPECT_NE(first, second);
}

TEST_F(Device, FillsNoMoreThanWasAskedFor) {
  std::array<uint8_t, 256> numbers{};
  EXPECT_EQ(ks_generate_random_number(numbers.data(), 255, 0xffffffff), kSuccess);
  EXPECT_EQ(numbers[255], 0);
  EXPECT_GT(std::count_if(numbers.begin(), numbers.end(), [](uint8_t byte) { return byte != 0; }), 200);
}

TEST_F(Device, TellsItsVersionAndDumpsTheReply) {
  uint16_t version = 0;
  uint32_t status = 0xffff;
  testing::internal::CaptureStderr();
  const KsResult result = ks_return_fw_version_and_status(&version, &status);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), " 1  0  0  0  3  0  0  1  0 ");
  EXPECT_EQ(result, kSuccess);
  EXPECT_EQ(version, 0x0100);
  EXPECT_EQ(status, 0u);
}

TEST_F(Device, CompactsItsMemory) {
  EXPECT_EQ(ks_compact_fw_memory(), kSuccess);
}

TEST_F(Device, ServesOnAfterARestartThatTheCallerDoesntNotice) {
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(random_numbers(), kSuccess);
    service.restart();
  }
  EXPECT_EQ(random_numbers(), kSuccess);
  EXPECT_EQ(service.stop(), 0);
  service.start();
  EXPECT_EQ(random_numbers(), kSuccess);
}

TEST_F(Device, FailsWhileTheServiceIsGoneAndRecoversWithIt) {
  service.kill();
  Numbers numbers{};
  EXPECT_EQ(random_numbers(numbers), kFailure);
  EXPECT_EQ(numbers, Numbers{});
  service.start();
  EXPECT_EQ(random_numbers(numbers), kSuccess);
}

TEST(NoService, FailsTheStartWhichMayBeTriedAgain) {
  ServiceProcess service;
  setenv("KS_SOCKET", service.socket().c_str(), 1);
  service.stop();
  EXPECT_EQ(ks_init(0, 1, 0), kFailure);
  EXPECT_EQ(ks_mts_q, 0xffffffffu);
  EXPECT_EQ(random_numbers(), kFailure);
  service.start();
  EXPECT_EQ(ks_init(0, 1, 0), kSuccess);
  EXPECT_EQ(random_numbers(), kSuccess);
}

TEST_F(ImpatientDevice, GivesUpOnAServiceThatWasStoppedAndTakesNoLateReply) {
  EXPECT_EQ(random_numbers(), kSuccess);
  service.pause();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(random_numbers(), kFailure);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
  service.resume();
  // Had the late reply to the random numbers been kept, it would be read here.
  EXPECT_EQ(ks_compact_fw_memory(), kSuccess);
  Numbers numbers{};
  EXPECT_EQ(random_numbers(numbers), kSuccess);
  EXPECT_NE(numbers, Numbers{});
}

TEST_F(Device, ServesSixteenThreadsAtOnce) {
  constexpr size_t kThreads = 16;
  constexpr size_t kRounds = 100;
  std::vector<Numbers> numbers(kThreads * kRounds);
  std::vector<std::thread> threads;
  std::atomic<size_t> good{0};
  for (size_t thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (size_t round = 0; round < kRounds; ++round) {
        good += random_numbers(numbers[thread * kRounds + round]) == kSuccess;
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(good, kThreads * kRounds);
  std::sort(numbers.begin(), numbers.end());
  EXPECT_EQ(std::adjacent_find(numbers.begin(), numbers.end()), numbers.end());  // each reply went to one thread
}

TEST_F(Device, ServesChildrenBesideTheirParent) {
  ASSERT_EQ(random_numbers(), kSuccess);  // a connection that the children must not use
  std::vector<pid_t> children;
  for (int i = 0; i < 4; ++i) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      int bad = 0;
      for (int round = 0; round < 100; ++round) bad += random_numbers() != kSuccess;
      _exit(bad);
    }
    children.push_back(child);
  }
  for (int round = 0; round < 100; ++round) EXPECT_EQ(random_numbers(), kSuccess);
  for (const pid_t child : children) {
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
}

TEST_F(Device, OutlivesClientsThatAreKilledHalfWay) {
  for (int i = 0; i < 5; ++i) {
    std::array<int, 2> began{};
    ASSERT_EQ(pipe(began.data()), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      while (random_numbers() == kSuccess) [[maybe_unused]] const ssize_t written = write(began[1], "x", 1);
      _exit(0);
    }
    char byte;
    ASSERT_EQ(read(began[0], &byte, 1), 1);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    for (const int end : began) close(end);
    EXPECT_EQ(random_numbers(), kSuccess);
  }
}

TEST_F(Device, ServesUsersWithoutAVdc) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
  EXPECT_EQ(run_as(23456, 23456,
                   [] {
                     if (ks_init(0, 1, 0) != kSuccess || vdc_id != 0xffff) return 1;
                     return random_numbers() == kSuccess ? 0 : 2;
                   }),
            0);
}

}  // namespace
