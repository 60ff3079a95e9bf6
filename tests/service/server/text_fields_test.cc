// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Texts in replies: whole as long as they fit with their end, else cut where they say least.
#include "server/text_fields.h"

#include <gtest/gtest.h>

namespace {

using ksd::server::put_path;
using ksd::server::put_text;
using ksd::server::text_of;

// A place that is full of something else, with a byte behind it that isn't its own.
struct Reply {
  char place[8] = {'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x'};
  char behind = 'b';
};

TEST(TextField, KeepsATextThatFitsWithItsEnd) {
  Reply reply;
  put_text(reply.place, "1234567");
  EXPECT_STREQ(reply.place, "1234567");
  put_text(reply.place, "");
  EXPECT_STREQ(reply.place, "");
}

TEST(TextField, CutsTheEndOfALongerText) {
  Reply reply;
  put_text(reply.place, "12345678");
  EXPECT_STREQ(reply.place, "1234...");
  EXPECT_EQ(reply.behind, 'b');
}

TEST(TextField, KeepsAPathThatFitsWithItsEnd) {
  Reply reply;
  put_path(reply.place, "/a/b/cd");
  EXPECT_STREQ(reply.place, "/a/b/cd");
}

TEST(TextField, CutsTheBeginningOfALongerPath) {
  Reply reply;
  put_path(reply.place, "/a/b/c/d");
  EXPECT_STREQ(reply.place, ".../c/d");
  EXPECT_EQ(reply.behind, 'b');
}

TEST(TextField, IsReadUpToItsEndOrAllOfIt) {
  Reply reply;
  EXPECT_EQ(text_of(reply.place), "xxxxxxxx");
  put_text(reply.place, "ab");
  EXPECT_EQ(text_of(reply.place), "ab");
}

}  // namespace
