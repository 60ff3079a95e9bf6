// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "base/read_secret.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "base/fd.h"

namespace ksd {
namespace {

constexpr size_t kMost = 8;

// said gives what is read of a pipe that holds `content`.
std::string said(const std::string &content, SecretEnd end) {
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  const UniqueFd reading(ends[0]);
  {
    const UniqueFd writing(ends[1]);
    EXPECT_EQ(write(writing.get(), content.data(), content.size()), static_cast<ssize_t>(content.size()));
  }
  const ReadSecret read = read_secret(reading.get(), kMost, end);
  EXPECT_EQ(read.error, 0);
  if (read.secret == nullptr) return "(more)";
  return {read.secret->bytes().begin(), read.secret->bytes().end()};
}

TEST(ReadSecret, TakesAsMuchAsIsAskedForAndNoMore) {
  for (const SecretEnd end : {SecretEnd::kEndOfFile, SecretEnd::kEndOfLine}) {
    EXPECT_EQ(said("", end), "");
    EXPECT_EQ(said("1234567", end), "1234567");
    EXPECT_EQ(said("12345678", end), "12345678");
    EXPECT_EQ(said("123456789", end), "(more)");
  }
}

TEST(ReadSecret, EndsALineAtItsEnd) {
  EXPECT_EQ(said("12345678\nrest", SecretEnd::kEndOfLine), "12345678");
  EXPECT_EQ(said("1\n2", SecretEnd::kEndOfFile), "1\n2");
}

TEST(ReadSecret, TellsWhyThereIsNone) {
  const ReadSecret read = read_secret(-1, kMost, SecretEnd::kEndOfFile);
  EXPECT_EQ(read.secret, nullptr);
  EXPECT_EQ(read.error, EBADF);
}

}  // namespace
}  // namespace ksd
