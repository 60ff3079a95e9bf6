// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// PACs end to end: the library, the host platform, the shared cache and a real service.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>

#include "ks_api.h"
#include "published_vectors.h"
#include "service/library_suite.h"
#include "service/raw_client.h"
#include "service/service_process.h"

namespace {

using ks_test::Datagram;
using ks_test::RawClient;
using ks_test::ServiceProcess;
using testing::ElementsAre;
using testing::IsEmpty;

using Bytes = std::vector<uint8_t>;

Bytes bytes(const std::string &hex) {
  Bytes out;
  std::string digits;
  for (const char c : hex) {
    if (c == ' ') continue;
    digits += c;
    if (digits.size() < 2) continue;
    out.push_back(static_cast<uint8_t>(std::stoul(digits, nullptr, 16)));
    digits.clear();
  }
  return out;
}

Bytes operator+(Bytes left, const Bytes &right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

const Bytes kOpaque = bytes("00 02 00 03 6f 70 71");
const Bytes kOtherOpaque = bytes("00 02 00 01 77");
const Bytes kInfo = bytes("00 09 00 0f  00 03 00 04 65 00 00 00  00 05 00 03 62 6f 62");  // bob's, until 0x65000000
const Bytes kKey = bytes("4b 4c 4d");

class Pac : public ks_test::LibrarySuite {
 protected:
  void TearDown() override {
    EXPECT_EQ(ks_clear_all_pacs(), KS_SUCCESS);
    EXPECT_EQ(ks_cache_purge_all(), KS_SUCCESS);
  }

  static KsResult store(const Bytes &aid, const Bytes &opaque = kOpaque, const Bytes &info = kInfo,
                        const Bytes &key = kKey) {
    return ks_store_pac(aid.data(), size(aid), key.data(), size(key), opaque.data(), size(opaque), info.data(),
                        size(info));
  }
  static Bytes cache_name(const Bytes &aid) { return bytes("31 00 00 07") + aid; }
  static void warm(const Bytes &aid, const Bytes &metadata) {
    const Bytes name = cache_name(aid);
    EXPECT_EQ(ks_cache_pac_write(name.data(), size(name), metadata.data(), static_cast<uint16_t>(metadata.size())),
              KS_SUCCESS);
  }

  // The reads, with what they hand out; nothing for a failure, whose code is in `result`.
  Bytes opaque_of(const Bytes &aid) {
    uint8_t *block = nullptr;
    uint32_t len = 0;
    result = ks_return_pac_opaque(aid.data(), size(aid), &block, &len);
    return taken(block, len);
  }
  Bytes info_of(const Bytes &aid) {
    uint8_t *block = nullptr;
    uint32_t len = 0;
    result = ks_return_pac_info(aid.data(), size(aid), &block, &len);
    return taken(block, len);
  }
  static uint32_t expiry_of(const Bytes &aid) { return ks_get_pac_expiration(aid.data(), size(aid)); }
  static KsResult exists(const Bytes &aid, uint32_t *flag) { return ks_pac_exists(aid.data(), size(aid), flag); }
  Bytes t_prf(const Bytes &aid, const std::string &label, const Bytes &seed, size_t len) {
    Bytes output(len, 0xee);
    result =
        ks_pac_key_t_prf(aid.data(), static_cast<uint8_t>(aid.size()), reinterpret_cast<const uint8_t *>(label.data()),
                         static_cast<uint16_t>(label.size()), seed.empty() ? nullptr : seed.data(),
                         static_cast<uint16_t>(seed.size()), output.data(), static_cast<uint16_t>(len));
    return output;
  }

  static std::vector<Bytes> listed() {
    std::vector<Bytes> aids;
    uint16_t cursor = 0;
    uint8_t *aid = nullptr;
    uint16_t len = 0;
    KsResult next;
    while ((next = ks_return_aid_by_index(&cursor, &aid, &len)) == KS_SUCCESS) {
      aids.push_back(Bytes(aid, aid + len));
      free(aid);
    }
    EXPECT_EQ(next, KS_NO_MORE_ENTRIES);
    return aids;
  }

  static uint32_t size(const Bytes &content) { return static_cast<uint32_t>(content.size()); }

  KsResult result = 0;

 private:
  Bytes taken(uint8_t *block, uint32_t len) const {
    if (result != KS_SUCCESS) return {};
    Bytes copy(block, block + len);
    free(block);
    return copy;
  }
};

// Paused stops the service as long as it lives: whoever needs an answer of it waits.
class Paused {
 public:
  explicit Paused(ServiceProcess &process) : process_(process) { process_.pause(); }
  ~Paused() { process_.resume(); }

 private:
  ServiceProcess &process_;
};

// in_child runs a body in a process of its own and tells whether it gave true.
bool in_child(const std::function<bool()> &body) {
  const pid_t child = fork();
  if (child == 0) _exit(body() && !testing::Test::HasFailure() ? 0 : 1);
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

const Bytes kAid = bytes("a1 00 a3");

TEST_F(Pac, ComesBackFromTheKeystoreAsItWasStored) {
  ASSERT_EQ(store(kAid), KS_SUCCESS);
  EXPECT_EQ(opaque_of(kAid), kOpaque);
  EXPECT_EQ(info_of(kAid), kInfo);
  EXPECT_EQ(expiry_of(kAid), 0x65000000u);
  EXPECT_THAT(listed(), ElementsAre(kAid));

  EXPECT_EQ(ks_clear_pac(kAid.data(), 3), KS_SUCCESS);
  opaque_of(kAid);
  EXPECT_EQ(result, KS_NOT_FOUND);
  EXPECT_EQ(ks_clear_pac(kAid.data(), 3), KS_NOT_FOUND);
  EXPECT_THAT(listed(), IsEmpty());
}

TEST_F(Pac, IsReadFromTheCacheWhileTheServiceStandsStill) {
  ASSERT_EQ(store(kAid), KS_SUCCESS);
  warm(kAid, kInfo + kOpaque);
  const Bytes name = cache_name(kAid), random = bytes("0a 0b"), output = bytes("01 02 03 04");
  ASSERT_EQ(ks_cache_pac_write_tprf(name.data(), size(name), "label", 5, random.data(), 2, output.data(), 4),
            KS_SUCCESS);

  const Paused still(*service);
  EXPECT_EQ(opaque_of(kAid), kOpaque);
  EXPECT_EQ(info_of(kAid), kInfo);
  EXPECT_EQ(expiry_of(kAid), 0x65000000u);
  uint32_t flag = 0;
  EXPECT_EQ(exists(kAid, &flag), KS_SUCCESS);
  EXPECT_EQ(flag, 1u);
  EXPECT_EQ(t_prf(kAid, "label", random, 4), output);
  EXPECT_EQ(result, KS_SUCCESS);
}

// Sanitizers make system calls of their own.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(Pac, IsReadFromTheCacheWithoutASystemCall) {
  warm(kAid, kOpaque + kInfo);
  EXPECT_TRUE(in_child([this] {
    opaque_of(kAid);  // opens what a process opens once
    if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT) != 0) return false;
    const Bytes opaque = opaque_of(kAid);  // a system call ends the child here
    syscall(SYS_exit, opaque == kOpaque ? 0 : 1);
    return false;
  }));
}
#endif

TEST_F(Pac, IsNeverPutIntoTheCacheByARead) {
  ASSERT_EQ(store(kAid), KS_SUCCESS);
  EXPECT_EQ(opaque_of(kAid), kOpaque);
  EXPECT_EQ(info_of(kAid), kInfo);
  t_prf(kAid, "label", {}, 20);
  EXPECT_EQ(result, KS_SUCCESS);
  EXPECT_EQ(ks_clear_old_pacs("bob"), KS_SUCCESS);

  uint32_t found = 1;
  EXPECT_EQ(ks_cache_find_pac(kAid.data(), 3, &found), KS_NOT_FOUND);
  EXPECT_EQ(found, 0u);
}

TEST_F(Pac, StaysInTheCacheAsItWasWhenTheKeystoresChangesOrGoes) {
  ASSERT_EQ(store(kAid, kOtherOpaque), KS_SUCCESS);
  warm(kAid, kOtherOpaque + kInfo);
  ASSERT_EQ(store(kAid), KS_SUCCESS);
  EXPECT_EQ(opaque_of(kAid), kOtherOpaque);

  ASSERT_EQ(ks_clear_pac(kAid.data(), 3), KS_SUCCESS);
  EXPECT_EQ(opaque_of(kAid), kOtherOpaque);
  uint32_t flag = 0;
  EXPECT_EQ(exists(kAid, &flag), KS_SUCCESS);
  EXPECT_EQ(flag, 1u);

  const Bytes name = cache_name(kAid);
  ASSERT_EQ(ks_cache_pac_clear(name.data(), size(name)), KS_SUCCESS);
  opaque_of(kAid);
  EXPECT_EQ(result, KS_NOT_FOUND);
  EXPECT_EQ(exists(kAid, &flag), KS_NOT_FOUND);
  EXPECT_EQ(flag, 0u);
}

TEST_F(Pac, IsReadFromTheKeystoreWhenItsEntryIsDamaged) {
  ASSERT_EQ(store(kAid), KS_SUCCESS);
  for (const char *damaged :
       {"00", "00 02", "00 02 ff fc 01", "00 04 00 00", "00 02 00 00 00 02 00 00", "80 02 00 00"}) {
    warm(kAid, bytes(damaged));
    EXPECT_EQ(opaque_of(kAid), kOpaque) << damaged;
    EXPECT_EQ(info_of(kAid), kInfo) << damaged;
    uint32_t found = 0;
    EXPECT_EQ(ks_cache_find_pac(kAid.data(), 3, &found), KS_SUCCESS) << "the entry stays";
  }
}

TEST_F(Pac, FaultsAskingForAPacThatTheCacheLacks) {
  ASSERT_EQ(store(kAid), KS_SUCCESS);
  EXPECT_FALSE(in_child([] {
    uint32_t flag = 0;
    return exists(kAid, &flag) == KS_SUCCESS;
  }));
}

TEST_F(Pac, GivesThePublishedOutputsOfTheTPrf) {
  for (const auto &vector : published::kTPrf) {
    const Bytes expected = bytes(vector.output);
    ASSERT_EQ(store(kAid, kOpaque, kInfo, bytes(vector.key)), KS_SUCCESS);
    EXPECT_EQ(t_prf(kAid, vector.label, bytes(vector.seed), expected.size()), expected) << vector.label;
    EXPECT_EQ(result, KS_SUCCESS);
  }
  t_prf(kAid, "label", {}, 5101);
  EXPECT_EQ(result, KS_INVALID_ARGS) << "more than the T-PRF gives";
  t_prf(bytes("a9"), "label", {}, 20);
  EXPECT_EQ(result, KS_NOT_FOUND);
}

TEST_F(Pac, AgesOutOverATableThatClosesUp) {
  // bob's until a time that, as the bytes stand, is ahead or has passed; alf's.
  const Bytes ahead = bytes("00 09 00 0f  00 03 00 04 00 00 00 7f  00 05 00 03 62 6f 62");
  const Bytes passed = bytes("00 09 00 0f  00 03 00 04 7f 00 00 00  00 05 00 03 62 6f 62");
  const Bytes of_alf = bytes("00 09 00 0f  00 03 00 04 00 00 00 7f  00 05 00 03 61 6c 66");
  const std::vector<Bytes> infos = {passed, of_alf, passed, ahead, of_alf, passed};
  for (size_t i = 0; i < infos.size(); ++i) {
    ASSERT_EQ(store(Bytes{static_cast<uint8_t>(0xa0 + i)}, kOpaque, infos[i]), KS_SUCCESS);
  }
  // The walk removes the first, finds the third in the second place, and so on.
  EXPECT_EQ(ks_clear_old_pacs("bob"), KS_SUCCESS);
  EXPECT_THAT(listed(), ElementsAre(bytes("a1"), bytes("a3"), bytes("a5")));
  // Then a1 goes, a5 stands where a3 stood, and a3 was moved under the cursor's feet.
  EXPECT_EQ(ks_clear_old_pacs("bob"), KS_SUCCESS);
  EXPECT_THAT(listed(), ElementsAre(bytes("a3")));
  EXPECT_EQ(ks_clear_old_pacs("bob"), KS_SUCCESS);
  EXPECT_THAT(listed(), ElementsAre(bytes("a3")));
  EXPECT_EQ(ks_clear_old_pacs("alf"), KS_SUCCESS);
  EXPECT_THAT(listed(), IsEmpty());
}

TEST_F(Pac, OfAnotherVdcIsNeitherReadNorListedNorCleared) {
  ASSERT_EQ(store(kAid), KS_SUCCESS);
  service->reload(ks_test::config_of_own_user(9));
  EXPECT_TRUE(in_child([this] {
    EXPECT_EQ(ks_init(0, 1, 0), KS_SUCCESS);
    EXPECT_EQ(vdc_id, 9);
    opaque_of(kAid);
    EXPECT_EQ(result, KS_NOT_FOUND);
    EXPECT_THAT(listed(), IsEmpty());
    EXPECT_EQ(store(kAid, kOtherOpaque), KS_SUCCESS);
    EXPECT_EQ(opaque_of(kAid), kOtherOpaque);
    EXPECT_THAT(listed(), ElementsAre(kAid));
    EXPECT_EQ(ks_clear_all_pacs(), KS_SUCCESS);
    EXPECT_THAT(listed(), IsEmpty());
    return true;
  }));
  service->reload(ks_test::config_of_own_user(7));
  EXPECT_EQ(opaque_of(kAid), kOpaque);
}

TEST_F(Pac, IsHeldByTheSupState) {
  ASSERT_EQ(store(kAid), KS_SUCCESS);
  const std::string config = ks_test::config_of_own_user(7);
  service->reload("[service]\nsupstate = 2\n" + config.substr(config.find('\n') + 1));
  EXPECT_EQ(ks_clear_pac(nullptr, 0), KS_NOT_REGISTERED);
  EXPECT_EQ(ks_clear_pac(kAid.data(), 3), KS_NOT_REGISTERED);
  EXPECT_EQ(ks_clear_all_pacs(), KS_NOT_REGISTERED);
  EXPECT_EQ(ks_clear_old_pacs("nobody"), KS_SUCCESS);
  EXPECT_EQ(opaque_of(kAid), kOpaque);
  service->reload(config);
}

// A client that doesn't look at what it stores.
KsResult store_unchecked(RawClient &client, const Bytes &aid, const Bytes &metadata) {
  const auto word = [](size_t n) {
    return Bytes{static_cast<uint8_t>(n), static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n >> 16), 0};
  };
  const size_t name_len = aid.size() + 4, key_offset = 20 + name_len;
  const Bytes descriptor = Bytes{static_cast<uint8_t>(name_len), 20, 0, 0} + word(kKey.size()) + word(key_offset) +
                           word(metadata.size()) + word(key_offset + kKey.size());
  return client.exchange(66569, descriptor, bytes("31 00 00 07") + aid + kKey + metadata).result();
}

TEST_F(Pac, WithDamageOfEveryKindIsAFailedReadAndIsAgedOut) {
  const Bytes empty_info = bytes("00 09 00 00");
  struct Case {
    const char *what;
    Bytes metadata;
    bool has_opaque = false, has_info = false;
  };
  const std::vector<Case> cases = {
      {"nothing", {}},
      {"one byte", bytes("00")},
      {"an opaque's type", bytes("00 02")},
      {"an opaque cut off in its length", bytes("00 02 00")},
      {"an info's type", bytes("00 09")},
      {"an info cut off in its length", bytes("00 09 00")},
      {"an opaque one byte too long", bytes("00 02 00 04 6f 70 71")},
      {"an info one byte too long", kOpaque + bytes("00 09 00 01")},
      {"an opaque whose size wraps to 0", bytes("00 02 ff fc 6f 70 71")},
      {"an info whose size wraps to 3", bytes("00 09 ff ff 6f 70 71")},
      {"two opaques", kOpaque + kOpaque + kInfo},
      {"two opaques, the second too long", kOpaque + bytes("00 02 ff fb")},
      {"two infos", kOpaque + kInfo + kInfo},
      {"an unknown type", kOpaque + kInfo + bytes("00 04 00 00")},
      {"an opaque with the mandatory bit", bytes("80 02 00 03 6f 70 71") + kInfo},
      {"a byte behind good TLVs", kOpaque + kInfo + bytes("00")},
      {"the largest there can be", bytes("00 02 ff ff") + Bytes(65000, 2)},
      {"an opaque alone", kOpaque, true, false},
      {"an info alone", empty_info, false, true},
      {"an info cut off inside", kOpaque + bytes("00 09 00 03 00 05 00"), true, true},
      {"an inner size that runs out", kOpaque + bytes("00 09 00 07 80 03 00 04 65 00 00"), true, true},
  };
  RawClient client(service->socket());
  ASSERT_EQ(client.hello().vdc_id, 7u);
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_EQ(store_unchecked(client, kAid, c.metadata), KS_SUCCESS);
    EXPECT_EQ(opaque_of(kAid), c.has_opaque ? kOpaque : Bytes());
    EXPECT_EQ(result, c.has_opaque ? KS_SUCCESS : KS_FAILURE);
    const Bytes info = info_of(kAid);
    EXPECT_EQ(result, c.has_info ? KS_SUCCESS : KS_FAILURE);
    EXPECT_EQ(info.empty(), !c.has_info);
    EXPECT_EQ(expiry_of(kAid), 0u);
  }
  // The last one, like all that lack bob's name, goes for its damage.
  EXPECT_EQ(ks_clear_old_pacs("bob"), KS_SUCCESS);
  EXPECT_THAT(listed(), IsEmpty());
}

}  // namespace
