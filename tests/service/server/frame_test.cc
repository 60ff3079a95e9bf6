// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The check of a datagram, header by header, byte by byte.
#include "server/frame.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace {

using ksd::server::Frame;
using ksd::server::read_frame;
using ksd::server::Verdict;

std::vector<uint8_t> bytes(const std::string &hex) {
  std::vector<uint8_t> result;
  std::istringstream in(hex);
  for (unsigned byte = 0; in >> std::hex >> byte;) result.push_back(static_cast<uint8_t>(byte));
  return result;
}

Frame read(const std::vector<uint8_t> &datagram) {
  return read_frame(datagram, datagram.size());
}

// magic, version 1, descriptor of 2, opcode, token 9, node, SAP, application, payload of 3; then descriptor and section
const char kGood[] =
    "6b 77 73 31  01 00  02 00  04 04 01 00  09 00 00 00  00 00 00 fe  0b 00 00 00  00 00 00 00  03 00 00 00"
    "  01 02  aa";

std::vector<uint8_t> good_but(size_t position, uint8_t value) {
  std::vector<uint8_t> datagram = bytes(kGood);
  datagram[position] = value;
  return datagram;
}

TEST(ReadFrame, TakesAWellFormedDatagramApart) {
  const std::vector<uint8_t> datagram = bytes(kGood);
  const Frame frame = read(datagram);
  EXPECT_EQ(frame.verdict, Verdict::kGood);
  EXPECT_EQ(frame.header.opcode, 66564u);
  EXPECT_EQ(frame.header.token, 9u);
  EXPECT_EQ(frame.header.descriptor_size, 2);
  EXPECT_THAT(frame.message, testing::ElementsAre(1, 2, 0xaa));
}

TEST(ReadFrame, TakesAnythingShorterThanAHeaderForMalformed) {
  const std::vector<uint8_t> datagram = bytes(kGood);
  for (size_t size = 0; size < 32; ++size) {
    EXPECT_EQ(read_frame({datagram.data(), size}, size).verdict, Verdict::kMalformed) << size;
  }
}

TEST(ReadFrame, TellsAnotherProtocolFromFourBytesOn) {
  EXPECT_EQ(read(good_but(0, 0x6c)).verdict, Verdict::kForeign);
  EXPECT_EQ(read(bytes("47 45 54 20")).verdict, Verdict::kForeign);
  EXPECT_EQ(read(bytes("47 45 54")).verdict, Verdict::kMalformed);
}

TEST(ReadFrame, TellsAnotherVersion) {
  const Frame frame = read(good_but(4, 2));
  EXPECT_EQ(frame.verdict, Verdict::kWrongVersion);
  EXPECT_EQ(frame.header.token, 9u);  // so that the answer can repeat it
}

TEST(ReadFrame, RefusesSizesThatContradictEachOther) {
  EXPECT_EQ(read(good_but(28, 2)).verdict, Verdict::kMalformed);     // payload shorter than what came
  EXPECT_EQ(read(good_but(28, 4)).verdict, Verdict::kMalformed);     // longer
  EXPECT_EQ(read(good_but(31, 0xff)).verdict, Verdict::kMalformed);  // much longer
  EXPECT_EQ(read(good_but(6, 4)).verdict, Verdict::kMalformed);      // descriptor longer than the payload
  EXPECT_EQ(read(good_but(6, 3)).verdict, Verdict::kGood);           // all of it
}

TEST(ReadFrame, RefusesTheTokenThatNobodyHas) {
  EXPECT_EQ(read(good_but(12, 0)).verdict, Verdict::kMalformed);
}

TEST(ReadFrame, TakesTheLargestDatagramAndNoLarger) {
  std::vector<uint8_t> datagram = bytes(kGood);
  datagram.resize(32 + 192 * 1024);
  datagram[28] = 0x00;
  datagram[30] = 0x03;  // 0x30000
  EXPECT_EQ(read(datagram).verdict, Verdict::kGood);
  EXPECT_EQ(read_frame(datagram, datagram.size() + 1).verdict, Verdict::kTooLarge);
}

}  // namespace
