// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// A kill at each step by which a vault is taken into use: whichever it was, the vault opens again with all that it
// held.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>

#include "vault_files/vault_files.h"

namespace {

int steps_left = -1;  // until the kill; none when it is negative

void step() {
  if (steps_left >= 0 && steps_left-- == 0) kill(getpid(), SIGKILL);
}

template <typename Function>
Function *next_of(const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// What the vault does itself, beside SQLite: these two bring a file it made to disk and put it in its place.
extern "C" int rename(const char *from, const char *to) noexcept {
  static auto *const real = next_of<int(const char *, const char *)>("rename");
  const int result = real(from, to);
  step();
  return result;
}

extern "C" int fsync(int file) {
  static auto *const real = next_of<int(int)>("fsync");
  const int result = real(file);
  step();
  return result;
}

namespace ksd::vault {
namespace {

class KilledAtEachStep : public testing::Test {
 protected:
  KilledAtEachStep() {
    disk.skip_syncs();
    disk.after_changes(step);
  }

  // start opens the vault and stores "new" in a process that is killed behind step `number`. False: it took fewer.
  bool start(const Folder &folder, int number) {
    const pid_t child = fork();
    if (child == 0) {
      steps_left = number;
      const auto vault = folder.open();
      _exit(put(*vault, "new", "secret new") != KS_SUCCESS);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) ? WTERMSIG(status) == SIGKILL : WEXITSTATUS(status) == 0) << status;
    return WIFSIGNALED(status);
  }

  // loses_nothing makes a folder by `prepare` for each step. The vault in it holds `names`, "new" aside.
  void loses_nothing(const std::function<void(const Folder &)> &prepare, std::vector<std::string> names) {
    int number = 0;
    for (bool killed = true; killed; ++number) {
      SCOPED_TRACE("killed behind step " + std::to_string(number));
      const Folder folder;
      prepare(folder);
      killed = start(folder, number);
      ASSERT_EQ(refusal_of([&] { folder.open(); }), "(nothing)");
      std::vector<std::string> found = names_in(*folder.open());
      if (!found.empty() && found.back() == "new") found.pop_back();
      EXPECT_EQ(found, names);
    }
    EXPECT_GT(number, 10) << "the steps are seen";
  }

  static void store(const Folder &folder) {
    const auto vault = folder.open();
    put(*vault, "a", "secret a");
    put(*vault, "b", "secret b");
  }

  Disk disk;
};

TEST_F(KilledAtEachStep, AVaultThatWasClosedInOrderOpensAgainWithEverything) {
  loses_nothing(store, {"a", "b"});
}

TEST_F(KilledAtEachStep, ACopyWithoutItsWitnessOpensAgainWithEverything) {
  const auto store_and_lose_witness = [](const Folder &folder) {
    store(folder);
    std::filesystem::remove(folder.witness());
  };
  loses_nothing(store_and_lose_witness, {"a", "b"});
}

TEST_F(KilledAtEachStep, AVaultThatIsMadeOpensAgain) {
  loses_nothing([](const Folder &) {}, {});
}

}  // namespace
}  // namespace ksd::vault
