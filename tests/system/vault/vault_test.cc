// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The store of a running service: several users at once, a full table, walks among changes, sudden ends, and secrets
// that are found nowhere.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <set>
#include <stdexcept>
#include <thread>

#include "content_of.h"
#include "random_input.h"
#include "service/raw_client.h"
#include "service/service_process.h"

namespace {

using ks_test::content_of;
using ks_test::Datagram;
using ks_test::RawClient;
using ks_test::RawReply;
using ks_test::run_as;
using ks_test::ServiceProcess;
using ks_test::ServiceSetup;
using ks_test::start_as;
using ks_test::wait_for;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr uint32_t kStoreSecret = 0x10402, kClear = 0x10404, kExists = 0x10405, kByIndex = 0x10406,
                   kReturnMetadata = 0x10407, kRename = 0x10408, kStatus = 0x10421, kCompact = 0x10422;
constexpr uint32_t kSuccess = 1, kInvalidArgs = 3, kNotFound = 5, kNoMoreEntries = 6, kStoreFull = 7;

void append(Datagram &to, const std::string &text) {
  to.insert(to.end(), text.begin(), text.end());
}

// wire is a secret's name as it travels.
Datagram wire(unsigned vdc, const std::string &name) {
  Datagram bytes{0x30, 0, static_cast<uint8_t>(vdc >> 8), static_cast<uint8_t>(vdc)};
  append(bytes, name);
  return bytes;
}

uint8_t low(size_t n) {
  return static_cast<uint8_t>(n);
}
uint8_t high(size_t n) {
  return static_cast<uint8_t>(n >> 8);
}

// Client speaks for one VDC.
class Client {
 public:
  Client(const ServiceProcess &service, unsigned vdc) : raw_(service.socket()), vdc_(vdc) {}

  uint32_t store(const std::string &name, const std::string &secret, const std::string &metadata = "") {
    Datagram sections = wire(vdc_, name);
    const size_t name_len = sections.size(), at = 12 + name_len, end = at + secret.size();
    append(sections, secret + metadata);
    return raw_
        .exchange(kStoreSecret,
                  {low(name_len), 12, 0, low(at), low(secret.size()), high(secret.size()), low(at), high(at),
                   low(metadata.size()), high(metadata.size()), low(end), high(end)},
                  sections)
        .result();
  }

  RawReply metadata(const std::string &name) { return named(kReturnMetadata, name); }
  uint32_t exists(const std::string &name) { return named(kExists, name).result(); }
  uint32_t clear(const std::string &name) { return named(kClear, name).result(); }
  uint32_t rename(const std::string &from, const std::string &to) {
    Datagram sections = wire(vdc_, from);
    const size_t from_len = sections.size();
    const Datagram new_name = wire(vdc_, to);
    sections.insert(sections.end(), new_name.begin(), new_name.end());
    return raw_.exchange(kRename, {low(from_len), 6, low(new_name.size()), low(6 + from_len), 0, 0}, sections).result();
  }
  RawReply at(size_t position) { return raw_.exchange(kByIndex, {low(position), high(position)}); }
  RawClient &raw() { return raw_; }

  // walk gives the names that show up, in the order of the table, and counts those that don't.
  std::vector<std::string> walk(size_t *masked = nullptr) {
    std::vector<std::string> names;
    for (size_t position = 0;; ++position) {
      const RawReply reply = at(position);
      if (reply.result() == kNoMoreEntries) return names;
      if (reply.result() != kSuccess) throw std::runtime_error("a walk was answered " + std::to_string(reply.result()));
      const Datagram name = reply.data();
      if (name == Datagram{0, 0, 0xff, 0xff}) {
        if (masked != nullptr) ++*masked;
      } else {
        names.emplace_back(name.begin() + 4, name.end());
      }
    }
  }

 private:
  RawReply named(uint32_t opcode, const std::string &name) {
    const Datagram section = wire(vdc_, name);
    return raw_.exchange(opcode, {low(section.size()), 2}, section);
  }

  RawClient raw_;
  unsigned vdc_;
};

std::string text_of(const RawReply &reply) {
  const Datagram data = reply.data();
  return {data.begin(), data.end()};
}

ServiceSetup with_config(const std::string &config) {
  ServiceSetup setup;
  setup.config = config;
  return setup;
}

TEST(SecretStore, IsThereAgainAfterTheServiceWasKilled) {
  ServiceProcess service;
  {
    Client client(service, 7);
    EXPECT_EQ(client.store("a", "secret", "meta a"), kSuccess);
    EXPECT_EQ(client.store("b", "secret", "meta b"), kSuccess);
    EXPECT_EQ(client.rename("a", "c"), kSuccess);
  }
  service.restart();
  Client client(service, 7);
  EXPECT_THAT(client.walk(), ElementsAre("c", "b"));
  EXPECT_EQ(text_of(client.metadata("c")), "meta a");
  EXPECT_EQ(client.metadata("a").result(), kNotFound);
}

// Each user stores, walks, renames and clears among the others' entries, all at once, and meets no entries but those.
TEST(SecretStore, KeepsUsersApartWhoUseItAtOnce) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root, to act for several users";
  const ServiceProcess service(
      with_config("[[vdc]]\nid = 3\nusers = [23456]\n[[vdc]]\nid = 4\nusers = [23457]\n[[vdc]]\nid = 5\n"
                  "users = [23458]\n[administrators]\nusers = [0]\n"));
  const auto act = [&service](unsigned vdc) -> int {
    Client client(service, vdc), foreign(service, vdc == 5 ? 3 : vdc + 1);
    std::vector<std::string> mine;
    for (int i = 0; i < 40; ++i) {
      const std::string name = "same name " + std::to_string(i);
      if (client.store(name, "x", "of " + std::to_string(vdc)) != kSuccess) return 1;
      if (foreign.store(name, "x") != kInvalidArgs) return 2;
      if (foreign.metadata(name).payload != Datagram{5, 0, 0, 0}) return 3;
      if (foreign.clear(name) != kNotFound || foreign.exists(name) != kNotFound) return 4;
      if (i % 2 == 0) {
        if (client.clear(name) != kSuccess) return 5;
      } else {
        if (client.rename(name, "own " + name) != kSuccess) return 6;
        mine.push_back("own " + name);
      }
    }
    if (client.walk() != mine) return 7;
    for (const std::string &name : mine) {
      if (text_of(client.metadata(name)) != "of " + std::to_string(vdc)) return 8;
    }
    return 0;
  };
  std::vector<pid_t> users;
  for (const unsigned vdc : {3u, 4u, 5u}) {
    users.push_back(start_as(23453 + vdc, 23453, [&act, vdc] { return act(vdc); }));
  }
  for (const pid_t user : users) EXPECT_EQ(wait_for(user), 0);

  Client administrator(service, 3);
  EXPECT_EQ(administrator.walk().size(), 60u);
  EXPECT_EQ(administrator.exists("own same name 1"), kSuccess);
  EXPECT_EQ(run_as(23459, 23459,
                   [&] {
                     size_t masked = 0;
                     return Client(service, 0xffff).walk(&masked).empty() && masked == 60 ? 0 : 1;
                   }),
            0)
      << "an unmapped user sees no name";
  EXPECT_THAT(service.log(), HasSubstr("named an entry of another VDC"));
  EXPECT_THAT(service.log(), Not(HasSubstr("same name")));
}

TEST(SecretStore, TakesAsManyEntriesAsItHasPositions) {
  constexpr size_t kAll = 65535, kClients = 48;
  ServiceProcess service(with_config(ks_test::config_of_own_user(7) + "\n[limits]\nentries_per_user = 65535\n"));
  std::atomic<size_t> next{0};
  {
    std::vector<std::jthread> clients;
    for (size_t c = 0; c < kClients; ++c) {
      clients.emplace_back([&] {
        Client client(service, 7);
        for (size_t i = 0; (i = next++) < kAll;) ASSERT_EQ(client.store("n" + std::to_string(i), "secret"), kSuccess);
      });
    }
  }
  const auto check_full = [&](Client &client) {
    EXPECT_EQ(client.at(65534).result(), kSuccess);
    EXPECT_EQ(client.at(65535).result(), kNoMoreEntries);
    EXPECT_EQ(client.store("one more", "x"), kStoreFull);
    EXPECT_EQ(client.exists("one more"), kNotFound);
    EXPECT_EQ(client.store("n65534", "replaced", "m"), kSuccess) << "a replacement takes no room";
    EXPECT_EQ(text_of(client.metadata("n65534")), "m");
  };
  {
    Client client(service, 7);
    check_full(client);
    EXPECT_EQ(client.raw().exchange(kStatus, {}).data().at(2) & 1, 1) << "over 90 percent";
  }
  service.restart();
  Client client(service, 7);
  check_full(client);
  const std::string first = text_of(client.at(0)).substr(4), second = text_of(client.at(1)).substr(4);
  EXPECT_EQ(client.clear(first), kSuccess);
  EXPECT_EQ(text_of(client.at(0)).substr(4), second) << "the gap is closed";
  EXPECT_EQ(client.at(65534).result(), kNoMoreEntries);
  EXPECT_EQ(client.store("one more", "x"), kSuccess);
  EXPECT_EQ(text_of(client.at(65534)).substr(4), "one more");
}

// A walk among changes may miss an entry that moves up past it, but never shows what isn't there, and always ends.
TEST(SecretStore, LetsWalksEndAmongChanges) {
  const ServiceProcess service;
  Client steady(service, 7);
  for (int i = 0; i < 50; ++i) ASSERT_EQ(steady.store("steady" + std::to_string(i), "x"), kSuccess);
  std::atomic<bool> done{false};
  std::jthread changes([&] {
    Client client(service, 7);
    for (int i = 0; !done; ++i) {
      const std::string name = "fleeting" + std::to_string(i % 7);
      ASSERT_EQ(client.store(name, "x"), kSuccess);
      ASSERT_EQ(client.rename(name, "renamed"), kSuccess);
      ASSERT_EQ(client.clear("renamed"), kSuccess);
    }
  });
  for (int round = 0; round < 20; ++round) {
    std::vector<std::string> names = steady.walk();
    const auto is_fleeting = [](const std::string &name) { return name.rfind("steady", 0) != 0; };
    names.erase(std::remove_if(names.begin(), names.end(), is_fleeting), names.end());
    EXPECT_EQ(names.size(), 50u) << "entries in front of the changes keep their positions";
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()).size(), names.size());
  }
  done = true;
}

TEST(SecretStore, LosesNothingAcknowledgedWhenKilled) {
  constexpr int kClients = 4;
  ServiceProcess service;
  std::mt19937 random = ks_test::random_input();
  std::array<std::map<std::string, std::string>, kClients> acknowledged;  // name to metadata
  for (int round = 0; round < 12; ++round) {
    std::array<std::string, kClients> under_way;  // the name that a killed request was about
    {
      std::vector<std::jthread> clients;
      for (size_t c = 0; c < kClients; ++c) {
        clients.emplace_back([&, c, seed = random()] {
          std::mt19937 mine(seed);
          try {
            Client client(service, 7);  // which may come after the kill
            for (;;) {
              const std::string name = std::to_string(c) + "-" + std::to_string(mine() % 5);
              const std::string content = std::to_string(mine());
              under_way[c] = name;
              if (mine() % 3 == 0) {
                client.clear(name);
                acknowledged[c].erase(name);
              } else if (client.store(name, "secret", content) == kSuccess) {
                acknowledged[c][name] = content;
              }
            }
          } catch (const std::runtime_error &) {  // killed
          }
        });
      }
      usleep(static_cast<useconds_t>(1000 + random() % 60000));
      service.kill();
    }
    service.start();
    Client client(service, 7);
    size_t there = 0;
    for (size_t c = 0; c < kClients; ++c) {
      for (int n = 0; n < 5; ++n) {
        const std::string name = std::to_string(c) + "-" + std::to_string(n);
        const RawReply reply = client.metadata(name);
        there += reply.result() == kSuccess;
        const auto expected = acknowledged[c].find(name);
        const bool is_expected =
            expected == acknowledged[c].end() ? reply.result() == kNotFound : text_of(reply) == expected->second;
        EXPECT_TRUE(is_expected || name == under_way[c]) << name << " in round " << round;
        // What was under way may have happened or not.
        acknowledged[c].erase(name);
        if (reply.result() == kSuccess) acknowledged[c][name] = text_of(reply);
      }
    }
    EXPECT_EQ(client.walk().size(), there);
  }
}

TEST(SecretStore, TakesUpNewLimitsWithoutARestart) {
  ServiceProcess service;
  Client client(service, 7);
  EXPECT_EQ(client.store("a", "x"), kSuccess);
  service.reload(ks_test::config_of_own_user(7) + "\n[limits]\nentries_per_user = 1\n");
  EXPECT_EQ(client.store("b", "x"), kStoreFull);
  EXPECT_THAT(service.log(), Not(HasSubstr("80 % of the room of all users")));
}

TEST(SecretStore, CompactsWhileOthersGoOn) {
  const ServiceProcess service;
  Client client(service, 7);
  const std::string block(60000, 'm');
  for (int i = 0; i < 60; ++i) ASSERT_EQ(client.store(std::to_string(i), "x", block), kSuccess);
  for (int i = 0; i < 59; ++i) ASSERT_EQ(client.clear(std::to_string(i)), kSuccess);
  EXPECT_EQ(client.raw().exchange(kStatus, {}).data().at(2), 2);
  auto compaction =
      std::async(std::launch::async, [&] { return RawClient(service.socket()).exchange(kCompact, {}).result(); });
  for (int i = 0; i < 20; ++i) ASSERT_EQ(client.store("new" + std::to_string(i), "x"), kSuccess);
  EXPECT_EQ(compaction.get(), kSuccess);
  EXPECT_EQ(client.raw().exchange(kStatus, {}).data().at(2), 0);
  EXPECT_EQ(text_of(client.metadata("59")), block);
  EXPECT_LT(std::filesystem::file_size(service.vault()), 1000000u);
}

TEST(SecretStore, RefusesToStartOnADamagedVault) {
  ServiceProcess service;
  EXPECT_EQ(Client(service, 7).store("a", "x"), kSuccess);
  EXPECT_EQ(service.stop(), 0);
  const std::string vault = service.vault(), whole = content_of(vault);
  std::ofstream(vault, std::ios::binary | std::ios::trunc) << whole.substr(0, whole.size() - 4096);
  EXPECT_THROW(service.start(), std::runtime_error);
  EXPECT_THAT(service.log(), HasSubstr(vault + ": the vault is damaged ("));
  EXPECT_FALSE(std::filesystem::exists(service.socket())) << "nobody is let in";
}

// Only a 64-bit process can read all of the service's memory, and sanitizers keep copies of their own.
#if defined(__x86_64__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// count_in_memory counts `text` in the writable memory of a process, in what is left out of cores and elsewhere.
std::pair<size_t, size_t> count_in_memory(pid_t process, const std::string &text) {
  const std::string folder = "/proc/" + std::to_string(process);
  std::ifstream maps(folder + "/smaps");
  const int memory = open((folder + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
  if (memory < 0) throw std::runtime_error("the service's memory can't be read");
  size_t guarded = 0, elsewhere = 0;
  uint64_t from = 0, to = 0;
  bool readable = false;
  for (std::string line; std::getline(maps, line);) {
    uint64_t a = 0, b = 0;
    char mode[5] = "";
    if (std::sscanf(line.c_str(), "%" SCNx64 "-%" SCNx64 " %4s", &a, &b, mode) == 3) {
      from = a, to = b, readable = mode[0] == 'r' && mode[1] == 'w';
    }
    if (line.rfind("VmFlags:", 0) != 0 || !readable) continue;
    std::string content(to - from, 0);
    const ssize_t size = pread(memory, content.data(), content.size(), static_cast<off_t>(from));
    content.resize(size < 0 ? 0 : static_cast<size_t>(size));
    for (size_t at = 0; (at = content.find(text, at)) != std::string::npos; ++at) {
      ++(line.find(" dd") != std::string::npos ? guarded : elsewhere);
    }
  }
  close(memory);
  return {guarded, elsewhere};
}

// What a process of its own user may not look into, the kernel gives to root.
TEST(Memory, IsNotForOthersOfTheServicesUserToLookInto) {
  ServiceSetup setup;
  if (geteuid() == 0) setup.user = 23456;
  const ServiceProcess service(setup);
  struct stat memory {};
  ASSERT_EQ(stat(("/proc/" + std::to_string(service.pid()) + "/mem").c_str(), &memory), 0);
  EXPECT_EQ(memory.st_uid, 0u);
}

TEST(PlantedSecret, IsFoundInGuardedMemoryOnly) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root, to look into the service's memory";
  const std::string secret = "planted-secret-of-a-test-0123456789";
  const ServiceProcess service;
  if (!std::ifstream("/proc/" + std::to_string(service.pid()) + "/smaps").good()) GTEST_SKIP() << "no smaps here";
  Client client(service, 7);
  ASSERT_EQ(client.store("a", secret), kSuccess);
  client.raw().hello();  // the request before is over, with all its buffers

  const auto [guarded, elsewhere] = count_in_memory(service.pid(), secret);
  EXPECT_EQ(guarded, 1u);
  EXPECT_EQ(elsewhere, 0u);
  for (const auto &file : std::filesystem::directory_iterator(service.folder())) {
    if (!file.is_regular_file()) continue;
    EXPECT_EQ(content_of(file.path()).find(secret), std::string::npos) << file.path();
  }
  const std::string process = "/proc/" + std::to_string(service.pid());
  for (const char *file : {"/environ", "/cmdline", "/maps"}) {
    EXPECT_EQ(content_of(process + file).find(secret), std::string::npos) << file;
  }
  EXPECT_THAT(content_of(process + "/limits"), HasSubstr("Max core file size        0                    0 "));
  EXPECT_THAT(service.log(), Not(HasSubstr(secret)));

  ASSERT_EQ(client.clear("a"), kSuccess);
  client.raw().hello();
  EXPECT_EQ(count_in_memory(service.pid(), secret), std::make_pair(size_t{0}, size_t{0}));
}
#endif

}  // namespace
