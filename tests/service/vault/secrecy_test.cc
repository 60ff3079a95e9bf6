// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Planted secrets are found nowhere but in sealed records and in guarded memory.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sodium.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>

#include "log_lines.h"
#include "vault_files/vault_files.h"

namespace ksd::vault {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr char kPlanted[] = "planted-secret-";

std::string planted(const std::string &which) {
  return kPlanted + which;
}

TEST(PlantedSecrets, AreInNoFileOfTheVaultAndInNoLogLine) {
  const LogLines log(spdlog::level::trace);
  Disk disk;
  const Folder folder;
  const auto expect_hidden = [&](const char *when) {
    for (const auto &file : std::filesystem::directory_iterator(folder.path())) {
      const std::string content = read_file(file.path());
      EXPECT_EQ(content.find(kPlanted), std::string::npos) << file.path() << " " << when;
      EXPECT_EQ(content.find("planted-name"), std::string::npos) << file.path() << " " << when;
    }
  };
  {
    const auto vault = folder.open();
    vault->use_limits({.entries = 2});
    put(*vault, "planted-name-1", planted("1"), planted("metadata"));
    expect_hidden("after a store");
    vault->set_metadata(secret_name("planted-name-1"), bytes_of(planted("other metadata")));
    vault->rename(secret_name("planted-name-1"), secret_name("planted-name-2"));
    put(*vault, "planted-name-3", planted(std::string(9000, 'x')));
    put(*vault, "planted-name-4", planted("too many"));
    disk.fail_writes(EIO);
    put(*vault, "planted-name-3", planted("failing"));
    disk.fail_writes(0);
    expect_hidden("after changes");
    vault->remove(secret_name("planted-name-3"));
    vault->compact();
    expect_hidden("after a compaction");
  }
  expect_hidden("after the end");
  folder.open();
  EXPECT_THAT(log.text(), HasSubstr(folder.vault()));
  EXPECT_THAT(log.text(), Not(HasSubstr("planted-")));
}

// count_in_memory counts `text` in the writable mappings of this process, apart for guarded ones, which are left out of
// cores.
struct Found {
  size_t guarded = 0, elsewhere = 0;
};

Found count_in_memory(const std::string &first, const std::string &rest) {
  Found found;
  std::ifstream maps("/proc/self/smaps");
  const int memory = open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
  uintptr_t from = 0, to = 0;
  char access[5] = "";
  for (std::string line; std::getline(maps, line);) {
    uintptr_t a = 0, b = 0;
    char mode[5] = "";
    if (std::sscanf(line.c_str(), "%" SCNxPTR "-%" SCNxPTR " %4s", &a, &b, mode) == 3) {
      from = a, to = b;
      std::copy(mode, mode + 5, access);
    }
    if (line.rfind("VmFlags:", 0) != 0 || access[0] != 'r' || access[1] != 'w') continue;
    const bool is_guarded = line.find(" dd") != std::string::npos;
    std::vector<char> content(to - from);
    const ssize_t size = pread(memory, content.data(), content.size(), static_cast<off_t>(from));
    const std::string_view text(content.data(), size < 0 ? 0 : static_cast<size_t>(size));
    // In two halves: the whole text never stands in this function's own memory.
    for (size_t at = 0; (at = text.find(first, at)) != std::string_view::npos; ++at) {
      if (text.substr(at + first.size(), rest.size()) != rest) continue;
      ++(is_guarded ? found.guarded : found.elsewhere);
    }
    explicit_bzero(content.data(), content.size());
  }
  close(memory);
  return found;
}

// In a process of its own, whose memory holds nothing of other tests.
void store_and_look(const Folder &folder) {
  const auto vault = folder.open();
  {
    std::vector<uint8_t> secret;
    for (const char c : std::string_view("\x61\x62\x63-guarded-")) secret.push_back(static_cast<uint8_t>(c + 1));
    for (int i = 0; i < 16; ++i) secret.push_back(static_cast<uint8_t>('A' + i));
    vault->put(secret_name("a"), std::nullopt, secret, {}, 0);
    sodium_memzero(secret.data(), secret.size());  // as the server does with a request
  }
  const Found there = count_in_memory("bcd.hvbsefe.", "ABCDEFGHIJKLMNOP");
  vault->remove(secret_name("a"));
  const Found gone = count_in_memory("bcd.hvbsefe.", "ABCDEFGHIJKLMNOP");
  if (there.guarded != 1 || there.elsewhere != 0 || gone.guarded != 0 || gone.elsewhere != 0) {
    std::fprintf(stderr, "there: %zu guarded, %zu elsewhere; gone: %zu, %zu\n", there.guarded, there.elsewhere,
                 gone.guarded, gone.elsewhere);
    std::_Exit(1);
  }
  std::_Exit(0);
}

TEST(PlantedSecrets, AreInGuardedMemoryOnceAndNowhereWhenCleared) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "keeps copies of its own";
#endif
  const Folder folder;
  const pid_t child = fork();
  if (child == 0) store_and_look(folder);
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace ksd::vault
