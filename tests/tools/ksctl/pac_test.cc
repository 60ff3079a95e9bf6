// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Commands about PACs.
#include "pac.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <sstream>

#include "terminal.h"

namespace {

using ks_test::Datagram;
using ks_test::import_pacs;
using ks_test::kIn2001;
using ks_test::kIn2038;
using ks_test::ksctl;
using ks_test::pac_info;
using ks_test::pac_lines;
using ks_test::ProgramRun;
using ks_test::ServiceProcess;
using ks_test::ServiceSetup;
using testing::Each;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

std::vector<std::string> lines_of(const std::string &text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// Opaque "op" and an info of lifetime and identity "id".
Datagram metadata_until(uint8_t first, uint8_t second, uint8_t third, uint8_t fourth) {
  return {0, 2, 0, 2, 'o', 'p', 0, 9, 0, 14, 0, 3, 0, 4, first, second, third, fourth, 0, 5, 0, 2, 'i', 'd'};
}
const Datagram kLiveMetadata = metadata_until(0x7f, 0xff, 0x00, 0x08);
const Datagram kExpiredMetadata = metadata_until(0x3b, 0x9a, 0xca, 0x00);

TEST(KsctlPac, ListTellsWhatThePacInfoTells) {
  const ServiceProcess service;
  // Lifetime, A-ID, I-ID "alice" with a NUL, A-ID-Info "Issuer", PAC-Type 2; the mandatory bit counts for nothing.
  import_pacs(service, pac_lines("a1b2", "80030004" + kIn2038 +
                                             "00040002a1b280050006616c696365000007000649737375657200" + "0a00020002") +
                           pac_lines("61", pac_info(kIn2001)) + pac_lines("62", "000500026964"));

  EXPECT_EQ(ksctl(service.socket(), {"pac", "list"}).output,
            "a1b2\t\\xa1\\xb2\tmachine\tIssuer\talice\t2038-01-18T09:02:00Z\tvalid\n"
            "61\ta\t-\t-\talice\t2001-09-09T01:46:40Z\texpired\n"
            "62\tb\t-\t-\tid\t-\tno lifetime\n");
  EXPECT_EQ(ksctl(service.socket(), {"pac", "list", "--json"}).output,
            "{\"pacs\":[{\"a_id\":\"a1b2\",\"a_id_text\":\"\\\\xa1\\\\xb2\",\"type\":\"machine\",\"issuer\":\"Issuer\","
            "\"identity\":\"alice\",\"expires\":\"2038-01-18T09:02:00Z\",\"expires_seconds\":2147418120,"
            "\"state\":\"valid\"},"
            "{\"a_id\":\"61\",\"a_id_text\":\"a\",\"type\":null,\"issuer\":null,\"identity\":\"alice\","
            "\"expires\":\"2001-09-09T01:46:40Z\",\"expires_seconds\":1000000000,\"state\":\"expired\"},"
            "{\"a_id\":\"62\",\"a_id_text\":\"b\",\"type\":null,\"issuer\":null,\"identity\":\"id\","
            "\"expires\":null,\"expires_seconds\":null,\"state\":\"no lifetime\"}]}\n");
}

TEST(KsctlPac, ListTellsDamagedMetadata) {
  const ServiceProcess service;
  ks_test::replace_behind_the_cache(service, "a", {0, 2, 0, 9, 'o'});

  EXPECT_EQ(ksctl(service.socket(), {"pac", "list"}).output, "61\ta\t-\t-\t-\t-\tdamaged\n");
  EXPECT_EQ(ksctl(service.socket(), {"pac", "age-out"}).status, 0);
  EXPECT_THAT(lines_of(ksctl(service.socket(), {"pac", "list"}).output), SizeIs(1));
}

TEST(KsctlPac, ShowTellsWhetherItIsStillGood) {
  const ServiceProcess service;
  import_pacs(service, pac_lines("6c697665", pac_info(kIn2038)) + pac_lines("6f6c64", pac_info(kIn2001)));

  const ProgramRun live = ksctl(service.socket(), {"pac", "show", "text:live", "--require-valid"});
  EXPECT_EQ(live.status, 0) << live.errors;
  EXPECT_EQ(live.output,
            "a_id\t6c697665\na_id_text\tlive\ntype\t-\nissuer\t-\nidentity\talice\nexpires\t2038-01-18T09:02:00Z\n"
            "expires_seconds\t2147418120\nstate\tvalid\nopaque_bytes\t3\ninfo_bytes\t17\ncached\tno\n");
  const ProgramRun old = ksctl(service.socket(), {"pac", "show", "6f6c64", "--require-valid"});
  EXPECT_EQ(old.status, 6);
  EXPECT_EQ(old.errors, "ksctl: 6f6c64: expired on 2001-09-09T01:46:40Z; have a new one provisioned\n");
  EXPECT_EQ(ksctl(service.socket(), {"pac", "show", "6f6c64"}).status, 0);
}

TEST(KsctlPac, IsNamedByItsAId) {
  const ServiceProcess service;
  const std::pair<const char *, const char *> wrong[] = {
      {"alice", "ksctl: A-ID: alice isn't hexadecimal; write text:alice for a text\n"},
      {"abc", "ksctl: A-ID: abc isn't hexadecimal; write text:abc for a text\n"},
      {"text:", "ksctl: A-ID: of 0 bytes; it has 1 to 31\n"},
      {"", "ksctl: A-ID: of 0 bytes; it has 1 to 31\n"},
      {"text:12345678901234567890123456789012", "ksctl: A-ID: of 32 bytes; it has 1 to 31\n"},
  };
  for (const auto &[a_id, error] : wrong) {
    const ProgramRun run = ksctl(service.socket(), {"pac", "show", a_id});
    EXPECT_EQ(run.status, 2) << a_id;
    EXPECT_EQ(run.errors, error);
  }
  const ProgramRun none = ksctl(service.socket(), {"pac", "show", "a1"});
  EXPECT_EQ(none.status, 3);
  EXPECT_EQ(none.errors, "ksctl: a1: no such PAC; `ksctl pac list` shows what there is\n");
}

TEST(KsctlPac, IsRemovedWithItsCachedCopy) {
  const ServiceProcess service;
  import_pacs(service, pac_lines("61", pac_info(kIn2038)) + pac_lines("62", pac_info(kIn2038)));
  EXPECT_EQ(ksctl(service.socket(), {"cache", "warm"}).status, 0);

  EXPECT_EQ(ksctl(service.socket(), {"pac", "rm", "61", "--json"}).output,
            "{\"a_id\":\"61\",\"a_id_text\":\"a\",\"removed\":true}\n");

  EXPECT_EQ(ksctl(service.socket(), {"cache", "list"}).output, "62\tb\t7\t28\tno\tgood\n");
  EXPECT_EQ(ksctl(service.socket(), {"pac", "rm", "61"}).status, 3);
  EXPECT_EQ(ksctl(service.socket(), {"pac", "rm", "61", "--force"}).status, 0);
}

TEST(KsctlPac, StaysWhileTheSupStateHoldsIt) {
  ServiceSetup setup;
  setup.config = "supstate = 2\n" + setup.config;
  const size_t at = setup.config.find("[service]\n");
  setup.config = "[service]\nsupstate = 2\n" + setup.config.substr(at + 10);
  const ServiceProcess service(setup);
  import_pacs(service, pac_lines("61", pac_info(kIn2001)));

  for (const char *command : {"rm", "age-out"}) {
    std::vector<std::string> arguments{"pac", command};
    if (std::string(command) == "rm") arguments.emplace_back("61");
    const ProgramRun run = ksctl(service.socket(), arguments);
    EXPECT_EQ(run.status, 4) << command;
    EXPECT_THAT(run.errors, HasSubstr("PAC 61: the sup state holds every PAC"));
  }
  EXPECT_THAT(ksctl(service.socket(), {"pac", "list"}).output, EndsWith("expired\n"));
}

// The lowest byte of a time counts for as much as the others: by it alone most live ones would be taken for expired.
TEST(KsctlPacAgeOut, RemovesExactlyTheExpired) {
  ServiceSetup setup;
  setup.parent = "/dev/shm";
  const ServiceProcess service(setup);
  std::string lines;
  for (int i = 0; i < 1000; ++i) {
    char numbers[3][9];
    std::snprintf(numbers[0], sizeof numbers[0], "%08x", i);
    std::snprintf(numbers[1], sizeof numbers[1], "%08x", 0x7ff00000 + i);
    std::snprintf(numbers[2], sizeof numbers[2], "%08x", 0x3b9aca00 + i);
    lines += pac_lines("aa" + std::string(numbers[0]), pac_info(numbers[1]));
    lines += pac_lines("ee" + std::string(numbers[0]), pac_info(numbers[2]));
  }
  import_pacs(service, lines);

  const auto shown = lines_of(ksctl(service.socket(), {"pac", "age-out", "--dry-run"}).output);
  EXPECT_THAT(shown, SizeIs(1000));
  EXPECT_THAT(shown, Each(testing::StartsWith("ee")));
  EXPECT_THAT(lines_of(ksctl(service.socket(), {"pac", "list"}).output), SizeIs(2000));

  EXPECT_EQ(ksctl(service.socket(), {"pac", "age-out", "--json"}).output, "{\"removed\":1000,\"kept\":1000}\n");

  const auto left = lines_of(ksctl(service.socket(), {"pac", "list"}).output);
  EXPECT_THAT(left, SizeIs(1000));
  EXPECT_THAT(left, Each(testing::StartsWith("aa")));
}

TEST(KsctlPacAgeOut, JudgesWhatTheKeystoreHasAndNotAStaleCopy) {
  const ServiceProcess service;
  ks_test::replace_behind_the_cache(service, "renewed", kExpiredMetadata);
  ks_test::replace_behind_the_cache(service, "worn", kLiveMetadata);
  EXPECT_EQ(ksctl(service.socket(), {"cache", "warm"}).status, 0);
  ks_test::replace_behind_the_cache(service, "renewed", kLiveMetadata);
  ks_test::replace_behind_the_cache(service, "worn", kExpiredMetadata);

  EXPECT_THAT(ksctl(service.socket(), {"pac", "show", "text:renewed"}).output, EndsWith("cached\tstale\n"));
  EXPECT_THAT(ksctl(service.socket(), {"pac", "age-out", "--dry-run"}).output,
              testing::AllOf(HasSubstr("\tworn\t"), Not(HasSubstr("\trenewed\t"))));
  EXPECT_EQ(ksctl(service.socket(), {"pac", "age-out", "--json"}).output, "{\"removed\":1,\"kept\":1}\n");
  EXPECT_THAT(ksctl(service.socket(), {"pac", "list"}).output, HasSubstr("\trenewed\t"));
  EXPECT_THAT(ksctl(service.socket(), {"cache", "list"}).output, IsEmpty());  // no copy tells what isn't so
}

}  // namespace
