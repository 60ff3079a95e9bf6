// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Names on the wire: which are taken, and what they look like.
#include "base/entry_name.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using ksd::entry_name;
using ksd::wire_name;
using testing::ElementsAre;

using Wire = std::vector<uint8_t>;

TEST(EntryName, DecodesTagVdcAndName) {
  const auto name = entry_name(Wire{0x31, 0, 0x01, 0x02, 0xff, 0x00});
  ASSERT_TRUE(name);
  EXPECT_EQ(name->tag, 0x31);
  EXPECT_EQ(name->vdc_id, 0x0102);
  EXPECT_EQ(name->name, std::string("\xff\0", 2));
}

TEST(EntryName, TakesOneTo31Bytes) {
  Wire wire{0x30, 0, 0, 7};
  EXPECT_FALSE(entry_name(wire));
  wire.resize(5, 'a');
  EXPECT_TRUE(entry_name(wire));
  wire.resize(35, 'a');
  EXPECT_TRUE(entry_name(wire));
  wire.resize(36, 'a');
  EXPECT_FALSE(entry_name(wire));
  EXPECT_FALSE(entry_name({}));
}

TEST(EntryName, RefusesAnotherTagAndAnotherSecondByte) {
  EXPECT_FALSE(entry_name(Wire{0x32, 0, 0, 7, 'a'}));
  EXPECT_FALSE(entry_name(Wire{0x00, 0, 0, 7, 'a'}));
  EXPECT_FALSE(entry_name(Wire{0x30, 1, 0, 7, 'a'}));
}

TEST(WireName, IsTagZeroBigEndianVdcAndName) {
  EXPECT_THAT(wire_name({0x30, 0x0107, "k1"}), ElementsAre(0x30, 0, 0x01, 0x07, 'k', '1'));
}

}  // namespace
