// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// PAC metadata made and taken apart, without a message.
#include "helpers_fixture.h"

namespace {

using helpers::Bytes;
using helpers::bytes;
using helpers::copy;
using helpers::kInfo;
using helpers::kOpaque;
using helpers::view;
using helpers::operator+;
using scripted::bytes_of;
using scripted::Guarded;
using testing::Each;

class Metadata : public helpers::Keystore {
 protected:
  KsResult make(const KshPacInfo &info, const Bytes &opaque = bytes("6f 70 71")) {
    return ksh_make_pac_metadata(opaque.data(), opaque.size(), &info, &buffer);
  }
  static KsResult parse(const Bytes &metadata, KshPacParts *parts) {
    Guarded memory(metadata);
    return ksh_parse_pac_metadata(memory.data(), metadata.size(), parts);
  }
  static KsResult parse_info(const Bytes &tlv, KshPacInfo *info) {
    Guarded memory(tlv);
    return ksh_parse_pac_info(memory.data(), tlv.size(), info);
  }

  KshBuffer buffer = {};
  // What outputs hold before a call that is to leave them alone.
  const KshPacInfo untouched_info{0x5a5a, {nullptr, 1}, {nullptr, 2}, {nullptr, 3}, 4};
};

TEST_F(Metadata, IsMadeOfAnOpaqueAndAllThatIsToldOfIt) {
  const Bytes alice = bytes_of("alice"), authority = bytes("a1 00"), lab = bytes_of("lab");
  ASSERT_EQ(make({0x65000102, view(alice), view(authority), view(lab), EAP_FAST_PAC_TYPE_MACHINE}), KS_SUCCESS);
  EXPECT_EQ(taken(&buffer), bytes("00 02 00 03 6f 70 71"
                                  "00 09 00 24"
                                  "  00 03 00 04 65 00 01 02"
                                  "  00 04 00 02 a1 00"
                                  "  00 05 00 05 61 6c 69 63 65"
                                  "  00 07 00 03 6c 61 62"
                                  "  00 0a 00 02 00 02"));
}

TEST_F(Metadata, HasAnEmptyInfoWhereNothingIsTold) {
  ASSERT_EQ(make({}), KS_SUCCESS);
  EXPECT_EQ(taken(&buffer), bytes("00 02 00 03 6f 70 71  00 09 00 00"));
}

TEST_F(Metadata, TakesEveryTimeOf32BitsAndNoOther) {
  ASSERT_EQ(make({1, {}, {}, {}, 0}), KS_SUCCESS);
  EXPECT_EQ(taken(&buffer), kOpaque + bytes("00 09 00 08 00 03 00 04 00 00 00 01"));
  ASSERT_EQ(make({0xffffffff, {}, {}, {}, 0}), KS_SUCCESS);
  EXPECT_EQ(taken(&buffer), kOpaque + bytes("00 09 00 08 00 03 00 04 ff ff ff ff"));
  EXPECT_EQ(make({-1, {}, {}, {}, 0}), KS_INVALID_ARGS);
  EXPECT_EQ(make({0x100000000, {}, {}, {}, 0}), KS_INVALID_ARGS);
}

TEST_F(Metadata, IsRefusedWhereItWouldHaveMoreThan65535Bytes) {
  const size_t headers = 8;
  ASSERT_EQ(make({}, Bytes(65535 - headers)), KS_SUCCESS);
  EXPECT_EQ(taken(&buffer).size(), 65535u);
  EXPECT_EQ(make({}, Bytes(65536 - headers)), KS_RPC_TOO_LARGE);
  EXPECT_EQ(make({}, Bytes(65536)), KS_RPC_TOO_LARGE);
  const Bytes longest(65536);
  EXPECT_EQ(make({0, view(longest), {}, {}, 0}), KS_RPC_TOO_LARGE);
  const Bytes long_identity(40000), long_issuer(30000);
  EXPECT_EQ(make({0, view(long_identity), {}, view(long_issuer), 0}), KS_RPC_TOO_LARGE);
  EXPECT_EQ(buffer.data, nullptr);
}

TEST_F(Metadata, IsRefusedWithoutAnOpaqueOrAPointer) {
  const KshPacInfo info = {};
  EXPECT_EQ(make(info, {}), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_make_pac_metadata(nullptr, 3, &info, &buffer), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_make_pac_metadata("opq", 3, nullptr, &buffer), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_make_pac_metadata("opq", 3, &info, nullptr), KS_INVALID_ARGS);
  EXPECT_EQ(make({0, {nullptr, 1}, {}, {}, 0}), KS_INVALID_ARGS);
}

TEST_F(Metadata, LeavesNothingBehindWhereMemoryEnds) {
  const Bytes alice = bytes_of("alice");
  expect_survives_each_failed_allocation(
      [&] {
        const KsResult result = make({1, view(alice), {}, {}, 0});
        ksh_free_buffer(&buffer);
        return result;
      },
      [](KsResult result) { EXPECT_EQ(result, KS_NO_MEMORY); });
}

TEST_F(Metadata, GrowsTlvByTlv) {
  KshBuffer inner = {};
  EXPECT_EQ(ksh_append_tlv(&inner, 0x8004, "\xa1", 1), KS_SUCCESS);
  EXPECT_EQ(ksh_append_tlv(&inner, 99, nullptr, 0), KS_SUCCESS);
  ASSERT_EQ(ksh_append_tlv(&buffer, EAP_FAST_PAC_INFO, inner.data, inner.size), KS_SUCCESS);
  ksh_free_buffer(&inner);
  EXPECT_EQ(taken(&buffer), bytes("00 09 00 09  80 04 00 01 a1  00 63 00 00"));
}

TEST_F(Metadata, KeepsABufferToWhichNothingCanBeAppended) {
  ASSERT_EQ(ksh_append_tlv(&buffer, 1, "x", 1), KS_SUCCESS);
  const KshBuffer before = buffer;
  const Bytes most(65536);
  EXPECT_EQ(ksh_append_tlv(&buffer, 1, most.data(), most.size()), KS_RPC_TOO_LARGE);
  EXPECT_EQ(ksh_append_tlv(&buffer, 1, nullptr, 1), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_append_tlv(nullptr, 1, "x", 1), KS_INVALID_ARGS);
  for (int n = 1; n <= 2; ++n) {
    heap.fail_nth(n);
    EXPECT_EQ(ksh_append_tlv(&buffer, 1, "y", 1), KS_NO_MEMORY);
  }
  EXPECT_EQ(buffer.data, before.data);
  EXPECT_EQ(taken(&buffer), bytes("00 01 00 01 78"));
}

TEST_F(Metadata, FreesABufferOnceHoweverOftenItIsAsked) {
  ASSERT_EQ(make({}), KS_SUCCESS);
  ksh_free_buffer(&buffer);
  ksh_free_buffer(&buffer);
  ksh_free_buffer(nullptr);
}

TEST_F(Metadata, ComesApartInEitherOrder) {
  const Bytes metadata = kInfo + kOpaque;
  Guarded memory(metadata);
  KshPacParts parts = {};
  ASSERT_EQ(ksh_parse_pac_metadata(memory.data(), memory.size(), &parts), KS_SUCCESS);
  EXPECT_EQ(copy(parts.opaque.whole), kOpaque);
  EXPECT_EQ(copy(parts.opaque.value), bytes("6f 70 71"));
  EXPECT_EQ(parts.opaque.type, 2);
  EXPECT_EQ(copy(parts.info.whole), kInfo);
  EXPECT_EQ(copy(parts.info.value), bytes("00 03 00 04 65 00 00 00"));
  EXPECT_EQ(parts.info.whole.data, memory.data()) << "nothing is copied";
}

TEST_F(Metadata, IsRefusedWhereATlvIsMissingTwiceThereUnknownOrCut) {
  const std::vector<Bytes> damaged = {
      {},
      kOpaque,
      kInfo,
      kOpaque + kOpaque + kInfo,
      kOpaque + kInfo + kInfo,
      kOpaque + kInfo + bytes("00 04 00 00"),
      bytes("80 02 00 03 6f 70 71") + kInfo,  // the mandatory bit makes another type of it out here
      kOpaque + kInfo + bytes("00"),
      kOpaque + bytes("00 09"),
      kOpaque + bytes("00 09 00"),
      kOpaque + bytes("00 09 00 01"),
      kOpaque + bytes("00 09 ff ff") + Bytes(65534),
      bytes("00 02 ff fc 6f 70 71") + kInfo,
  };
  for (const Bytes &metadata : damaged) {
    KshPacParts parts = {};
    parts.opaque.type = 0x5a5a;
    EXPECT_EQ(parse(metadata, &parts), KS_FAILURE) << testing::PrintToString(metadata);
    EXPECT_EQ(parts.opaque.type, 0x5a5a);
  }
  KshPacParts parts = {};
  EXPECT_EQ(ksh_parse_pac_metadata(nullptr, 4, &parts), KS_FAILURE);
  EXPECT_EQ(ksh_parse_pac_metadata(kOpaque.data(), kOpaque.size(), nullptr), KS_INVALID_ARGS);
}

TEST_F(Metadata, TellsWhatItsInfoTells) {
  const Bytes tlv = bytes(
      "00 09 00 28  80 03 00 04 fe dc ba 98  00 63 00 01 01  00 04 00 02 a1 00  80 05 00 06 61 6c 69 63 65 00"
      "00 07 00 01 6c  00 0a 00 02 00 03");
  Guarded memory(tlv);
  KshPacInfo info = untouched_info;
  ASSERT_EQ(ksh_parse_pac_info(memory.data(), memory.size(), &info), KS_SUCCESS);
  EXPECT_EQ(info.expires, 0xfedcba98) << "in the order of the wire, and positive";
  EXPECT_EQ(copy(info.identity), bytes_of("alice")) << "without its NUL";
  EXPECT_EQ(copy(info.a_id), bytes("a1 00")) << "which may end with a zero";
  EXPECT_EQ(copy(info.issuer), bytes_of("l"));
  EXPECT_EQ(info.type, EAP_FAST_PAC_TYPE_USER_AUTHORIZATION);
}

TEST_F(Metadata, TellsNothingOfAnEmptyInfo) {
  KshPacInfo info = untouched_info;
  ASSERT_EQ(parse_info(bytes("00 09 00 00"), &info), KS_SUCCESS);
  EXPECT_EQ(info.expires, 0);
  EXPECT_EQ(info.identity.size + info.a_id.size + info.issuer.size, 0u);
  EXPECT_EQ(info.type, 0);
}

TEST_F(Metadata, TellsTheFirstAttributeOfEachType) {
  KshPacInfo info = {};
  ASSERT_EQ(parse_info(bytes("00 09 00 10  00 03 00 04 00 00 00 05  80 03 00 04 00 00 00 09"), &info), KS_SUCCESS);
  EXPECT_EQ(info.expires, 5);
}

TEST_F(Metadata, RefusesADamagedInfo) {
  for (const char *damaged : {"", "00 09", "00 09 00 01", "00 02 00 00", "80 09 00 00", "00 09 00 00 00",
                              "00 09 00 02 00 03", "00 09 00 05 00 05 00 02 61", "00 09 00 07 00 03 00 03 65 00 00",
                              "00 09 00 09 00 03 00 05 65 00 00 00 00", "00 09 00 05 00 0a 00 01 01"}) {
    KshPacInfo info = untouched_info;
    EXPECT_EQ(parse_info(bytes(damaged), &info), KS_FAILURE) << damaged;
    EXPECT_EQ(info.expires, untouched_info.expires) << damaged;
  }
  EXPECT_EQ(ksh_parse_pac_info(kInfo.data(), kInfo.size(), nullptr), KS_INVALID_ARGS);
}

TEST_F(Metadata, IsReadTlvByTlv) {
  Guarded memory(bytes("80 03 00 02 aa bb  00 63 00 00  00 05 00 02 61"));
  KshBytes rest = {memory.data(), memory.size()};
  KshTlv tlv = {};
  ASSERT_EQ(ksh_next_tlv(&rest, &tlv), KS_SUCCESS);
  EXPECT_EQ(tlv.type, 0x8003) << "with the mandatory bit";
  EXPECT_EQ(copy(tlv.value), bytes("aa bb"));
  ASSERT_EQ(ksh_next_tlv(&rest, &tlv), KS_SUCCESS);
  EXPECT_EQ(tlv.type, 0x63);
  EXPECT_EQ(tlv.value.size, 0u);
  EXPECT_EQ(ksh_next_tlv(&rest, &tlv), KS_FAILURE);
  EXPECT_EQ(tlv.type, 0x63);
  EXPECT_EQ(rest.size, 5u) << "what is left stays";

  KshBytes nothing = {};
  EXPECT_EQ(ksh_next_tlv(&nothing, &tlv), KS_NO_MORE_ENTRIES);
  KshBytes nowhere = {nullptr, 4};
  EXPECT_EQ(ksh_next_tlv(&nowhere, &tlv), KS_FAILURE);
  EXPECT_EQ(ksh_next_tlv(nullptr, &tlv), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_next_tlv(&rest, nullptr), KS_INVALID_ARGS);
}

TEST_F(Metadata, IsNamedOnTheWireWithZerosBehindTheName) {
  KsWireName name;
  memset(&name, 0xee, sizeof name);
  uint32_t len = 0;
  ASSERT_EQ(ksh_pac_wire_name("\xa1\0\xa3", 3, &name, &len), KS_SUCCESS);
  EXPECT_EQ(len, 7u);
  Bytes expected = bytes("31 00 00 07 a1 00 a3");
  expected.resize(sizeof name);
  EXPECT_EQ(copy({reinterpret_cast<const uint8_t *>(&name), sizeof name}), expected);

  vdc_id = 0x1234;
  ASSERT_EQ(ksh_secret_wire_name("psk", &name, &len), KS_SUCCESS);
  EXPECT_EQ(copy({reinterpret_cast<const uint8_t *>(&name), len}), bytes("30 00 12 34 70 73 6b"));

  const std::string longest(31, 'n'), longer(32, 'n');
  EXPECT_EQ(ksh_secret_wire_name(longest.c_str(), &name, &len), KS_SUCCESS);
  EXPECT_EQ(len, 35u);
  const KsWireName before = name;
  EXPECT_EQ(ksh_secret_wire_name(longer.c_str(), &name, &len), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_secret_wire_name("", &name, &len), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_secret_wire_name(nullptr, &name, &len), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_pac_wire_name(nullptr, 3, &name, &len), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_pac_wire_name("x", 0, &name, &len), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_pac_wire_name(longer.data(), 32, &name, &len), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_pac_wire_name("x", 1, nullptr, &len), KS_INVALID_ARGS);
  EXPECT_EQ(ksh_pac_wire_name("x", 1, &name, nullptr), KS_INVALID_ARGS);
  EXPECT_EQ(memcmp(&name, &before, sizeof name), 0);
  EXPECT_EQ(len, 35u);
}

}  // namespace
