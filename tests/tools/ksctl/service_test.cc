// Commands about the service itself.
#include <gmock/gmock.h>

#include "ksctl.h"

namespace {

using ks_test::ksctl;
using ks_test::ProgramRun;
using ks_test::ServiceProcess;
using ks_test::with_administrator;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;

TEST(KsctlStatus, TellsAnAdministratorHowTheServiceIs) {
  const ServiceProcess service(with_administrator());

  const ProgramRun run = ksctl(service.socket(), {"status"});

  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.output, HasSubstr("socket\t" + service.socket() + "\n"));
  EXPECT_THAT(run.output, HasSubstr("pid\t" + std::to_string(service.pid()) + "\n"));
  EXPECT_THAT(run.output, HasSubstr("connections.open\t1\n"));
  EXPECT_THAT(run.output, HasSubstr("entries.stored\t0\n"));
}

TEST(KsctlStatus, PrintsOneObjectOfJson) {
  const ServiceProcess service(with_administrator());

  const ProgramRun run = ksctl(service.socket(), {"status", "--json"});

  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.output, ContainsRegex("^\\{\"warnings\":\\[\\],\"socket\":.*\"entries\":\\{\"stored\":0,\"limit\":65535\\}.*\\}\n$"));
}

TEST(KsctlStatus, IsRefusedToOthers) {
  const ServiceProcess service;

  const ProgramRun run = ksctl(service.socket(), {"status"});

  EXPECT_EQ(run.status, 4);
  EXPECT_THAT(run.output, IsEmpty());
  EXPECT_THAT(run.errors, HasSubstr(service.socket() + ": the service answers this to administrators only"));
}

TEST(KsctlStatus, SaysThatNobodyServesTheSocket) {
  const ProgramRun run = ksctl("/nowhere/socket", {"status"});

  EXPECT_EQ(run.status, 5);
  EXPECT_THAT(run.errors, HasSubstr("/nowhere/socket: No such file or directory; start the service"));
}

}  // namespace
