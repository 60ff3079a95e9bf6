// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What ks.hpp has beyond the functions for C, whose tests are in helpers/. A program of its own: functions of a header
// are there once in a program, and those tests have theirs over another heap.
#include <span>

#include "ks.hpp"
#include "scripted.h"

namespace {

using namespace std::chrono_literals;
using scripted::bytes;
using testing::ElementsAre;

using ByteVector = std::vector<uint8_t>;

class Header : public scripted::Test {};

ByteVector copy(ks::Bytes content) {
  return {content.begin(), content.end()};
}

TEST_F(Header, TakesBytesFromWhateverHoldsThem) {
  const ByteVector vector = {1, 2};
  const std::string string = "ab";
  const std::array<std::byte, 1> array = {std::byte{7}};
  const uint8_t plain[] = {0, 9, 0};
  EXPECT_THAT(copy(vector), ElementsAre(1, 2));
  EXPECT_THAT(copy(std::span(vector).first(1)), ElementsAre(1));
  EXPECT_THAT(copy(string), ElementsAre('a', 'b'));
  EXPECT_THAT(copy(std::string_view("cd\0e", 4)), ElementsAre('c', 'd', 0, 'e'));
  EXPECT_THAT(copy(array), ElementsAre(7));
  EXPECT_THAT(copy(plain), ElementsAre(0, 9, 0));
  EXPECT_THAT(copy("text"), ElementsAre('t', 'e', 'x', 't')) << "without its NUL";
  EXPECT_TRUE(ks::Bytes(static_cast<const char *>(nullptr)).empty());
  static_assert(!std::is_constructible_v<ks::Bytes, std::vector<int>> && !std::is_constructible_v<ks::Bytes, int>);
}

TEST_F(Header, ComparesBytesAndLooksAtParts) {
  const ks::Bytes abc = "abc";
  EXPECT_TRUE(abc == ks::Bytes("abc"));
  EXPECT_TRUE(abc != ks::Bytes("abd"));
  EXPECT_TRUE(abc != ks::Bytes("ab"));
  EXPECT_TRUE(ks::Bytes() == ks::Bytes(""));
  EXPECT_EQ(abc.first(2).text(), "ab");
  EXPECT_EQ(abc.from(2).text(), "c");
  EXPECT_EQ(abc.from(3).size(), 0u);
  EXPECT_FALSE(ks::Bytes(nullptr, 1).is_given());
  EXPECT_TRUE(ks::Bytes(nullptr, 0).is_given());
}

TEST_F(Header, JoinsBytesIntoABufferThatMoves) {
  auto joined = ks::Buffer::joined("ab", "c");
  ASSERT_TRUE(joined);
  ks::Buffer first = *std::move(joined);
  ks::Buffer second(std::move(first));
  EXPECT_TRUE(first.empty());
  EXPECT_EQ(first.data(), nullptr);
  EXPECT_EQ(ks::Bytes(second).text(), "abc");
  ks::Buffer third;
  third = std::move(second);
  EXPECT_EQ(ks::Bytes(third).text(), "abc");
  third.data()[0] = 'x';
  uint8_t *const block = third.release();
  EXPECT_EQ(block[0], 'x');
  EXPECT_TRUE(third.empty());
  free(block);

  EXPECT_TRUE(ks::Buffer::joined({}, {}).ok());
  EXPECT_EQ(ks::Buffer::joined({nullptr, 1}, "a").code(), KS_INVALID_ARGS);
  EXPECT_EQ(ks::Buffer::joined("a", {nullptr, 1}).code(), KS_INVALID_ARGS);
  EXPECT_EQ(ks::Buffer::joined("a", {"b", SIZE_MAX}).code(), KS_NO_MEMORY) << "whose sum is 0";
}

TEST_F(Header, TellsAFailureByItsCodeAndText) {
  const ks::Result<int> failure = ks::Failure{KS_NOT_FOUND};
  EXPECT_FALSE(failure);
  EXPECT_EQ(failure.code(), KS_NOT_FOUND);
  EXPECT_STREQ(failure.text(), kserr2str(KS_NOT_FOUND));
  EXPECT_EQ(*failure, 0) << "an empty value";
  const ks::Result<> nothing_registered = KS_NOT_REGISTERED;
  EXPECT_FALSE(nothing_registered) << "0 is no success";
  EXPECT_TRUE(ks::Result<>(KS_SUCCESS));
  const ks::Result<int> seven = 7;
  EXPECT_TRUE(seven);
  EXPECT_EQ(seven.code(), KS_SUCCESS);
  EXPECT_EQ(seven.value(), 7);
}

TEST_F(Header, HandsAnEmptyValueOnAsABadArgument) {
  ks::PacInfo far_away;
  far_away.expires = ks::TimePoint(std::chrono::seconds(0x100000000));
  const auto metadata = ks::make_pac_metadata("opaque", far_away);
  EXPECT_EQ(metadata.code(), KS_INVALID_ARGS);
  EXPECT_EQ(ks::store_pac("aid", "key", *metadata).code(), KS_INVALID_ARGS);
  EXPECT_TRUE(mts.requests.empty());
}

TEST_F(Header, KeepsTimesToTheSecond) {
  ks::PacInfo info;
  info.expires = ks::TimePoint(5s + 999ms);
  EXPECT_EQ(copy(*ks::make_pac_metadata("o", info)), bytes("00 02 00 01 6f 00 09 00 08 00 03 00 04 00 00 00 05"));
  info.expires = ks::TimePoint(999ms);
  EXPECT_EQ(ks::make_pac_metadata("o", info).code(), KS_INVALID_ARGS) << "which would read as none";
  info.expires = ks::TimePoint(-1s);
  EXPECT_EQ(ks::make_pac_metadata("o", info).code(), KS_INVALID_ARGS);
}

TEST_F(Header, TellsWhetherATimeHasPassed) {
  const ks::TimePoint now(1000s);
  EXPECT_TRUE(ks::has_expired(now, now));
  EXPECT_FALSE(ks::has_expired(now + 1s, now));
  EXPECT_FALSE(ks::has_expired(std::nullopt, now));
}

TEST_F(Header, KeepsWhatAPacPointsToWhenThePacMoves) {
  auto pac = ks::Pac::of(*ks::make_pac_metadata("opaque", {}));
  ASSERT_TRUE(pac);
  const ks::Pac moved = *std::move(pac);
  EXPECT_EQ(moved.opaque().value.text(), "opaque");
  EXPECT_EQ(moved.opaque().whole.data(), moved.metadata().data());
  EXPECT_TRUE(moved.info());
  EXPECT_EQ(ks::Pac::of(ks::Buffer()).code(), KS_FAILURE);
  const ks::Pac none;
  EXPECT_EQ(none.info().code(), KS_FAILURE);
}

TEST_F(Header, StartsTheLibrary) {
  EXPECT_TRUE(ks::start(0x01020304));
  EXPECT_EQ(app_uuid, 0x01020304u);
  EXPECT_EQ(mts.binds.size(), 1u);
}

}  // namespace
