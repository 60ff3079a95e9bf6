// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What handlers stand on: requests and replies.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "handlers/reply.h"
#include "handlers/request.h"

namespace {

using ksd::Caller;
using ksd::handlers::Reply;
using ksd::handlers::Request;
using testing::ElementsAre;
using testing::SizeIs;

using Wire = std::vector<uint8_t>;

TEST(RequestSection, LiesWhollyBehindTheDescriptor) {
  const Wire message{1, 2, 3, 4, 5};
  const Caller caller;
  const Request request{66561, message, 2, caller};
  EXPECT_THAT(*request.section(2, 3), ElementsAre(3, 4, 5));
  EXPECT_THAT(*request.section(5, 0), SizeIs(0));
  EXPECT_FALSE(request.section(1, 1));
  EXPECT_FALSE(request.section(2, 4));
  EXPECT_FALSE(request.section(6, 0));
  EXPECT_FALSE(request.section(5, SIZE_MAX));
  EXPECT_FALSE(request.section(SIZE_MAX, 1));
}

TEST(RequestDescriptor, HasExactlyTheSizeOfItsRecord) {
  const Wire message{1, 2, 3};
  const Caller caller;
  EXPECT_EQ((Request{66561, message, 2, caller}.descriptor<uint16_t>()), 0x0201);
  EXPECT_FALSE((Request{66561, message, 3, caller}.descriptor<uint16_t>()));
  EXPECT_FALSE((Request{66561, message, 1, caller}.descriptor<uint16_t>()));
}

TEST(Reply, IsAResultAlone) {
  Reply reply;
  reply.result(5);
  EXPECT_THAT(reply.payload(), ElementsAre(5, 0, 0, 0));
}

TEST(Reply, IsSuccessLengthAndData) {
  Reply reply;
  reply.data(Wire{0xaa, 0xbb});
  EXPECT_THAT(reply.payload(), ElementsAre(1, 0, 0, 0, 2, 0, 0xaa, 0xbb));
  reply.data({});
  EXPECT_THAT(reply.payload(), ElementsAre(1, 0, 0, 0, 0, 0));
}

TEST(Reply, SaysWhenDataIsTooLongForItsLength) {
  Reply reply;
  reply.data(Wire(65535, 1));
  EXPECT_THAT(reply.payload(), SizeIs(6 + 65535));
  reply.data(Wire(65536, 1));
  EXPECT_THAT(reply.payload(), ElementsAre(25, 0, 0, 0));
}

}  // namespace
