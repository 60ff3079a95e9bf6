// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Commands about the service itself.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "ksctl.h"
#include "service/raw_channel.h"
#include "terminal.h"

namespace {

using ks_test::ksctl;
using ks_test::ProgramRun;
using ks_test::ServiceProcess;
using ks_test::ServiceSetup;
using ks_test::Terminal;
using ks_test::with_administrator;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

TEST(KsctlStatus, TellsAnAdministratorHowTheServiceIs) {
  const ServiceProcess service(with_administrator());

  const ProgramRun run = ksctl(service.socket(), {"status"});

  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.output, HasSubstr("socket\t" + service.socket() + "\n"));
  EXPECT_THAT(run.output, HasSubstr("pid\t" + std::to_string(service.pid()) + "\n"));
  EXPECT_THAT(run.output, HasSubstr("connections.open\t1\n"));
  EXPECT_THAT(run.output, HasSubstr("connections.channels\t0\n"));
  EXPECT_THAT(run.output, HasSubstr("entries.stored\t0\n"));
  EXPECT_THAT(run.output, HasSubstr("vault.file\t" + service.vault() + "\n"));
}

TEST(KsctlStatus, TellsHowManyConnectionsHaveAChannel) {
  const ServiceProcess service(with_administrator());
  ks_test::RawClient client(service.socket());
  const ks_test::RawChannel channel(client);

  EXPECT_THAT(ksctl(service.socket(), {"status"}).output, HasSubstr("connections.channels\t1\n"));
}

TEST(KsctlStatus, PrintsOneObjectOfJson) {
  const ServiceProcess service(with_administrator());

  const ProgramRun run = ksctl(service.socket(), {"status", "--json"});

  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(
      run.output,
      ContainsRegex("^\\{\"warnings\":\\[\\],\"socket\":.*\"entries\":\\{\"stored\":0,\"limit\":65535\\}.*\\}\n$"));
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

TEST(KsctlStatus, PutsWhatIsWrongFirst) {
  ServiceProcess service(with_administrator());
  service.reload("[service]\nport = 1\n");

  const ProgramRun run = ksctl(service.socket(), {"status"});

  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.output, StartsWith("warnings\tthe configuration wasn't reloaded at "));
  EXPECT_THAT(run.output, HasSubstr("ksd.toml:2:1: unknown key service.port"));
  EXPECT_THAT(run.output, HasSubstr("; the old one stays in force\n"));
  EXPECT_THAT(run.output, HasSubstr("configuration.problems\t1\n"));
}

TEST(KsctlStatus, IsAPageAtATerminal) {
  const ServiceProcess service(with_administrator());
  Terminal terminal(service.socket(), {"status"});
  EXPECT_EQ(terminal.wait(), 0);
  EXPECT_THAT(terminal.shown(), HasSubstr("pid " + std::to_string(service.pid())));
  EXPECT_THAT(terminal.shown(), ContainsRegex("entries.*0 of 65535 \\(0 %\\)"));
  EXPECT_THAT(terminal.shown(), Not(HasSubstr("entries.stored")));
}

TEST(KsctlUsage, IsRefusedInOneLineThatNamesTheProgram) {
  for (const std::vector<std::string> &arguments :
       std::vector<std::vector<std::string>>{{},
                                             {"nonsense"},
                                             {"status", "--foo"},
                                             {"stats", "--user"},
                                             {"top", "--interval", "soon"},
                                             {"top", "--count", "-1"},
                                             {"stats", "--users", "--prometheus"},
                                             {"stats", "--prometheus", "--json"}}) {
    const ProgramRun run = ksctl("/nowhere/socket", arguments);
    EXPECT_EQ(run.status, 2) << run.errors;
    EXPECT_THAT(run.output, IsEmpty());
    EXPECT_THAT(run.errors, ContainsRegex("^ksctl: [^\n]+\n$"));
  }
}

TEST(KsctlOwners, TellsWhoseEntriesThereAre) {
  const ServiceProcess service(with_administrator());
  ks_test::store_secret(service.socket(), "a", "metadata");

  const ProgramRun run = ksctl(service.socket(), {"owners"});

  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.output, ContainsRegex("^" + std::to_string(getuid()) + "\t[^\t]+\t7\t1\t16\n$"));
}

TEST(KsctlLimits, TellsEachWithItsUse) {
  ServiceSetup setup = with_administrator();
  setup.config = "[limits]\nentries = 4\n" + setup.config;
  const ServiceProcess service(setup);
  ks_test::store_secret(service.socket(), "a");

  const ProgramRun run = ksctl(service.socket(), {"limits"});

  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.output, HasSubstr("entries\t1\t4\t25\t-\n"));
  EXPECT_THAT(run.output, HasSubstr("entries_per_user\t1\t4\t25\t" + std::to_string(getuid()) + "\n"));
  EXPECT_THAT(run.output, HasSubstr("connects_per_second\t-\t4000\t-\t-\n"));
  EXPECT_THAT(run.output, HasSubstr("channels\t0\t1024\t0\t-\n"));
}

TEST(KsctlStats, CountsWhatWasAskedFor) {
  const ServiceProcess service(with_administrator());
  ks_test::store_secret(service.socket(), "a");

  const std::string uid = std::to_string(getuid());
  EXPECT_THAT(ksctl(service.socket(), {"stats"}).output, ContainsRegex("(^|\n)store secret\t1\t0\t[0-9.]+\t"));
  EXPECT_THAT(ksctl(service.socket(), {"stats", "--user", uid}).output, HasSubstr("store secret\t1\t0\n"));
  EXPECT_THAT(ksctl(service.socket(), {"stats", "--users"}).output, ContainsRegex("^" + uid + "\t[^\t]+\t7\t1\t"));
  EXPECT_THAT(ksctl(service.socket(), {"stats", "--prometheus"}).output,
              HasSubstr("ks_messages_total{message=\"store secret\",result=\"done\"} 1\n"));
}

TEST(KsctlStats, HasNothingOfAUserWhoHasntBeenThere) {
  const ServiceProcess service(with_administrator());
  EXPECT_EQ(ksctl(service.socket(), {"stats", "--user", "4000000001"}).status, 3);
  EXPECT_EQ(ksctl(service.socket(), {"stats", "--user", "unmapped"}).status, 3);
  EXPECT_EQ(ksctl(service.socket(), {"stats", "--user", "nobody of that name"}).status, 2);
}

// What Prometheus asks of the format: each family is announced once, its lines follow together, and the buckets of a
// histogram ascend to its count.
TEST(KsctlStats, IsAPageThatPrometheusReads) {
  const ServiceProcess service(with_administrator());
  ks_test::store_secret(service.socket(), "a");
  std::istringstream page(ksctl(service.socket(), {"stats", "--prometheus"}).output);
  std::set<std::string> families;
  std::string family;
  double last_bucket = 0;
  size_t lines = 0;
  for (std::string line; std::getline(page, line); ++lines) {
    std::smatch match;
    if (std::regex_match(line, match, std::regex("# HELP (ks_[a-z_]+) .+"))) {
      family = match[1];
      EXPECT_TRUE(families.insert(family).second) << line;
    } else if (std::regex_match(line, match, std::regex("# TYPE (ks_[a-z_]+) (gauge|counter|histogram)"))) {
      EXPECT_EQ(match[1], family);
    } else {
      ASSERT_TRUE(
          std::regex_match(line, match, std::regex("(ks_[a-z_]+?)(_bucket|_sum|_count)?(\\{.*\\})? ([0-9.e+-]+)")))
          << line;
      EXPECT_EQ(match[1], family) << line;
      const double value = std::stod(match[4]);
      if (match[2] == "_bucket") {
        EXPECT_GE(value, last_bucket) << line;
        last_bucket = line.find("+Inf") == std::string::npos ? value : 0;
      }
    }
  }
  EXPECT_GT(lines, 100u);
  EXPECT_TRUE(families.contains("ks_message_duration_seconds"));
}

TEST(KsctlReload, SaysWhatIsWrongAndThatTheOldConfigurationStays) {
  const ServiceProcess service(with_administrator());
  EXPECT_EQ(ksctl(service.socket(), {"reload"}).status, 0);
  std::ofstream(service.folder() + "/ksd.toml", std::ios::app) << "[service]\nport = 1\n[nonsense]\n";

  const ProgramRun run = ksctl(service.socket(), {"reload"});

  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.errors, ContainsRegex("^" + service.folder() + "/ksd.toml:[0-9]+:[0-9]+: "));
  EXPECT_THAT(run.errors, ContainsRegex("\nksctl: .*/ksd.toml: the configuration wasn't taken up, the old one stays"));
  EXPECT_EQ(ksctl(service.socket(), {"status"}).status, 0) << "who asks is an administrator still";
}

TEST(KsctlReload, SaysThatPartOfItCountsFromTheNextStart) {
  ServiceSetup setup = with_administrator();
  const ServiceProcess service(setup);
  setup.config.insert(setup.config.find('\n') + 1, "socket_mode = 0o600\n");
  setup.config.replace(setup.config.find("@dir@"), 5, service.folder());
  std::ofstream(service.folder() + "/ksd.toml") << setup.config;

  EXPECT_THAT(ksctl(service.socket(), {"reload", "--json"}).output, HasSubstr("\"restart_needed\":true"));
  for (int i = 0; i < 2; ++i) {  // also after another one, which changes nothing
    EXPECT_THAT(ksctl(service.socket(), {"status"}).output, StartsWith("warnings\tpart of the configuration counts"));
    EXPECT_EQ(ksctl(service.socket(), {"reload"}).status, 0);
  }
}

TEST(KsctlCheckpoint, HasTheLogWrittenBack) {
  const ServiceProcess service(with_administrator());
  ks_test::store_secret(service.socket(), "a");
  EXPECT_THAT(ksctl(service.socket(), {"checkpoint", "--json"}).output, ContainsRegex("^\\{\"pages\":[1-9]"));
  EXPECT_EQ(ksctl(service.socket(), {"checkpoint", "--json"}).output, "{\"pages\":0}\n");
}

TEST(KsctlTop, PrintsALineForEachIntervalInAPipe) {
  const ServiceProcess service(with_administrator());

  const ProgramRun run = ksctl(service.socket(), {"top", "--interval", "0.01", "--count", "3"});

  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.output, MatchesRegex("([^\t\n]+\tall\t0\t0\t-\t-\t-\n){3}"));
}

TEST(KsctlTop, IsDrawnInPlaceUntilQ) {
  const ServiceProcess service(with_administrator());
  Terminal terminal(service.socket(), {"top", "--interval", "0.01"});
  terminal.wait_for_text("\033[?1049h");
  terminal.wait_for_text("PER SECOND");
  EXPECT_FALSE(terminal.shows_what_is_typed());
  terminal.type("q");
  EXPECT_EQ(terminal.wait(), 0);
  EXPECT_THAT(terminal.shown(), EndsWith("\033[?25h\033[?1049l"));
  EXPECT_TRUE(terminal.shows_what_is_typed());
}

TEST(KsctlTop, LeavesTheTerminalAsItWasWhenASignalEndsIt) {
  const ServiceProcess service(with_administrator());
  for (const int signal : {SIGTERM, SIGHUP, SIGQUIT}) {
    Terminal terminal(service.socket(), {"top", "--interval", "0.01"});
    terminal.wait_for_text("PER SECOND");
    kill(terminal.pid(), signal);
    EXPECT_EQ(terminal.wait(), -signal);
    EXPECT_THAT(terminal.shown(), EndsWith("\033[?25h\033[?1049l"));
    EXPECT_TRUE(terminal.shows_what_is_typed());
  }
}

TEST(KsctlTop, LeavesTheTerminalAsItWasWhenTheServiceGoes) {
  ServiceProcess service(with_administrator());
  Terminal terminal(service.socket(), {"top", "--interval", "0.01"});
  terminal.wait_for_text("PER SECOND");
  service.kill();
  EXPECT_EQ(terminal.wait(), 5);
  EXPECT_THAT(terminal.shown(), ContainsRegex("1049lksctl: .*nothing could be (sent|received)"));
  EXPECT_TRUE(terminal.shows_what_is_typed());
}

TEST(KsctlConfigCheck, FindsWhatTheDaemonsOwnCheckFinds) {
  const ks_test::TemporaryFolder folder;
  const std::string file = folder.path() + "/ksd.toml";
  // Where nothing but what each says is wrong, whoever the test's user is.
  const std::string own_socket = "[service]\nsocket = \"" + folder.path() + "/s\"\n";
  const std::string own_key = "master_key_file = \"" + folder.path() + "/key\"\n";
  for (const std::string &config :
       {std::string("[service]\nport = 1\n"), own_socket + own_key + "vault = \"" + folder.path() + "\"\n",
        own_socket + "vault = \"" + folder.path() + "/none/vault.db\"\nmaster_key_file = \"" + file + "\"\n",
        std::string("[limits]\nentries = 4\nentries_per_user = 5\n")}) {
    std::ofstream(file) << config;
    const ProgramRun daemon = ks_test::run_ksd({"--check", "--config", file});
    const ProgramRun run = ksctl("/nowhere/socket", {"config", "check", file});
    EXPECT_EQ(daemon.status, 1) << config;
    EXPECT_EQ(run.status, 1) << config;
    EXPECT_THAT(run.errors, StartsWith(daemon.errors));
    EXPECT_THAT(run.errors.substr(daemon.errors.size()), ContainsRegex("^ksctl: .*: 1 problem; mend it"));
  }
}

TEST(KsctlConfigCheck, FindsThatOthersMayWriteIt) {
  const ks_test::TemporaryFolder folder;
  const std::string file = folder.path() + "/ksd.toml";
  std::ofstream(file) << "";
  chmod(file.c_str(), 0666);
  const ProgramRun run = ksctl("/nowhere/socket", {"config", "check", file});
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.errors, HasSubstr("with which others may write it; run: chmod go-w " + file));
}

}  // namespace
