// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The configuration file: what it means, and what is said about one that is wrong.
#include "config/config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

namespace {

using ksd::Caller;
using ksd::config::Config;
using ksd::config::parse_config;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::vector<std::string> problems_of(const std::string &text) {
  std::vector<std::string> texts;
  for (const ksd::config::ConfigProblem &problem : parse_config(text).problems) texts.push_back(describe("f", problem));
  return texts;
}

Config good(const std::string &text) {
  const ksd::config::ParsedConfig parsed = parse_config(text);
  EXPECT_THAT(problems_of(text), IsEmpty());
  return parsed.config;
}

// A configuration file of its own, gone with the object.
struct ConfigFile {
  explicit ConfigFile(const std::string &text) {
    char name[] = "/tmp/ksXXXXXX";
    close(mkstemp(name));
    path = name;
    std::ofstream(path) << text;
  }
  ~ConfigFile() { std::filesystem::remove(path); }
  std::string path;
};

TEST(Config, HasDefaultsForEverything) {
  const Config config = good("");
  EXPECT_EQ(config.socket, "/run/ks/ksd.sock");
  EXPECT_EQ(config.socket_mode, 0666u);
  EXPECT_EQ(config.vault, "/var/lib/ks/vault.db");
  EXPECT_EQ(config.cache_uri, "lmdb:///run/user/{uid}/ks");
  EXPECT_EQ(config.receive_limit_ms, 30000u);
  EXPECT_EQ(config.supstate, 0u);
  EXPECT_EQ(config.limits.entries, 65535u);
  EXPECT_TRUE(config.gates.record[100]);
  EXPECT_EQ(config.gates.record.count(), 1u);
  EXPECT_TRUE(config.gates.debug.none());
  EXPECT_FALSE(config.identify(0, 0, 1, {}).vdc_id);
}

TEST(Config, ReadsEveryKey) {
  const Config config = good(R"(
[service]
socket = "/run/other/sock"
socket_mode = 0o660
socket_group = 50
vault = "/var/v"
master_key_file = "/etc/key"
cache_uri = ""
log_level = "debug"
receive_limit_ms = 100
send_limit_ms = 200
silence_limit_ms = 300
supstate = 2
[vault]
witness = "/mnt/other/witness"
[limits]
connections = 9
connections_per_user = 8
connections_unmapped = 7
connections_administrators = 1
connects_per_second = 6
channels = 10
requests_per_user = 5
changes_per_user = 4
entries = 4
entries_per_user = 3
bytes = 6
bytes_per_user = 5
[trace]
record = [103, 0]
debug = [255]
)");
  EXPECT_EQ(config.socket, "/run/other/sock");
  EXPECT_EQ(config.socket_mode, 0660u);
  EXPECT_EQ(config.socket_group, 50u);
  EXPECT_EQ(config.vault, "/var/v");
  EXPECT_EQ(config.master_key_file, "/etc/key");
  EXPECT_EQ(config.witness, "/mnt/other/witness");
  EXPECT_EQ(config.cache_uri, "");
  EXPECT_EQ(config.log_level, "debug");
  EXPECT_EQ(config.receive_limit_ms, 100u);
  EXPECT_EQ(config.send_limit_ms, 200u);
  EXPECT_EQ(config.silence_limit_ms, 300u);
  EXPECT_EQ(config.supstate, 2u);
  EXPECT_EQ(config.limits, (ksd::config::Limits{9, 8, 7, 1, 6, 10, 5, 4, 4, 3, 6, 5}));
  EXPECT_TRUE(config.gates.record[103] && config.gates.record[0] && !config.gates.record[100]);
  EXPECT_TRUE(config.gates.debug[255]);
}

TEST(Config, GivesUsersTheirOwnVdcBeforeThatOfTheirGroups) {
  const Config config = good("[[vdc]]\nid = 5\ngroups = [500]\n[[vdc]]\nid = 6\nusers = [1006]\ngroups = [600]\n");
  const std::vector<gid_t> both{600, 500};
  EXPECT_EQ(config.identify(1006, 500, 1, {}).vdc_id, 6);
  EXPECT_EQ(config.identify(1007, 500, 1, {}).vdc_id, 5);
  EXPECT_EQ(config.identify(1007, 1, 1, both).vdc_id, 5);  // the first in the file, not in the list
  EXPECT_FALSE(config.identify(1007, 1, 1, {}).vdc_id);
}

TEST(Config, CountsTheUsersOfAContainerAsItsOwner) {
  Config config = good("[[vdc]]\nid = 6\nusers = [200007]\n");
  EXPECT_EQ(config.identify(200000, 1, 1, {}).counted_as, 200000u);
  config.subordinate_users = ksd::config::parse_subordinate_users("1001:200000:65536\nroot:100000:50000\n");
  EXPECT_EQ(config.identify(100000, 1, 1, {}).counted_as, 0u);
  EXPECT_EQ(config.identify(149999, 1, 1, {}).counted_as, 0u);
  EXPECT_EQ(config.identify(200000, 1, 1, {}).counted_as, 1001u);
  EXPECT_EQ(config.identify(265535, 1, 1, {}).counted_as, 1001u);
  for (const uid_t outside : {99999u, 150000u, 199999u, 265536u}) {
    EXPECT_EQ(config.identify(outside, 1, 1, {}).counted_as, outside);
  }
  EXPECT_EQ(config.identify(200007, 1, 1, {}).counted_as, 200007u) << "whom the configuration names";
  EXPECT_EQ(config.identify(200000, 1, 1, {}).uid, 200000u);
}

TEST(SubordinateUsers, OfNobodyStandTogether) {
  const auto ranges = ksd::config::parse_subordinate_users("there-is-no-such-user:300000:10");
  ASSERT_EQ(ranges.size(), 1u);
  EXPECT_EQ(ranges[0].owner, 300000u);
  EXPECT_EQ(ranges[0].count, 10u);
}

TEST(SubordinateUsers, AreNotTakenFromLinesThatAreNone) {
  for (const char *text : {"", "\n", ":", "root", "root:1", "root:1:", "root::1", "root:x:1", "root:1:1:1", "root:1:-1",
                           "root:4294967296:1", "# root:1:1 "}) {
    EXPECT_THAT(ksd::config::parse_subordinate_users(text), IsEmpty()) << text;
  }
}

TEST(Config, NamesAdministratorsByUserAndByGroup) {
  const Config config = good("[administrators]\nusers = [\"root\"]\ngroups = [77]\n");
  const std::vector<gid_t> group{77};
  EXPECT_TRUE(config.identify(0, 0, 1, {}).administrator);
  EXPECT_TRUE(config.identify(1000, 77, 1, {}).administrator);
  EXPECT_TRUE(config.identify(1000, 1, 1, group).administrator);
  EXPECT_FALSE(config.identify(1000, 1, 1, {}).administrator);
  EXPECT_TRUE(config.identify(0, 0, 1, {}).may_use(9));
  EXPECT_FALSE(config.identify(1000, 1, 1, {}).may_use(0));
}

TEST(Config, TakesAGroupByItsName) {
  EXPECT_EQ(good("[service]\nsocket_group = \"root\"\n").socket_group, 0u);
  EXPECT_THAT(problems_of("[service]\nsocket_group = \"no-such-group\"\n"),
              ElementsAre("f:2:16: there is no group \"no-such-group\" on this machine; create it or give a number"));
}

TEST(Config, FillsUserAndVdcIntoTheCacheUri) {
  const Config config = good("[service]\ncache_uri = \"lmdb:///c/{vdc}/{uid}/{uid}\"\n[[vdc]]\nid = 5\nusers = [12]\n");
  EXPECT_EQ(config.cache_uri_of(config.identify(12, 1, 1, {})), "lmdb:///c/5/12/12");
  EXPECT_EQ(config.cache_uri_of(config.identify(13, 1, 1, {})), "");  // in no VDC
}

TEST(Config, RefusesUnknownKeysEverywhere) {
  EXPECT_THAT(
      problems_of("[service]\n  sokcet = \"/x\"\n[services]\n[limits]\nusers = 1\n[[vdc]]\nid = 1\nuser = []\n"),
      ElementsAre(
          HasSubstr("f:2:3: unknown key service.sokcet; the nearest known one is socket; known here: socket, "),
          "f:3:2: unknown key services; the nearest known one is service; known here: service, vault, limits, trace, "
          "administrators, shared, vdc",
          HasSubstr("f:5:1: unknown key limits.users"), HasSubstr("f:8:1: unknown key vdc.user")));
}

TEST(Config, SaysWhereTheFileIsNoToml) {
  EXPECT_THAT(problems_of("[service]\nsocket = /run\n"), ElementsAre(HasSubstr("f:2:10: ")));
}

TEST(Config, RefusesValuesOfAnotherKind) {
  EXPECT_THAT(problems_of("[service]\nsocket = 1\nreceive_limit_ms = \"1\"\n[limits]\nentries = true\n"),
              ElementsAre("f:2:10: service.socket takes a text in quotes",
                          "f:3:20: service.receive_limit_ms takes a whole number from 10 to 3600000",
                          "f:5:11: limits.entries takes a whole number from 0 to 65535"));
  EXPECT_THAT(problems_of("[service]\nallow_nobody = \"yes\"\n"),
              ElementsAre("f:2:16: service.allow_nobody takes true or false"));
  EXPECT_THAT(problems_of("service = 1\nvdc = 2\n"), ElementsAre("f:1:11: service is a section: write [service]",
                                                                 HasSubstr("f:2:7: vdc takes an array of tables")));
}

TEST(Config, RefusesNumbersOutOfRange) {
  EXPECT_THAT(problems_of("[limits]\nentries = 65536\nconnections = 0\nbytes = -1\n[[vdc]]\nid = 65535\n"),
              ElementsAre(HasSubstr("f:2:11: "), HasSubstr("f:3:15: "), HasSubstr("f:4:9: "),
                          "f:6:6: vdc.id takes a whole number from 0 to 65534"));
  EXPECT_THAT(problems_of("[trace]\nrecord = [255, 256]\n"), ElementsAre("f:2:16: a gate is a number from 0 to 255"));
}

TEST(Config, RefusesPlacesThatArentThere) {
  EXPECT_THAT(problems_of("[limits]\nconnections = 10\nconnections_per_user = 11\n"),
              ElementsAre("f:3:24: 11 of 10 connections: no user can have so many; at most 10 are possible"));
  EXPECT_THAT(problems_of("[limits]\nconnections_unmapped = 1024\n"),
              ElementsAre("f:2:24: 1024 of 1024 connections: none would be left for users with a VDC; at most 1023 are "
                          "possible"));
  EXPECT_THAT(problems_of("[limits]\nconnections = 10\nconnections_unmapped = 4\nconnections_administrators = 6\n"),
              ElementsAre("f:4:30: 6 of 10 connections: none would be left for users with a VDC; at most 5 are "
                          "possible"));
  EXPECT_THAT(problems_of("[limits]\nconnections = 10\nconnections_unmapped = 4\nconnections_administrators = 5\n"),
              IsEmpty());
  EXPECT_THAT(problems_of("[limits]\nconnects_per_second = 0\nchanges_per_user = 0\nrequests_per_user = 1025\n"),
              ElementsAre(HasSubstr("f:2:23: "), HasSubstr("f:3:20: "), HasSubstr("f:4:21: ")));
}

TEST(Config, HasPlacesFollowTheNumberOfConnections) {
  const auto limits = good("[limits]\nconnections = 100\n").limits;
  EXPECT_EQ(limits.connections_per_user, 100u);
  EXPECT_EQ(limits.connections_unmapped, 6u);
  EXPECT_EQ(limits.connections_administrators, 1u);
  EXPECT_EQ(good("[limits]\nconnections = 1\n").limits.connections_unmapped, 1u);
  EXPECT_EQ(good("[limits]\nconnections = 9999\n").limits.connections_per_user, 256u);
}

TEST(Config, RefusesALimitOfAUserAboveThatOfAll) {
  EXPECT_THAT(problems_of("[limits]\nentries = 10\nentries_per_user = 11\nbytes = 100\nbytes_per_user = 101\n"),
              ElementsAre("f:3:20: 11 of 10 entries: no user can have so many; at most 10 are possible",
                          "f:5:18: 101 of 100 bytes: no user can have so many; at most 100 are possible"));
  EXPECT_THAT(problems_of("[limits]\nentries_per_user = 65535\nbytes_per_user = 268435456\n"), IsEmpty());
  const auto limits = good("[limits]\nentries = 10\nbytes = 100\n").limits;
  EXPECT_EQ(limits.entries_per_user, 10u);
  EXPECT_EQ(limits.bytes_per_user, 100u);
}

TEST(Config, NamesTheOnlyVdc) {
  EXPECT_EQ(good("").only_vdc(), std::nullopt);
  EXPECT_EQ(good("[[vdc]]\nid = 5\nusers = [1]\ngroups = [2]\n").only_vdc(), 5);
  EXPECT_EQ(good("[[vdc]]\nid = 5\nusers = [1]\n[[vdc]]\nid = 6\ngroups = [2]\n").only_vdc(), std::nullopt);
}

TEST(Config, RefusesAModeThatWasMeantToBeOctal) {
  for (const char *mode : {"660", "0o1000", "-1", "true"}) {
    EXPECT_THAT(problems_of(std::string("[service]\nsocket_mode = ") + mode + "\n"),
                ElementsAre("f:2:15: socket_mode takes permission bits in octal, as 0o660"));
  }
  EXPECT_EQ(good("[service]\nsocket_mode = 0o777\n").socket_mode, 0777u);
  EXPECT_EQ(good("[service]\nsocket_mode = 0\n").socket_mode, 0u);
}

TEST(Config, RefusesRelativeAndTooLongPaths) {
  EXPECT_THAT(problems_of("[service]\nsocket = \"ksd.sock\"\nvault = \"\"\n"),
              ElementsAre("f:2:10: socket takes an absolute path", "f:3:9: vault takes an absolute path"));
  EXPECT_THAT(problems_of("[service]\nsocket = \"/" + std::string(107, 'x') + "\"\n"),
              ElementsAre("f:2:10: socket is 108 bytes long; at most 107 are possible"));
  EXPECT_THAT(problems_of("[service]\nsocket = \"/" + std::string(106, 'x') + "\"\n"), IsEmpty());
}

TEST(Config, RefusesAWitnessInThePlaceOfAFileOfTheVault) {
  EXPECT_THAT(problems_of("[vault]\nwitness = \"here\""), ElementsAre("f:2:11: witness takes an absolute path"));
  for (const char *file : {"/v", "/v-wal", "/v-journal", "/v-lock", "/v-reserve"}) {
    EXPECT_THAT(problems_of("[service]\nvault = \"/v\"\n[vault]\nwitness = \"" + std::string(file) + "\""),
                ElementsAre("f:4:11: witness names a file that the vault needs for itself; name another one"));
  }
  EXPECT_THAT(problems_of("[service]\nmaster_key_file = \"/k\"\n[vault]\nwitness = \"/k\""),
              ElementsAre("f:4:11: witness names the master key; name another file"));
  EXPECT_THAT(problems_of("[service]\nvault = \"/v\"\n[vault]\nwitness = \"/v-witness\""), IsEmpty());
}

TEST(Config, RefusesACacheUriThatClientsCantUse) {
  EXPECT_THAT(problems_of("[service]\ncache_uri = \"sqlite:///x\"\n"), ElementsAre(HasSubstr("f:2:13: ")));
  EXPECT_THAT(problems_of("[service]\ncache_uri = \"lmdb:///{user}\"\n"),
              ElementsAre("f:2:13: cache_uri knows the placeholders {uid} and {vdc} only"));
  EXPECT_THAT(problems_of("[service]\ncache_uri = \"lmdb:///" + std::string(216, 'x') + "\"\n"),
              ElementsAre("f:2:13: cache_uri is too long: 223 bytes are possible"));
  EXPECT_THAT(problems_of("[service]\ncache_uri = \"lmdb:///" + std::string(215, 'x') + "\"\n"), IsEmpty());
}

TEST(Config, RefusesUsersThatDontExistAndUsersOfTwoVdcs) {
  EXPECT_THAT(problems_of("[[vdc]]\nid = 1\nusers = [\"no-such-user\", 4, -1, 1.5]\n[[vdc]]\nid = 2\nusers = [4]\n"),
              ElementsAre("f:3:10: there is no user \"no-such-user\" on this machine; create it or give a number",
                          "f:3:29: a user is a name in quotes or a number",
                          "f:3:33: a user is a name in quotes or a number", "f:6:10: user 4 belongs to VDC 1 already"));
}

TEST(Config, RefusesAVdcWithoutIdOrTwice) {
  EXPECT_THAT(
      problems_of("[[vdc]]\nusers = [1]\n[[vdc]]\nid = 3\n[[vdc]]\nid = 3\n"),
      ElementsAre("f:1:1: this [[vdc]] has no id", "f:6:6: VDC 3 has a [[vdc]] already; put all its users there"));
}

TEST(SampleConfig, IsValidAndShowsTheDefaults) {
  const ksd::config::ParsedConfig sample = ksd::config::load_config(KS_SOURCE_DIR "/service/ksd.toml");
  EXPECT_THAT(sample.problems, IsEmpty());
  const Config defaults;
  EXPECT_EQ(sample.config.socket, defaults.socket);
  EXPECT_EQ(sample.config.socket_mode, defaults.socket_mode);
  EXPECT_EQ(sample.config.vault, defaults.vault);
  EXPECT_EQ(sample.config.cache_uri, defaults.cache_uri);
  EXPECT_EQ(sample.config.log_level, defaults.log_level);
  EXPECT_EQ(sample.config.receive_limit_ms, defaults.receive_limit_ms);
  EXPECT_EQ(sample.config.send_limit_ms, defaults.send_limit_ms);
  EXPECT_EQ(sample.config.silence_limit_ms, defaults.silence_limit_ms);
  EXPECT_EQ(sample.config.supstate, defaults.supstate);
  EXPECT_EQ(sample.config.limits, defaults.limits);
  EXPECT_EQ(sample.config.gates.record, defaults.gates.record);
  EXPECT_EQ(sample.config.gates.debug, defaults.gates.debug);
}

TEST(Config, RefusesToMapTheNumberOfEverybodyInContainers) {
  const std::string refusal =
      " is what the kernel calls everybody without an id of this machine; name somebody, or set service.allow_nobody = "
      "true";
  EXPECT_THAT(problems_of("[[vdc]]\nid = 1\nusers = [65534]\n"), ElementsAre("f:3:10: 65534" + refusal));
  EXPECT_THAT(problems_of("[[vdc]]\nid = 1\ngroups = [65534]\n"), ElementsAre("f:3:11: 65534" + refusal));
  EXPECT_THAT(problems_of("[administrators]\nusers = [65534]\n"), ElementsAre("f:2:10: 65534" + refusal));
  EXPECT_THAT(problems_of("[administrators]\ngroups = [65534]\n"), ElementsAre("f:2:11: 65534" + refusal));
}

TEST(Config, MapsTheNumberOfEverybodyInContainersWhenToldTo) {
  const Config config = good("[service]\nallow_nobody = true\n[[vdc]]\nid = 3\nusers = [65534]\n");
  EXPECT_EQ(config.identify(65534, 1, 1, {}).vdc_id, 3);
}

TEST(ConfigFile, IsRefusedWhenOthersMayWriteOrReplaceIt) {
  char name[] = "/tmp/ksXXXXXX";
  const std::string folder = mkdtemp(name);
  const std::string path = folder + "/ksd.toml";
  std::ofstream(path) << "";
  const auto problem = [&] {
    const auto problems = ksd::config::load_config(path).problems;
    return problems.empty() ? std::string() : problems[0].text;
  };
  chmod(path.c_str(), 0600);
  EXPECT_EQ(problem(), "");
  chmod(path.c_str(), 0620);
  EXPECT_EQ(problem(),
            "isn't safe: " + path + " has mode 0620, with which others may write it; run: chmod go-w " + path);
  chmod(path.c_str(), 0602);
  EXPECT_THAT(problem(), HasSubstr("has mode 0602"));
  chmod(path.c_str(), 0644);
  chmod(folder.c_str(), 0777);
  EXPECT_THAT(problem(), HasSubstr(folder + " has mode 0777"));
  chmod(folder.c_str(), 01777);
  EXPECT_EQ(problem(), "");
  if (geteuid() == 0) {
    EXPECT_EQ(chown(path.c_str(), 23456, 23456), 0);
    EXPECT_THAT(problem(), HasSubstr(path + " belongs to user 23456, who is neither root nor the service's user 0"));
  }
  std::filesystem::remove_all(folder);
}

TEST(SharedConfig, IsThereOnlyWhereItIsAskedFor) {
  EXPECT_FALSE(good("").shared);
  const auto shared = good("[shared]\nendpoints = [\"http://127.0.0.1:2379\"]\nmachine = \"a\"").shared;
  ASSERT_TRUE(shared);
  EXPECT_THAT(shared->endpoints, ElementsAre("127.0.0.1:2379"));
  EXPECT_EQ(shared->prefix, "ks/");
  EXPECT_EQ(shared->ca + shared->certificate + shared->key + shared->mirror, "");
  EXPECT_EQ(shared->write_wait_ms, 5000u);
  EXPECT_EQ(shared->max_age_s, 900u);
  EXPECT_FALSE(shared->create);
  EXPECT_THAT(shared->owners, IsEmpty());
}

TEST(SharedConfig, ReadsEveryKey) {
  const auto shared = good(R"(
[shared]
endpoints = ["https://store1.example:2379", "https://10.0.0.2:1", "https://[fd00::1]:65535"]
prefix = "site/ks"
ca = "/a"
certificate = "/b"
key = "/c"
machine = "radius-1"
mirror = "/d"
create = true
accept_incarnation = 3
write_wait_ms = 100
max_age_s = 1
[shared.owners]
radius = 1000
"eap daemon" = "root"
)")
                          .shared;
  ASSERT_TRUE(shared);
  EXPECT_THAT(shared->endpoints, ElementsAre("store1.example:2379", "10.0.0.2:1", "[fd00::1]:65535"));
  EXPECT_EQ(shared->prefix, "site/ks/");
  EXPECT_EQ(shared->ca + shared->certificate + shared->key + shared->mirror, "/a/b/c/d");
  EXPECT_EQ(shared->machine, "radius-1");
  EXPECT_TRUE(shared->create);
  EXPECT_EQ(shared->accept_incarnation, 3u);
  EXPECT_EQ(shared->write_wait_ms, 100u);
  EXPECT_EQ(shared->max_age_s, 1u);
  EXPECT_THAT(shared->owners, ElementsAre(testing::Pair("eap daemon", 0), testing::Pair("radius", 1000)));
}

TEST(SharedConfig, NeedsMutualTlsUnlessTheStoreIsOnThisMachine) {
  EXPECT_THAT(problems_of("[shared]\nendpoints = [\"http://10.0.0.1:2379\"]\nmachine = \"a\""),
              ElementsAre("f:2:14: http://10.0.0.1:2379 isn't on this machine: it needs https://, with ca, certificate "
                          "and key"));
  EXPECT_THAT(problems_of("[shared]\nendpoints = [\"https://10.0.0.1:2379\"]\nca = \"/a\"\nmachine = \"a\""),
              ElementsAre("f:1:1: endpoints of https:// need certificate: each side shows the other who it is",
                          "f:1:1: endpoints of https:// need key: each side shows the other who it is"));
  EXPECT_THAT(problems_of("[shared]\nendpoints = [\"http://localhost:1\"]\nca = \"/a\"\nmachine = \"a\""),
              ElementsAre("f:3:6: ca is for endpoints of https://"));
  EXPECT_THAT(problems_of("[shared]\nendpoints = [\"http://[::1]:1\", \"https://127.0.0.1:1\"]\nmachine = \"a\""),
              ElementsAre("f:2:32: endpoints are all of https:// or all of http://"));
  for (const char *elsewhere :
       {"http://126.0.0.1:1", "http://128.0.0.1:1", "http://[::2]:1", "http://127.0.0.1.example:1", "http://1:1"}) {
    EXPECT_THAT(problems_of(std::string("[shared]\nmachine = \"a\"\nendpoints = [\"") + elsewhere + "\"]"),
                ElementsAre(HasSubstr("isn't on this machine")))
        << elsewhere;
  }
}

TEST(SharedConfig, NamesWhatIsNoEndpoint) {
  EXPECT_THAT(problems_of("[shared]\nmachine = \"a\""),
              ElementsAre("f:1:1: [shared] has no endpoints: where the store is"));
  EXPECT_THAT(problems_of("[shared]\nmachine = \"a\"\nendpoints = []"), ElementsAre("f:3:13: endpoints names none"));
  for (const char *other : {"\"10.0.0.1:2379\"", "\"https://a\"", "\"https://a:0\"", "\"https://a:65536\"",
                            "\"https://:1\"", "\"https://[::1:1\"", "\"https://a/b:1\"", "2379"}) {
    EXPECT_THAT(problems_of(std::string("[shared]\nmachine = \"a\"\nendpoints = [") + other + "]"),
                ElementsAre("f:3:14: an endpoint is \"https://host:port\""))
        << other;
  }
}

TEST(SharedConfig, TakesNamesOfLettersDigitsAndAFewMarks) {
  const std::string begin = "[shared]\nendpoints = [\"http://127.0.0.1:1\"]\n";
  const std::string small = "abcdefghijklmnopqrstuvwxyz0123456789._-";
  EXPECT_EQ(good(begin + "machine = \"" + small + "\"").shared->machine, small);
  const std::string prefix = "ABCDEFGHIJKLMNOPQRSTUVWXYZ/az09._-";
  EXPECT_EQ(good(begin + "machine = \"a\"\nprefix = \"" + prefix + "\"").shared->prefix, prefix + "/");
  for (const char *other : {"`", "{", "/", ":", "@", "[", "A"}) {
    EXPECT_THAT(problems_of(begin + "machine = \"" + other + "\""), ElementsAre(HasSubstr("machine takes a name")));
  }
}

TEST(SharedConfig, NamesWhatIsWrongElsewhere) {
  const std::string begin = "[shared]\nendpoints = [\"http://127.0.0.1:1\"]\n";
  EXPECT_THAT(problems_of(begin + "machine = \"Radius 1\""),
              ElementsAre("f:3:11: machine takes a name of 1 to 63 of a to z, 0 to 9 and ._-"));
  EXPECT_THAT(problems_of(begin + "machine = \"a\"\nprefix = \"\""),
              ElementsAre(HasSubstr("f:4:10: prefix takes a name")));
  EXPECT_THAT(problems_of(begin + "machine = \"a\"\nmirror = \"m\""),
              ElementsAre("f:4:10: mirror takes an absolute path"));
  EXPECT_THAT(problems_of(begin + "machine = \"a\"\nmax_age = 1"),
              ElementsAre(HasSubstr("f:4:1: unknown key shared.max_age; the nearest known one is max_age_s;")));
  EXPECT_THAT(problems_of(begin + "machine = \"a\"\n[shared.owners]\na = 0\nb = \"root\"\nc = \"nobody here\""),
              ElementsAre("f:6:5: user 0 has a name already",
                          "f:7:5: there is no user \"nobody here\" on this machine; create it or give a number"));
}

}  // namespace
