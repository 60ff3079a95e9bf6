// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// References, and the metadata that ties a PAC of the keystore to one (contrib/supplicant). The rest of it is tested
// with the program that it is built into (supplicant_test.py).
#include "../../contrib/supplicant/pac_reference.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

Bytes operator+(Bytes left, const Bytes &right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

Bytes taken(uint8_t *made, size_t len) {
  const std::unique_ptr<uint8_t, decltype(&std::free)> owner(made, std::free);
  return made == nullptr ? Bytes() : Bytes(made, made + len);
}

Bytes tie_tlv(const PacTie &tie) {
  uint32_t len = 0;
  uint8_t *const tlv = pac_tie_tlv(&tie, &len);
  return taken(tlv, len);
}

const Bytes kReference(PAC_REFERENCE_SIZE, 0xa1);
const Bytes kReplaced(PAC_REFERENCE_SIZE, 0xb2);
const Bytes kInfo = {0, 3, 0, 4, 0x6b, 0, 0, 1};
const Bytes kReferenceHead = {0x3f, 0xf0, 0, 32};
const Bytes kReplacedHead = {0x3f, 0xf1, 0, 32};

TEST(PacReference, IsAMarkAndRandomBytes) {
  const Bytes random(PAC_REFERENCE_RANDOM_SIZE, 0x5a);
  Bytes reference(PAC_REFERENCE_SIZE);
  pac_reference_make(random.data(), reference.data());
  EXPECT_EQ(reference, Bytes({'k', 's', ' ', 'P', 'A', 'C', ' ', 1}) + random);
  EXPECT_TRUE(pac_reference_is(reference.data()));
}

TEST(PacReference, IsToldFromAKeyByEachByteOfItsMark) {
  Bytes reference(PAC_REFERENCE_SIZE);
  pac_reference_make(Bytes(PAC_REFERENCE_RANDOM_SIZE).data(), reference.data());
  for (size_t i = 0; i < 8; ++i) {
    Bytes key = reference;
    key[i] ^= 0x80;
    EXPECT_FALSE(pac_reference_is(key.data())) << i;
  }
}

TEST(PacTie, HasTheReferenceInFrontOfThePacInfo) {
  const PacTie tie = {kReference.data(), nullptr, kInfo.data(), kInfo.size()};
  EXPECT_EQ(tie_tlv(tie), Bytes({0, 9, 0, 44}) + kReferenceHead + kReference + kInfo);
}

TEST(PacTie, HasTheReplacedReferenceNext) {
  const PacTie tie = {kReference.data(), kReplaced.data(), kInfo.data(), kInfo.size()};
  EXPECT_EQ(tie_tlv(tie), Bytes({0, 9, 0, 80}) + kReferenceHead + kReference + kReplacedHead + kReplaced + kInfo);
}

TEST(PacTie, IsReadAsItWasMade) {
  for (const uint8_t *replaced : {static_cast<const uint8_t *>(nullptr), kReplaced.data()}) {
    for (const Bytes &info : {Bytes(), kInfo, Bytes(3, 0xff)}) {  // the last one isn't whole, as a server may send it
      const Bytes tlv = tie_tlv({kReference.data(), replaced, info.data(), info.size()});
      PacTie read = {};
      ASSERT_TRUE(pac_tie_read(tlv.data(), static_cast<uint32_t>(tlv.size()), &read));
      EXPECT_EQ(Bytes(read.reference, read.reference + PAC_REFERENCE_SIZE), kReference);
      EXPECT_EQ(read.replaced != nullptr, replaced != nullptr);
      if (read.replaced != nullptr) {
        EXPECT_EQ(Bytes(read.replaced, read.replaced + PAC_REFERENCE_SIZE), kReplaced);
      }
      EXPECT_EQ(Bytes(read.info, read.info + read.info_len), info);
    }
  }
}

TEST(PacTie, IsNotInAnInfoOfAnotherProgram) {
  const Bytes reference_last = kInfo + kReferenceHead + kReference;
  const Bytes other_type = Bytes({0x3f, 0xf2, 0, 32}) + kReference;
  const Bytes other_size = Bytes({0x3f, 0xf0, 0, 31}) + kReference;
  for (const Bytes &content : {Bytes(), kInfo, reference_last, other_type, other_size}) {
    const Bytes tlv = Bytes({0, 9, 0, static_cast<uint8_t>(content.size())}) + content;
    PacTie read = {};
    EXPECT_FALSE(pac_tie_read(tlv.data(), static_cast<uint32_t>(tlv.size()), &read));
  }
}

TEST(PacTie, IsReadWithinItsBounds) {
  const Bytes tlv = tie_tlv({kReference.data(), kReplaced.data(), nullptr, 0});
  for (size_t size = 0; size < tlv.size(); ++size) {
    const std::unique_ptr<uint8_t[]> cut(new uint8_t[size]);  // behind which a sanitizer sees a read
    std::copy_n(tlv.begin(), size, cut.get());
    PacTie read = {};
    const bool has_reference = size >= 4 + kReferenceHead.size() + PAC_REFERENCE_SIZE;
    EXPECT_EQ(pac_tie_read(cut.get(), static_cast<uint32_t>(size), &read), has_reference) << size;
    EXPECT_EQ(read.replaced, nullptr) << size;
  }
}

TEST(PacTie, TakesWhatATlvCanHoldAndNoMore) {
  const Bytes info(UINT16_MAX - 36 + 1);
  EXPECT_EQ(tie_tlv({kReference.data(), nullptr, info.data(), info.size() - 1}).size(), 4u + UINT16_MAX);
  EXPECT_EQ(tie_tlv({kReference.data(), nullptr, info.data(), info.size()}), Bytes());
}

TEST(PacInfo, IsMadeOfTheAttributesThatAreThere) {
  const Bytes a_id = {1, 2}, i_id = {'m', 'e'}, a_id_info = {'i', 't'};
  size_t len = 0;
  const PacAttributes all = {a_id.data(), i_id.data(), a_id_info.data(), 2, 2, 2, 1};
  uint8_t *made = pac_info_of(&all, &len);
  EXPECT_EQ(taken(made, len), Bytes({0, 4, 0, 2, 1, 2, 0, 5, 0, 2, 'm', 'e', 0, 7, 0, 2, 'i', 't', 0, 10, 0, 2, 0, 1}));
  const PacAttributes few = {a_id.data(), nullptr, nullptr, 2, 0, 0, 0x0203};
  made = pac_info_of(&few, &len);
  EXPECT_EQ(taken(made, len), Bytes({0, 4, 0, 2, 1, 2, 0, 10, 0, 2, 2, 3}));
}

TEST(PacInfo, TakesWhatATlvCanHoldAndNoMore) {
  const Bytes i_id(UINT16_MAX);
  PacAttributes attributes = {nullptr, i_id.data(), nullptr, 0, UINT16_MAX - 10, 0, 1};
  size_t len = 0;
  uint8_t *const made = pac_info_of(&attributes, &len);
  EXPECT_EQ(taken(made, len).size(), size_t{UINT16_MAX});
  ++attributes.i_id_len;
  EXPECT_EQ(pac_info_of(&attributes, &len), nullptr);
}

TEST(PacOpaque, IsWrappedInItsTlv) {
  const Bytes opaque(UINT16_MAX + 1, 0x0b);
  uint32_t len = 0;
  uint8_t *made = pac_opaque_tlv(opaque.data(), 3, &len);
  EXPECT_EQ(taken(made, len), Bytes({0, 2, 0, 3, 0x0b, 0x0b, 0x0b}));
  made = pac_opaque_tlv(nullptr, 0, &len);
  EXPECT_EQ(taken(made, len), Bytes({0, 2, 0, 0}));
  made = pac_opaque_tlv(opaque.data(), UINT16_MAX, &len);
  EXPECT_EQ(taken(made, len).size(), 4u + UINT16_MAX);
  EXPECT_EQ(pac_opaque_tlv(opaque.data(), opaque.size(), &len), nullptr);
}

}  // namespace
