// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Programs over the library whose connections have channels, and what happens to them and their service.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "content_of.h"
#include "ks_api.h"
#include "leave.h"
#include "service/raw_client.h"
#include "service/service_process.h"
#include "setup.h"

namespace {

using ks_test::ProgramRun;
using ks_test::RawClient;
using ks_test::run_program;
using ks_test::ServiceProcess;

constexpr int kEnough = 40;  // exchanges, for a connection to have a channel

bool exchange() {
  uint8_t random[16];
  return ks_generate_random_number(random, sizeof random, 0) == KS_SUCCESS;
}

class Library : public testing::Test {
 protected:
  explicit Library(const std::string &limits = "") : service(setup_with(limits)) {
    setenv("KS_SOCKET", service.socket().c_str(), 1);
    EXPECT_EQ(ks_init(0, 1, 0), KS_SUCCESS);
  }

  // How many channels the service counts, and how many it allows.
  HostLimitRecord channels() const {
    RawClient administrator(service.socket());
    const ks_test::Datagram limits = administrator.exchange(HOST_OP_LIMITS, {}).payload;
    HostLimitRecord record{};
    for (size_t at = sizeof(HostLimitsReply); at + sizeof record <= limits.size(); at += sizeof record) {
      std::memcpy(&record, limits.data() + at, sizeof record);
      if (std::string(record.key) == "channels") break;
    }
    return record;
  }

  ServiceProcess service;
};

TEST_F(Library, HasAChannelAfterSomeExchanges) {
  EXPECT_TRUE(exchange());
  EXPECT_EQ(channels().used, 0u) << "a short-lived program doesn't pay for one";
  for (int i = 0; i < kEnough; ++i) ASSERT_TRUE(exchange());
  EXPECT_EQ(channels().used, 1u);
  EXPECT_EQ(channels().limit, 1024u);
}

class LibraryWithoutChannels : public Library {
 protected:
  LibraryWithoutChannels() : Library("channels = 0\n") {}
};

TEST_F(LibraryWithoutChannels, GoesOnByTheSocket) {
  for (int i = 0; i < 3 * kEnough; ++i) ASSERT_TRUE(exchange());
  EXPECT_EQ(channels().used, 0u);
}

bool is_mapped() {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find("ks-channel") != std::string::npos) return true;
  }
  return false;
}

TEST_F(Library, KeepsItsChannelToItself) {
  for (int i = 0; i < kEnough; ++i) ASSERT_TRUE(exchange());
  EXPECT_TRUE(is_mapped());
  const pid_t child = fork();
  if (child == 0) ks_test::leave(!is_mapped() && exchange() ? 0 : 1);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << "the child has none of the memory, and a connection of its own";
  EXPECT_TRUE(exchange());
  EXPECT_EQ(channels().used, 1u);
}

// It is killed wherever it happens to be behind a reply.
TEST_F(Library, FindsAServiceThatWasKilledBetweenExchanges) {
  for (int round = 0; round < 10; ++round) {
    for (int i = 0; i < kEnough; ++i) ASSERT_TRUE(exchange()) << round;
    service.kill();
    service.start();
    ASSERT_TRUE(exchange()) << round;
  }
}

TEST_F(Library, FindsAServiceThatEndedInOrderBetweenExchanges) {
  for (int round = 0; round < 5; ++round) {
    for (int i = 0; i < kEnough; ++i) ASSERT_TRUE(exchange()) << round;
    ASSERT_EQ(service.stop(), 0);
    service.start();
    ASSERT_TRUE(exchange()) << round;
  }
}

// Each store of which the library says that it was done is there.
TEST_F(Library, ServiceEndsInOrderUnderThreadsThatStore) {
  for (int i = 0; i < kEnough; ++i) ASSERT_TRUE(exchange());
  std::atomic<bool> stop = false;
  std::vector<std::thread> threads;
  std::vector<int> stored(4);
  for (size_t thread = 0; thread < stored.size(); ++thread) {
    threads.emplace_back([&, thread] {
      while (!stop) {
        const std::string name = std::to_string(thread) + "-" + std::to_string(stored[thread]);
        const uint8_t secret[] = {1, 2, 3};
        if (ks_store_secret_and_metadata(name.c_str(), nullptr, secret, sizeof secret, nullptr, 0) != KS_SUCCESS) break;
        ++stored[thread];
      }
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(service.stop(), 0);
  stop = true;
  for (std::thread &thread : threads) thread.join();
  service.start();
  for (size_t thread = 0; thread < stored.size(); ++thread) {
    EXPECT_GT(stored[thread], 16) << "some of them by a channel";
    for (int i = 0; i < stored[thread]; ++i) {
      const std::string name = std::to_string(thread) + "-" + std::to_string(i);
      uint32_t exists = 0;
      EXPECT_EQ(ks_secret_exists(name.c_str(), &exists), KS_SUCCESS);
      EXPECT_EQ(exists, 1u) << name;
    }
  }
}

// Around the sizes of the areas, where datagrams go one way or the other.
TEST_F(Library, ResultsDontDependOnTheWay) {
  const uint8_t key[32] = {1, 2, 3};
  ASSERT_EQ(ks_store_secret_and_metadata("key", nullptr, key, sizeof key, nullptr, 0), KS_SUCCESS);
  for (int i = 0; i < kEnough; ++i) ASSERT_TRUE(exchange());
  constexpr uint16_t kSizes[] = {16,   1024, 7968, 7984, 8000, 8016, 8032,  8048,
                                 8064, 8144, 8160, 8176, 8192, 16,   64'000};
  for (const uint16_t size : kSizes) {
    std::vector<uint8_t> plain(size, static_cast<uint8_t>(size / 16)), sealed(size), opened(size);
    uint8_t iv[16] = {9}, same_iv[16] = {9};
    ASSERT_EQ(ks_aes_cbc_encrypt("key", iv, plain.data(), size, sealed.data()), KS_SUCCESS) << size;
    ASSERT_EQ(ks_aes_cbc_decrypt("key", same_iv, sealed.data(), size, opened.data()), KS_SUCCESS) << size;
    EXPECT_EQ(opened, plain) << size;
    EXPECT_NE(sealed, plain) << size;
  }
  EXPECT_EQ(channels().used, 1u);
}

// Run by the test below as the command that is captured.
TEST(AProgram, DISABLED_HasManyExchanges) {
  ASSERT_EQ(ks_init(0, 1, 0), KS_SUCCESS);
  for (int i = 0; i < kEnough; ++i) ASSERT_TRUE(exchange());
}

TEST_F(Library, ExchangesAreCapturedThoughThereIsAChannel) {
  const std::string file = service.folder() + "/capture";
  const ProgramRun run = run_program({KS_SERVICE_DIR "/ksctl", "capture", file, "--",
                                      std::filesystem::read_symlink("/proc/self/exe").string(),
                                      "--gtest_also_run_disabled_tests", "--gtest_filter=AProgram.*"});
  EXPECT_EQ(run.status, 0) << run.output << run.errors;
  const std::string bytes = ks_test::content_of(file), request("kws1\1\0\10\0\1\4\1\0", 12);
  int found = 0;
  for (size_t at = bytes.find(request); at != std::string::npos; at = bytes.find(request, at + 1)) ++found;
  EXPECT_EQ(found, kEnough);
}

}  // namespace
