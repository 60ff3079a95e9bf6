// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Allocations of whoever writes that fail: whoever waits is answered, and the service goes on.
#include <gtest/gtest.h>

#include <future>
#include <new>

#include "failing_memory/failing_memory.h"
#include "vault_files/vault_files.h"

namespace ksd::vault {
namespace {

using failing_memory::arm;
using failing_memory::disarm;
using failing_memory::is_of_test;

class NoMemory : public testing::Test {
 protected:
  NoMemory() {
    is_of_test = true;
    disk.skip_syncs();
    vault = folder.open();
  }
  ~NoMemory() override { disarm(); }

  // A change, all of whose memory is the vault's, as on a thread of the service.
  template <typename Change>
  static KsResult answer_to(Change change) {
    is_of_test = false;
    KsResult result = KS_NO_MEMORY;
    try {
      result = change();
    } catch (const std::bad_alloc &) {
    }
    is_of_test = true;
    return result;
  }

  Disk disk;
  Folder folder;
  std::unique_ptr<Vault> vault;
};

// Every allocation of each kind of change fails, alone and with all that follow.
TEST_F(NoMemory, AnswersEveryChangeAndChangesNothingThen) {
  for (const long count : {1L, 1000000L}) {
    long refused = 0;
    bool failed = true;
    for (long first = 0; failed; ++first) {
      SCOPED_TRACE(std::to_string(count) + " from " + std::to_string(first));
      ASSERT_EQ(put(*vault, "a", "old", "old"), KS_SUCCESS);
      vault->remove(secret_name("b"));
      vault->remove(secret_name("c"));

      arm(first, count);
      const KsResult stored = answer_to([&] { return put(*vault, "b", "new"); });
      const KsResult replaced = answer_to([&] { return put(*vault, "a", "new", "new"); });
      const KsResult renamed = answer_to([&] { return vault->rename(secret_name("b"), secret_name("c")); });
      const KsResult removed = answer_to([&] { return vault->remove(secret_name("a")); });
      answer_to([&] { return vault->compact(); });
      failed = disarm();

      refused += (stored == KS_NO_MEMORY) + (replaced == KS_NO_MEMORY) + (removed == KS_NO_MEMORY);
      ASSERT_TRUE(stored == KS_SUCCESS || stored == KS_NO_MEMORY) << stored;
      ASSERT_TRUE(replaced == KS_SUCCESS || replaced == KS_NO_MEMORY) << replaced;
      ASSERT_TRUE(removed == KS_SUCCESS || removed == KS_NO_MEMORY) << removed;
      EXPECT_EQ(renamed == KS_SUCCESS, vault->exists(secret_name("c")));
      EXPECT_EQ(stored == KS_SUCCESS && renamed != KS_SUCCESS, vault->exists(secret_name("b")));
      EXPECT_EQ(removed == KS_SUCCESS, !vault->exists(secret_name("a")));
      if (removed != KS_SUCCESS) {
        EXPECT_EQ(metadata_in(*vault, secret_name("a")), replaced == KS_SUCCESS ? "new" : "old");
      }
    }
    EXPECT_GT(refused, 20);
  }
  const std::vector<std::string> names = names_in(*vault);
  vault.reset();
  vault = folder.open();
  EXPECT_EQ(names_in(*vault), names);
}

TEST_F(NoMemory, AnswersAllOfAGroup) {
  for (long first = 0; first < 400; first += 7) {
    SCOPED_TRACE(first);
    disk.hold_syncs();
    std::vector<std::future<KsResult>> answers;
    const auto later = [&](int number) {
      return std::async(std::launch::async, [this, number] {
        is_of_test = true;
        return put(*vault, std::to_string(number), "x");
      });
    };
    answers.push_back(later(0));
    disk.wait_for_held_sync();
    for (int i = 1; i < 12; ++i) answers.push_back(later(i));
    arm(first, 1000000);
    disk.let_syncs_go();
    for (auto &answer : answers) {
      const KsResult result = answer.get();
      EXPECT_TRUE(result == KS_SUCCESS || result == KS_NO_MEMORY) << result;
    }
    disarm();
    EXPECT_EQ(put(*vault, "after", "x"), KS_SUCCESS);
  }
}

}  // namespace
}  // namespace ksd::vault
