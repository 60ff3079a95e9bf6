// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// kill -9 at random instants under load: what was acknowledged is there afterwards, and nothing half done is.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <thread>

#include "random_input.h"
#include "vault_files/vault_files.h"

namespace ksd::vault {
namespace {

constexpr int kThreads = 3;
constexpr int kNames = 6;  // per thread, which alone touches them

// Content of a name: 0 for none, else the number that its secret and metadata are made of.
using Content = uint32_t;

// A message of a writing thread: what it is about to do, or that this was answered with success. Smaller than PIPE_BUF,
// so that it is in the pipe as a whole or not at all, and stays there when the writer is killed.
struct Message {
  uint8_t thread, name;
  bool acknowledged;
  Content content;
};

std::string name_of(int thread, int name) {
  return "t" + std::to_string(thread) + "n" + std::to_string(name);
}

std::string secret_of(Content content) {
  return "secret-" + std::to_string(content);
}

// Long ones spread over several pages, so that there is something to be half done.
std::string metadata_with(Content content) {
  std::string text = "meta-" + std::to_string(content) + "-";
  while (text.size() < (content % 4) * 3000) text += text;
  return text;
}

[[noreturn]] void write_until_killed(const VaultOptions &options, int pipe, unsigned seed) {
  const std::unique_ptr<Vault> vault = open_vault(options);
  std::vector<std::jthread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 random(seed * kThreads + static_cast<unsigned>(t));
      for (;;) {
        Message message{.thread = static_cast<uint8_t>(t),
                        .name = static_cast<uint8_t>(random() % kNames),
                        .acknowledged = false,
                        .content = random() % 4 == 0 ? 0 : static_cast<Content>(random() | 1)};
        const std::string name = name_of(t, message.name);
        if (write(pipe, &message, sizeof message) != sizeof message) _exit(1);
        const KsResult result = message.content == 0
                                    ? vault->remove(secret_name(name))
                                    : put(*vault, name, secret_of(message.content), metadata_with(message.content));
        if (result != KS_SUCCESS && !(message.content == 0 && result == KS_NOT_FOUND)) _exit(2);
        message.acknowledged = true;
        if (write(pipe, &message, sizeof message) != sizeof message) _exit(1);
      }
    });
  }
  threads.clear();
  _exit(0);
}

class Crash : public testing::Test {
 protected:
  // What a name may hold: what was acknowledged last, and what was under way.
  struct Expected {
    Content acknowledged = 0;
    std::optional<Content> under_way;
  };

  void run_and_kill(std::mt19937 &random) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const unsigned seed = static_cast<unsigned>(random());
    const pid_t child = fork();
    if (child == 0) write_until_killed(folder.options(), ends[1], seed);
    close(ends[1]);

    // Some are killed while they open the vault, most while they write.
    const auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(random() % 70000);
    while (std::chrono::steady_clock::now() < end) read_messages(ends[0], 1);
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status)) << "ended by itself with " << WEXITSTATUS(status);
    while (read_messages(ends[0], 0)) {
    }
    close(ends[0]);
  }

  bool read_messages(int pipe, int wait_ms) {
    pollfd ready{.fd = pipe, .events = POLLIN, .revents = 0};
    if (poll(&ready, 1, wait_ms) <= 0 || (ready.revents & POLLIN) == 0) return false;
    std::array<Message, 256> messages;
    const ssize_t size = read(pipe, messages.data(), sizeof messages);
    for (size_t i = 0; i < static_cast<size_t>(std::max<ssize_t>(size, 0)) / sizeof(Message); ++i) {
      Expected &one = expected[messages[i].thread][messages[i].name];
      if (messages[i].acknowledged) {
        one = {messages[i].content, std::nullopt};
        ++acknowledged;
      } else {
        one.under_way = messages[i].content;
      }
    }
    return size > 0;
  }

  void check() {
    const std::unique_ptr<Vault> vault = folder.open();
    size_t there = 0;
    for (int t = 0; t < kThreads; ++t) {
      for (int n = 0; n < kNames; ++n) {
        Expected &one = expected[static_cast<size_t>(t)][static_cast<size_t>(n)];
        const EntryName name = secret_name(name_of(t, n));
        const bool is_acknowledged = holds(*vault, name, one.acknowledged);
        const bool is_under_way = one.under_way && holds(*vault, name, *one.under_way);
        ASSERT_TRUE(is_acknowledged || is_under_way)
            << name.name << " holds " << secret_in(*vault, name) << ", acknowledged was " << one.acknowledged;
        one = {is_acknowledged ? one.acknowledged : *one.under_way, std::nullopt};
        there += one.acknowledged != 0;
      }
    }
    ASSERT_EQ(vault->count(), there);
    for (const std::string &name : names_in(*vault)) ASSERT_TRUE(vault->exists(secret_name(name)));
  }

  static bool holds(const Vault &vault, const EntryName &name, Content content) {
    if (content == 0) return !vault.exists(name);
    return secret_in(vault, name) == secret_of(content) && metadata_in(vault, name) == metadata_with(content);
  }

  Disk disk;
  Folder folder;
  std::array<std::array<Expected, kNames>, kThreads> expected;
  size_t acknowledged = 0;
};

TEST_F(Crash, LosesNothingAcknowledgedAndShowsNothingHalfDone) {
  const char *wanted = std::getenv("KS_CRASH_ROUNDS");
  const int rounds = wanted == nullptr ? 200 : std::atoi(wanted);
  std::mt19937 random = ks_test::random_input();
  // A kill takes nothing from what the kernel has, synced or not; without syncs there are more commits to interrupt.
  disk.skip_syncs();
  for (int round = 0; round < rounds && !HasFatalFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    run_and_kill(random);
    check();
  }
  RecordProperty("acknowledged", static_cast<int>(acknowledged));
  EXPECT_GT(acknowledged, static_cast<size_t>(rounds)) << "there was no load";
}

}  // namespace
}  // namespace ksd::vault
