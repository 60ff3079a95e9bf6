// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Administration messages, as they look to those who may send them and to those who may not.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <set>

#include "ksctl.h"
#include "service/raw_client.h"

namespace {

using ks_test::Datagram;
using ks_test::RawClient;
using ks_test::ServiceProcess;
using ks_test::ServiceSetup;
using ks_test::with_administrator;
using testing::ElementsAre;

const Datagram kRpcError{26, 0, 0, 0};
const std::set<uint32_t> kMessages{2, 3, 4, 5, 6, 7, 8, 9, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29};
constexpr uint32_t kFirstOfTheCatalogue = 66561;
constexpr uint32_t kChannel = 64;  // which everybody may ask for

uint32_t word_at(const Datagram &payload, size_t offset) {
  uint32_t word = 0;
  std::memcpy(&word, payload.data() + offset, sizeof word);
  return word;
}

// The opcodes below the catalogue that are tried: all near its ends, where messages are, and every 101st between them.
uint32_t next_opcode(uint32_t opcode) {
  const bool near_an_end = opcode < 512 || opcode + 101 >= kFirstOfTheCatalogue;
  const uint32_t next = opcode + (near_an_end ? 1 : 101);
  return next == kChannel ? next + 1 : next;
}

// The opcodes below the catalogue, with all the payloads that the messages have, as a caller who is no administrator:
// the first that isn't answered as an unknown opcode is, or 0.
uint32_t first_known_opcode(const std::string &socket) {
  RawClient client(socket);
  for (uint32_t opcode = 2; opcode < kFirstOfTheCatalogue; opcode = next_opcode(opcode)) {
    if (client.exchange(opcode, {}).payload != kRpcError) return opcode;
    if (opcode < 128 && client.exchange(opcode, {0, 0, 0, 0}).payload != kRpcError) return opcode;
    if (opcode < 128 && client.exchange(opcode, {}, {1, 2, 3}).payload != kRpcError) return opcode;
  }
  return 0;
}

TEST(Administration, IsAnUnknownOpcodeToAMappedUser) {
  const ServiceProcess service;
  EXPECT_EQ(first_known_opcode(service.socket()), 0u);
}

TEST(Administration, IsAnUnknownOpcodeToAUserWithoutAVdc) {
  ServiceSetup setup;
  setup.config = "[administrators]\nusers = []\n";
  const ServiceProcess service(setup);
  ASSERT_EQ(RawClient(service.socket()).hello().vdc_id, 0xffffu);
  EXPECT_EQ(first_known_opcode(service.socket()), 0u);
}

TEST(Administration, HasTheMessagesOfThePageAndNoOthers) {
  const ServiceProcess service(with_administrator());
  RawClient client(service.socket());
  std::set<uint32_t> known;
  for (uint32_t opcode = 2; opcode < kFirstOfTheCatalogue; opcode = next_opcode(opcode)) {
    if (client.exchange(opcode, {0, 0, 0, 0}).payload != kRpcError) known.insert(opcode);
  }
  EXPECT_EQ(known, kMessages);
}

TEST(Administration, RefusesAPayloadThatAMessageDoesntTake) {
  const ServiceProcess service(with_administrator());
  RawClient client(service.socket());
  for (const uint32_t opcode : kMessages) {
    EXPECT_EQ(client.exchange(opcode, {1, 2, 3}).payload, (Datagram{3, 0, 0, 0})) << opcode;
    EXPECT_EQ(client.exchange(opcode, {}, {1, 2, 3, 4}).payload, (Datagram{3, 0, 0, 0})) << opcode;
    EXPECT_EQ(client.exchange(opcode, {0, 0, 0, 0}, {1}).payload, (Datagram{3, 0, 0, 0})) << opcode;
  }
}

TEST(Administration, IsTakenFromAUserByAReload) {
  ServiceProcess service(with_administrator());
  RawClient client(service.socket());
  EXPECT_EQ(client.exchange(2, {}).payload.size(), 1144u);
  service.reload(ks_test::config_of_own_user(7));
  EXPECT_EQ(client.exchange(2, {}).payload, kRpcError);
}

TEST(Administration, CountsMessagesOfAllAndOfAUser) {
  const ServiceProcess service(with_administrator());
  RawClient client(service.socket());
  for (int i = 0; i < 5; ++i) client.exchange(66593, {});
  client.exchange(66565, {});  // without a name

  const uint32_t uid = getuid();
  Datagram own(4);
  std::memcpy(own.data(), &uid, 4);
  for (const Datagram &whose : {Datagram{}, own}) {
    const Datagram counted = client.exchange(3, whose).payload;
    ASSERT_EQ(counted.size(), 88u + 30 * 56);
    EXPECT_EQ(word_at(counted, 4), 30u);
    EXPECT_EQ(word_at(counted, 88 + 28 * 56), 66593u);
    EXPECT_EQ(word_at(counted, 88 + 28 * 56 + 8), 5u);
    EXPECT_EQ(word_at(counted, 88 + 28 * 56 + 16), 0u);
    EXPECT_EQ(word_at(counted, 88 + 4 * 56), 66565u);
    EXPECT_EQ(word_at(counted, 88 + 4 * 56 + 8), 0u);
    EXPECT_EQ(word_at(counted, 88 + 4 * 56 + 16), 1u);
  }
}

TEST(Administration, KnowsNoCountsOfAUserWhoHasntBeenThere) {
  const ServiceProcess service(with_administrator());
  RawClient client(service.socket());
  EXPECT_EQ(client.exchange(3, {0xfe, 0xff, 0xff, 0x7f}).payload, (Datagram{5, 0, 0, 0}));
}

TEST(Administration, TimesAMessagesFirstRequestAndEvery16thThen) {
  const ServiceProcess service(with_administrator());
  RawClient client(service.socket());
  const auto timed = [&] {
    const Datagram reply = client.exchange(4, {}).payload;
    uint32_t sum = 0;
    for (size_t bucket = 0; bucket < 96; ++bucket) sum += word_at(reply, 24 + 28 * 776 + 8 + 8 * bucket);
    return sum;
  };
  EXPECT_EQ(timed(), 0u);
  client.exchange(66593, {});
  EXPECT_EQ(timed(), 1u);
  for (int i = 0; i < 15; ++i) client.exchange(66593, {});
  EXPECT_EQ(timed(), 1u);
  client.exchange(66593, {});
  EXPECT_EQ(timed(), 2u);
}

TEST(Administration, WritesTheLogBackAndSaysHowLongItWas) {
  const ServiceProcess service(with_administrator());
  RawClient client(service.socket());
  EXPECT_EQ(client.exchange(9, {}).payload, (Datagram{1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  const Datagram store{5, 12, 0, 17, 1, 0, 17, 0, 0, 0, 18, 0};
  ASSERT_EQ(client.exchange(66562, store, {0x30, 0, 0, 7, 'a', 's'}).result(), 1u);
  EXPECT_GT(word_at(client.exchange(9, {}).payload, 8), 0u);
  EXPECT_EQ(word_at(client.exchange(9, {}).payload, 8), 0u);
}

TEST(Administration, PagesLongListsAscendingByUser) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to be several users";
  ServiceSetup setup = with_administrator();
  setup.config += "[[vdc]]\nid = 8\nusers = [";
  for (uint32_t uid = 30000; uid < 30260; ++uid) setup.config += std::to_string(uid) + ",";
  setup.config += "]\n";
  const ServiceProcess service(setup);
  for (uint32_t uid = 30000; uid < 30260; ++uid) {
    ASSERT_EQ(ks_test::run_as(uid, uid,
                              [&] {
                                const std::string name = std::to_string(uid);
                                Datagram sections{0x30, 0, 0, 8};
                                sections.insert(sections.end(), name.begin(), name.end());
                                sections.push_back('s');
                                const Datagram store{9, 12, 0, 21, 1, 0, 21, 0, 0, 0, 22, 0};
                                return RawClient(service.socket()).exchange(66562, store, sections).result() == 1 ? 0
                                                                                                                  : 1;
                              }),
              0);
  }
  RawClient client(service.socket());
  const Datagram first = client.exchange(6, {0, 0, 0, 0}).payload;
  ASSERT_EQ(first.size(), 16u + 256 * 24);
  EXPECT_THAT((std::vector<uint32_t>{word_at(first, 4), word_at(first, 8), word_at(first, 12)}),
              ElementsAre(256, 1, 24));
  EXPECT_EQ(word_at(first, 16), 30000u);
  EXPECT_EQ(word_at(first, 20), 8u);
  EXPECT_EQ(word_at(first, 24), 1u);
  EXPECT_EQ(word_at(first, 32), 1u);
  const uint32_t behind = word_at(first, 16 + 255 * 24) + 1;
  EXPECT_EQ(behind, 30256u);
  Datagram from(4);
  std::memcpy(from.data(), &behind, 4);
  const Datagram second = client.exchange(6, from).payload;
  EXPECT_THAT((std::vector<uint32_t>{word_at(second, 4), word_at(second, 8)}), ElementsAre(4, 0));
  EXPECT_EQ(second.size(), 16u + 4 * 24);
}

}  // namespace
