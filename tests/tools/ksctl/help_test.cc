// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What the help says of parameters.
#include <gmock/gmock.h>

#include "ksctl.h"

namespace {

using ks_test::ksctl;
using testing::HasSubstr;

std::string help(std::vector<std::string> words) {
  words.emplace_back("--help");
  return ksctl("/nowhere/socket", words).output;
}

TEST(KsctlHelp, TellsValuesInWords) {
  EXPECT_THAT(help({"secret", "put"}), HasSubstr("  --secret-fd FD  "));
  EXPECT_THAT(help({"pac", "export"}), HasSubstr("  --form text|binary  "));
  EXPECT_THAT(help({"completion"}), HasSubstr("  SHELL bash|zsh|fish REQUIRED"));
}

TEST(KsctlHelp, TellsAGroupByItsCommands) {
  EXPECT_THAT(help({}), HasSubstr("put, list, show, rename, rm\n"));
}

TEST(KsctlHelp, IsPointedToInOneLine) {
  const ks_test::ProgramRun run = ksctl("/nowhere/socket", {"secret", "put"});

  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.errors, "ksctl: NAME is required; `ksctl --help` tells how it is used\n");
}

}  // namespace
