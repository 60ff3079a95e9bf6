// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Commands about secrets, and how a secret comes in.
#include <gmock/gmock.h>
#include <sys/wait.h>

#include <filesystem>

#include "content_of.h"
#include "ksctl.h"
#include "terminal.h"

namespace {

using ks_test::content_of;
using ks_test::ksctl;
using ks_test::ksctl_given;
using ks_test::ProgramRun;
using ks_test::ServiceProcess;
using ks_test::ServiceSetup;
using ks_test::store_secret;
using ks_test::Terminal;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

TEST(KsctlSecret, IsStoredListedAndShownWithWhatIsKeptBesideIt) {
  const ServiceProcess service;

  const ProgramRun put = ksctl_given(service.socket(), {"hush"}, {"secret", "put", "wifi", "--metadata", "ssid=attic"});
  EXPECT_EQ(put.status, 0) << put.errors;
  EXPECT_THAT(put.output, IsEmpty());  // a pipe is told nothing that it didn't ask for
  store_secret(service.socket(), "bare");

  EXPECT_EQ(ksctl(service.socket(), {"secret", "list"}).output, "wifi\tsecret\t10\nbare\tsecret\t0\n");
  EXPECT_EQ(ksctl(service.socket(), {"secret", "list", "--json"}).output,
            "{\"secrets\":[{\"name\":\"wifi\",\"name_hex\":\"77696669\",\"kind\":\"secret\",\"metadata_bytes\":10},"
            "{\"name\":\"bare\",\"name_hex\":\"62617265\",\"kind\":\"secret\",\"metadata_bytes\":0}]}\n");
  EXPECT_EQ(ksctl(service.socket(), {"secret", "show", "wifi"}).output,
            "name\twifi\nname_hex\t77696669\nkind\tsecret\nmetadata_bytes\t10\nmetadata\tssid=attic\n"
            "metadata_hex\t737369643d6174746963\n");
}

TEST(KsctlSecret, ReplacesNothingUnasked) {
  const ServiceProcess service;
  store_secret(service.socket(), "wifi", "old");

  const ProgramRun refused = ksctl_given(service.socket(), {"new"}, {"secret", "put", "wifi"});
  EXPECT_EQ(refused.status, 7);
  EXPECT_EQ(refused.errors, "ksctl: wifi: there is such a secret; --replace replaces it\n");

  EXPECT_EQ(ksctl_given(service.socket(), {"new"}, {"secret", "put", "wifi", "--replace"}).status, 0);
  EXPECT_EQ(ksctl(service.socket(), {"secret", "list"}).output, "wifi\tsecret\t3\n");  // its metadata stay
  const ProgramRun without =
      ksctl_given(service.socket(), {"new"}, {"secret", "put", "wifi", "--replace", "--metadata", "", "--json"});
  EXPECT_EQ(without.output, "{\"name\":\"wifi\",\"name_hex\":\"77696669\",\"replaced\":true}\n");
  EXPECT_EQ(ksctl(service.socket(), {"secret", "list"}).output, "wifi\tsecret\t0\n");
}

TEST(KsctlSecret, IsFoundByItsAlias) {
  const ServiceProcess service;
  EXPECT_EQ(ksctl_given(service.socket(), {"hush"}, {"secret", "put", "wifi", "--alias", "wlan"}).status, 0);

  EXPECT_EQ(ksctl(service.socket(), {"secret", "show", "wlan"}).status, 0);
  const ProgramRun taken = ksctl_given(service.socket(), {"hush"}, {"secret", "put", "other", "--alias", "wlan"});
  EXPECT_EQ(taken.status, 7) << taken.errors;
  const ProgramRun forced =
      ksctl_given(service.socket(), {"hush"}, {"secret", "put", "other", "--alias", "wlan", "--replace"});
  EXPECT_EQ(forced.status, 7);
  EXPECT_EQ(forced.errors, "ksctl: wlan: is a name of another secret; choose another alias\n");
  EXPECT_EQ(ksctl(service.socket(), {"secret", "list"}).output, "wifi\tsecret\t0\n");
}

TEST(KsctlSecret, TakesSecretAndMetadataFromDescriptors) {
  const ServiceProcess service;

  const ProgramRun run = ksctl_given(service.socket(), {"", "hush", std::string("\0\n\x1b[31m", 7)},
                                     {"secret", "put", "wifi", "--secret-fd", "3", "--metadata-fd", "4"});

  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(ksctl(service.socket(), {"secret", "show", "wifi"}).output,
              HasSubstr("metadata\t\\x00\\x0a\\x1b[31m\nmetadata_hex\t000a1b5b33316d\n"));
}

TEST(KsctlSecret, ToldWronglyChangesNothing) {
  const ServiceProcess service;
  const std::string socket = service.socket();
  const struct {
    std::vector<std::string> inputs;
    std::vector<std::string> arguments;
    const char *error;
  } wrong[] = {
      {{""}, {"put", "wifi"}, "ksctl: secret: it is empty; give at least one byte\n"},
      {{std::string(257, 'x')}, {"put", "wifi"}, "ksctl: secret: more than 256 bytes; give less\n"},
      {{"x"}, {"put", std::string(32, 'n')}, "ksctl: NAME: of 32 bytes; a name has 1 to 31\n"},
      {{"x"}, {"put", ""}, "ksctl: NAME: of 0 bytes; a name has 1 to 31\n"},
      {{"x"}, {"put", "wifi", "--alias", ""}, "ksctl: --alias: of 0 bytes; a name has 1 to 31\n"},
      {{"x"}, {"put", "wifi", "--alias", "wifi"}, "ksctl: --alias: wifi is the name itself; give another\n"},
      {{"x"},
       {"put", "wifi", "--secret-fd", "77"},
       "ksctl: secret: descriptor 77: Bad file descriptor; open it for reading\n"},
      {{"x"},
       {"put", "wifi", "--metadata-fd", "0"},
       "ksctl: --metadata-fd: descriptor 0 gives the secret; name another\n"},
      {{"x", "y"},
       {"put", "wifi", "--metadata-fd", "3", "--metadata", "z"},
       "ksctl: --metadata and --metadata-fd: both are given; give one\n"},
  };
  for (const auto &[inputs, arguments, error] : wrong) {
    std::vector<std::string> all{"secret"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    const ProgramRun run = ksctl_given(socket, inputs, all);
    EXPECT_EQ(run.status, 2) << error;
    EXPECT_EQ(run.errors, error);
  }
  EXPECT_THAT(ksctl(socket, {"secret", "list"}).output, IsEmpty());
}

TEST(KsctlSecret, IsRenamedAndRemoved) {
  const ServiceProcess service;
  const std::string socket = service.socket();
  store_secret(socket, "one");
  store_secret(socket, "two");

  EXPECT_EQ(ksctl(socket, {"secret", "rename", "one", "two"}).status, 7);
  EXPECT_EQ(ksctl(socket, {"secret", "rename", "none", "new"}).status, 3);
  EXPECT_EQ(ksctl(socket, {"secret", "rename", "none", "none"}).status, 3);
  EXPECT_EQ(ksctl(socket, {"secret", "rename", "one", "uno"}).status, 0);
  EXPECT_EQ(ksctl(socket, {"secret", "list"}).output, "uno\tsecret\t0\ntwo\tsecret\t0\n");

  EXPECT_EQ(ksctl(socket, {"secret", "rm", "uno"}).status, 0);
  const ProgramRun gone = ksctl(socket, {"secret", "rm", "uno"});
  EXPECT_EQ(gone.status, 3);
  EXPECT_EQ(gone.errors, "ksctl: uno: no such secret; `ksctl secret list` shows what there is\n");
  EXPECT_EQ(ksctl(socket, {"secret", "rm", "uno", "--force"}).status, 0);
  EXPECT_EQ(ksctl(socket, {"secret", "show", "uno"}).status, 3);
  EXPECT_EQ(ksctl(socket, {"secret", "list"}).output, "two\tsecret\t0\n");
}

TEST(KsctlSecret, NamesWithoutHarmToATerminal) {
  const ServiceProcess service;
  store_secret(service.socket(), "a\x1b[2J\xff");

  EXPECT_EQ(ksctl(service.socket(), {"secret", "list"}).output, "a\\x1b[2J\\xff\tsecret\t0\n");
  EXPECT_THAT(ksctl(service.socket(), {"secret", "list", "--json"}).output, HasSubstr("\"name_hex\":\"611b5b324aff\""));
  EXPECT_EQ(ksctl(service.socket(), {"secret", "rm", "a\x1b[2J\xff"}).status, 0);
}

TEST(KsctlSecret, IsRefusedToAUserWithoutAVdc) {
  ServiceSetup setup;
  setup.config = "[service]\ncache_uri = \"\"\n";
  const ServiceProcess service(setup);

  const ProgramRun run = ksctl(service.socket(), {"secret", "list"});

  EXPECT_EQ(run.status, 4);
  EXPECT_THAT(run.errors, HasSubstr("this user has no VDC"));
}

// The result would be that of any failure; the message service knows more.
TEST(KsctlSecret, SaysThatTheServiceHasGone) {
  ServiceProcess service;
  Terminal terminal(service.socket(), {"secret", "put", "wifi"});
  terminal.wait_for_text("secret: ");
  service.kill();
  terminal.type("hush\n");
  terminal.wait_for_text("secret again: ");
  terminal.type("hush\n");

  EXPECT_EQ(terminal.wait(), 5);
  EXPECT_THAT(terminal.shown(), HasSubstr("ksctl: wifi: " + service.socket() + ": "));
  EXPECT_THAT(terminal.shown(), HasSubstr("Start the service, ksd, again"));
}

TEST(KsctlPrompt, TakesASecretTypedTwiceAndShowsNeither) {
  const ServiceProcess service;
  Terminal terminal(service.socket(), {"secret", "put", "wifi"});

  terminal.wait_for_text("secret: ");
  EXPECT_FALSE(terminal.shows_what_is_typed());
  terminal.type("hush\n");
  terminal.wait_for_text("secret again: ");
  EXPECT_FALSE(terminal.shows_what_is_typed());
  terminal.type("hush\n");

  EXPECT_EQ(terminal.wait(), 0) << terminal.shown();
  EXPECT_TRUE(terminal.shows_what_is_typed());
  EXPECT_THAT(terminal.shown(), Not(HasSubstr("hush")));
  EXPECT_THAT(terminal.shown(), HasSubstr("Stored wifi."));
}

TEST(KsctlPrompt, TakesNoTwoSecretsThatDiffer) {
  const ServiceProcess service;
  Terminal terminal(service.socket(), {"secret", "put", "wifi"});

  terminal.wait_for_text("secret: ");
  terminal.type("hush\n");
  terminal.wait_for_text("secret again: ");
  terminal.type("hash\n");

  EXPECT_EQ(terminal.wait(), 2);
  EXPECT_THAT(terminal.shown(), HasSubstr("ksctl: secret: the two differ; type the same twice"));
  EXPECT_TRUE(terminal.shows_what_is_typed());
  EXPECT_THAT(ksctl(service.socket(), {"secret", "list"}).output, IsEmpty());
}

TEST(KsctlPrompt, ShowsAgainWhatIsTypedWhenTheUserInterrupts) {
  const ServiceProcess service;
  Terminal terminal(service.socket(), {"secret", "put", "wifi"});

  terminal.wait_for_text("secret: ");
  terminal.type("hu\x03");

  EXPECT_EQ(terminal.wait(), -SIGINT);
  EXPECT_TRUE(terminal.shows_what_is_typed());
  EXPECT_THAT(ksctl(service.socket(), {"secret", "list"}).output, IsEmpty());
}

TEST(KsctlPrompt, AsksForNoneBesideADescriptorThatShowsIt) {
  const ServiceProcess service;
  Terminal terminal(service.socket(), {"secret", "put", "wifi", "--secret-fd", "0"});

  EXPECT_EQ(terminal.wait(), 2);
  EXPECT_THAT(terminal.shown(), HasSubstr("descriptor 0 is a terminal, which would show it"));
}

// Neither the running command's arguments and environment nor anything that is printed, logged or kept in a file tells
// the secret, with every report recorded.
TEST(KsctlSecret, IsNowhereToBeRead) {
  const std::string planted = "planted-secret-0f1e2d3c4b5a";
  ServiceSetup setup = ks_test::with_administrator();
  setup.config += "[trace]\nrecord = [100, 103]\n";
  const ServiceProcess service(setup);
  std::filesystem::create_directory(service.folder() + "/history");
  std::filesystem::permissions(service.folder() + "/history", std::filesystem::perms::owner_all);
  std::string told;

  {
    Terminal terminal(service.socket(), {"secret", "put", "wifi", "--metadata", "ssid=attic"});
    terminal.wait_for_text("secret: ");
    terminal.type(planted + "\n");
    terminal.wait_for_text("secret again: ");
    const std::string process = "/proc/" + std::to_string(terminal.pid());
    told += content_of(process + "/cmdline") + content_of(process + "/environ");
    EXPECT_THAT(told, HasSubstr("ssid=attic"));  // what is given as an argument is found
    terminal.type(planted + "\n");
    EXPECT_EQ(terminal.wait(), 0) << terminal.shown();
    told += terminal.shown();
  }
  const std::vector<std::vector<std::string>> commands = {
      {"secret", "put", "other"},           {"secret", "list"},
      {"secret", "list", "--json"},         {"secret", "show", "wifi", "--json"},
      {"secret", "rename", "wifi", "wlan"}, {"status"},
  };
  for (const std::vector<std::string> &command : commands) {
    const ProgramRun run = ksctl_given(service.socket(), {planted}, command);
    EXPECT_EQ(run.status, 0) << run.errors;
    told += run.output + run.errors;
  }
  told += service.log();
  EXPECT_THAT(told, Not(HasSubstr(planted)));

  const auto files_with = [&](const char *text) {
    return ks_test::run_program({"/bin/grep", "-rlF", "-e", text, service.folder()}).output;
  };
  EXPECT_THAT(files_with("Received a key"), HasSubstr(service.folder() + "/history/"));  // reports are recorded
  EXPECT_THAT(files_with(planted.c_str()), IsEmpty());
}

}  // namespace
