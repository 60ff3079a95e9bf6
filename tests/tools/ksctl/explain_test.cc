// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What a code means, and the page of all codes.
#include <gmock/gmock.h>

#include <fstream>

#include "content_of.h"
#include "ksctl.h"

namespace {

using ks_test::ksctl;
using ks_test::ProgramRun;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

ProgramRun explain(const std::string &code) {
  return ksctl("/nowhere/socket", {"explain", code});
}

TEST(KsctlExplain, TellsNameTextCausesAndRemedy) {
  const ProgramRun run = explain("12");

  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.output, StartsWith("code\t12\nname\tKS_FW_COMM_ERROR\ntext\tError communicating with firmware\n"
                                     "causes\tThe exchange failed"));
  EXPECT_THAT(run.output, HasSubstr("\nremedy\tSee whether the service runs"));
}

TEST(KsctlExplain, TakesACodeInEveryWayInWhichItIsPrinted) {
  for (const char *code : {"7", "0x7", "KS_STORE_FULL", "store_full"}) {
    EXPECT_THAT(explain(code).output, StartsWith("code\t7\nname\tKS_STORE_FULL\n")) << code;
  }
  for (const char *code : {"0x411a0002", "0X411A0002", "1092222978", "damaged"}) {
    EXPECT_THAT(explain(code).output, StartsWith("code\t0x411a0002\nname\tdamaged\ntext\tThe database is damaged\n"))
        << code;
  }
}

TEST(KsctlExplain, FindsNoOtherCode) {
  for (const char *code : {"15", "28", "0x", "12x", "-1", "18446744073709551628", "KS_", ""}) {
    const ProgramRun run = explain(code);
    EXPECT_EQ(run.status, 3) << code;
    EXPECT_EQ(run.errors, "ksctl: " + std::string(code) + ": no such code; `ksctl explain` lists them\n");
    EXPECT_THAT(run.output, IsEmpty()) << code;
  }
}

TEST(KsctlExplain, ListsEveryCodeOfTheHeaders) {
  const ProgramRun run = ksctl("/nowhere/socket", {"explain"});

  std::ifstream header(KS_SOURCE_DIR "/include/ks_types.h");
  int count = 0;
  for (std::string line; std::getline(header, line);) {
    const size_t at = line.find(" UINT32_C(");
    if (!line.starts_with("#define KS_") || line.starts_with("#define KS_OP_") || at == std::string::npos) continue;
    if (line.starts_with("#define KS_SERVICE_")) continue;
    const std::string name = line.substr(8, at - 8);
    const std::string number = line.substr(at + 10, line.find(')') - at - 10);
    EXPECT_THAT(run.output, HasSubstr(number + "\t" + name + "\t")) << line;
    ++count;
  }
  EXPECT_EQ(count, 22);
}

// Each code of the operator's page is explained.
TEST(KsctlExplain, KnowsTheCodesThatReportsShow) {
  std::ifstream page(KS_SOURCE_DIR "/docs/operating.md");
  int count = 0;
  for (std::string line; std::getline(page, line);) {
    if (!line.starts_with("| 0x")) continue;
    EXPECT_EQ(explain(line.substr(2, 10)).status, 0) << line;
    ++count;
  }
  EXPECT_EQ(count, 9);
}

TEST(KsctlExplain, PrintsThePageOfAllCodes) {
  EXPECT_EQ(ksctl("/nowhere/socket", {"explain", "--page"}).output,
            ks_test::content_of(KS_SOURCE_DIR "/docs/codes.md"));
}

}  // namespace
