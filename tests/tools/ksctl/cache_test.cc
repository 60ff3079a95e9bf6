// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Commands about the cache, and about all that a VDC holds.
#include <gmock/gmock.h>

#include <filesystem>

#include "pac.h"
#include "terminal.h"

namespace {

using ks_test::import_pacs;
using ks_test::kIn2001;
using ks_test::kIn2038;
using ks_test::ksctl;
using ks_test::pac_info;
using ks_test::pac_lines;
using ks_test::ProgramRun;
using ks_test::ServiceProcess;
using ks_test::ServiceSetup;
using ks_test::store_secret;
using ks_test::Terminal;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

TEST(KsctlCache, WarmsWhatItLacksAndMendsWhatIsStale) {
  const ServiceProcess service;
  import_pacs(service, pac_lines("61", pac_info(kIn2038)) + pac_lines("62", pac_info(kIn2038)) +
                           pac_lines("63", pac_info(kIn2038)));
  EXPECT_EQ(ksctl(service.socket(), {"cache", "warm", "--json"}).output, "{\"written\":3,\"pacs\":3}\n");
  EXPECT_EQ(ksctl(service.socket(), {"cache", "warm", "--json"}).output, "{\"written\":0,\"pacs\":3}\n");

  ks_test::replace_behind_the_cache(service, "b", {0, 2, 0, 1, 'o', 0, 9, 0, 0});
  ks_test::clear_behind_the_cache(service, "c");
  EXPECT_EQ(ksctl(service.socket(), {"cache", "list"}).output,
            "61\ta\t7\t28\tno\tgood\n62\tb\t7\t28\tno\tstale\n63\tc\t7\t28\tno\torphan\n");
  EXPECT_EQ(ksctl(service.socket(), {"cache", "warm", "--json"}).output, "{\"written\":1,\"pacs\":2}\n");
  EXPECT_EQ(ksctl(service.socket(), {"cache", "list", "--json"}).output,
            "{\"entries\":[{\"a_id\":\"61\",\"a_id_text\":\"a\",\"vdc\":7,\"metadata_bytes\":28,\"t_prf\":false,"
            "\"state\":\"good\"},{\"a_id\":\"62\",\"a_id_text\":\"b\",\"vdc\":7,\"metadata_bytes\":9,\"t_prf\":false,"
            "\"state\":\"good\"},{\"a_id\":\"63\",\"a_id_text\":\"c\",\"vdc\":7,\"metadata_bytes\":28,"
            "\"t_prf\":false,\"state\":\"orphan\"}]}\n");
}

TEST(KsctlCache, KnowsAnAIdThatEndsWithZeros) {
  const ServiceProcess service;
  import_pacs(service, pac_lines("610000", pac_info(kIn2038)));
  EXPECT_EQ(ksctl(service.socket(), {"cache", "warm"}).status, 0);

  EXPECT_THAT(ksctl(service.socket(), {"cache", "list"}).output, EndsWith("\tgood\n"));
}

TEST(KsctlCache, PurgesNoOtherVdcUnasked) {
  ServiceProcess service;
  import_pacs(service, pac_lines("61", pac_info(kIn2038)));
  EXPECT_EQ(ksctl(service.socket(), {"cache", "warm"}).status, 0);
  service.reload(ks_test::config_of_own_user(8));
  import_pacs(service, pac_lines("62", pac_info(kIn2038)));
  EXPECT_EQ(ksctl(service.socket(), {"cache", "warm"}).status, 0);

  EXPECT_EQ(ksctl(service.socket(), {"cache", "list"}).output, "61\ta\t7\t28\tno\tforeign\n62\tb\t8\t28\tno\tgood\n");
  EXPECT_EQ(ksctl(service.socket(), {"cache", "purge", "--json"}).output, "{\"removed\":1}\n");
  EXPECT_EQ(ksctl(service.socket(), {"cache", "list"}).output, "61\ta\t7\t28\tno\tforeign\n");
  EXPECT_EQ(ksctl(service.socket(), {"cache", "purge", "--all", "--json"}).output, "{\"removed\":1}\n");
  EXPECT_THAT(ksctl(service.socket(), {"cache", "list"}).output, IsEmpty());
}

TEST(KsctlCache, SaysWhyItCannotBeOpened) {
  ServiceSetup without;
  const size_t at = without.config.find("cache_uri");
  without.config =
      without.config.substr(0, at) + "cache_uri = \"\"" + without.config.substr(without.config.find('\n', at));
  const ServiceProcess service(without);
  const ProgramRun none = ksctl(service.socket(), {"cache", "list"});
  EXPECT_EQ(none.status, 1);
  EXPECT_EQ(none.errors, "ksctl: cache: the service names none for this user; set cache_uri in its configuration\n");

  const ServiceProcess open;
  std::filesystem::permissions(open.cache_folder(), std::filesystem::perms(0777));
  const ProgramRun unsafe = ksctl(open.socket(), {"cache", "warm"});
  EXPECT_EQ(unsafe.status, 1);
  EXPECT_THAT(unsafe.errors, HasSubstr("/cache/sksd_ks_cache_data: The database is not safe to use"));
  EXPECT_THAT(unsafe.errors, EndsWith("; `ksctl explain 0x411a0001` says what to do\n"));
}

class KsctlContext : public testing::Test {
 protected:
  KsctlContext() {
    store_secret(service.socket(), "wifi", "ssid=attic");
    import_pacs(service, pac_lines("61", pac_info(kIn2038)) + pac_lines("62", pac_info(kIn2001)));
    EXPECT_EQ(ksctl(service.socket(), {"cache", "warm"}).status, 0);
  }
  std::string list() { return ksctl(service.socket(), {"context", "list"}).output; }

  const ServiceProcess service;
};

TEST_F(KsctlContext, TellsWhatTheVdcHolds) {
  EXPECT_EQ(list(), "7\t1\t2\t1\t2\t66\n");
  EXPECT_EQ(ksctl(service.socket(), {"context", "list", "--json"}).output,
            "{\"contexts\":[{\"vdc\":7,\"secrets\":1,\"pacs\":2,\"expired\":1,\"cached\":2,\"metadata_bytes\":66}]}\n");
}

TEST_F(KsctlContext, IsClearedOnceTheUserSaysSo) {
  Terminal no(service.socket(), {"context", "clear"});
  no.wait_for_text("Remove 1 secrets, 2 PACs and 2 cached entries of VDC 7, for good? Type yes: ");
  no.type("y\n");
  EXPECT_EQ(no.wait(), 1);
  EXPECT_THAT(no.shown(), HasSubstr("it wasn't confirmed; nothing was changed"));
  EXPECT_EQ(list(), "7\t1\t2\t1\t2\t66\n");

  Terminal yes(service.socket(), {"context", "clear"});
  yes.wait_for_text("Type yes: ");
  yes.type("yes\n");
  EXPECT_EQ(yes.wait(), 0) << yes.shown();
  EXPECT_EQ(list(), "7\t0\t0\t0\t0\t0\n");
}

TEST_F(KsctlContext, IsClearedWithoutATerminalOnlyByYes) {
  const ProgramRun refused = ks_test::ksctl_given(service.socket(), {"yes\n"}, {"context", "clear"});
  EXPECT_EQ(refused.status, 2);
  EXPECT_EQ(refused.errors, "ksctl: context clear: there is no terminal to ask at; --yes goes without asking\n");
  EXPECT_EQ(list(), "7\t1\t2\t1\t2\t66\n");

  EXPECT_EQ(ksctl(service.socket(), {"context", "clear", "--yes", "--json"}).output,
            "{\"vdc\":7,\"secrets\":1,\"pacs\":2,\"cached\":2}\n");
  EXPECT_EQ(list(), "7\t0\t0\t0\t0\t0\n");
}

}  // namespace
