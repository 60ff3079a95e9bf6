// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// A configuration of several files: which of them are read, in which order, and what becomes of what they say.
#include "config/layers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "config/config.h"
#include "temporary_folder.h"

namespace {

using ksd::config::Config;
using ksd::config::find_layers;
using ksd::config::load_layers;
using testing::ElementsAre;
using testing::IsEmpty;

class Layers : public testing::Test {
 protected:
  // The administrator's folder, that of until the next boot, and the vendor's.
  std::vector<std::string> folders() const { return {root_ + "/etc", root_ + "/run", root_ + "/usr"}; }

  void write(const std::string &name, const std::string &text) const {
    const std::string path = root_ + '/' + name;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path) << text;
    std::filesystem::permissions(path, std::filesystem::perms(0644));
  }

  // The files that are read, without the folder that all of them lie in.
  std::vector<std::string> found() const {
    std::vector<std::string> names;
    for (const std::string &path : find_layers(folders())) names.push_back(path.substr(root_.size() + 1));
    return names;
  }

  std::vector<std::string> problems() const {
    std::vector<std::string> texts;
    for (const auto &problem : load_layers(find_layers(folders())).problems) {
      texts.push_back(describe("", problem).substr(root_.size() + 1));
    }
    return texts;
  }

  Config good() const {
    EXPECT_THAT(problems(), IsEmpty());
    return load_layers(find_layers(folders())).config;
  }

  const ks_test::TemporaryFolder folder_;
  const std::string root_ = folder_.path();
};

TEST_F(Layers, AreTheDefaultsWithoutAnyFile) {
  EXPECT_THAT(found(), IsEmpty());
  EXPECT_EQ(good().vault, "/var/lib/ks/vault.db");
}

TEST_F(Layers, BeginWithTheFileOfTheFirstFolderThatHasOne) {
  write("usr/ksd.toml", "");
  EXPECT_THAT(found(), ElementsAre("usr/ksd.toml"));
  write("run/ksd.toml", "");
  EXPECT_THAT(found(), ElementsAre("run/ksd.toml"));
  write("etc/ksd.toml", "");
  EXPECT_THAT(found(), ElementsAre("etc/ksd.toml"));
}

TEST_F(Layers, GoOnWithDropInsByNameWhateverTheirFolder) {
  write("etc/ksd.toml", "");
  write("usr/ksd.toml.d/50-b.toml", "");
  write("etc/ksd.toml.d/10-a.toml", "");
  write("run/ksd.toml.d/70-c.toml", "");
  write("etc/ksd.toml.d/README", "not read");
  EXPECT_THAT(found(), ElementsAre("etc/ksd.toml", "etc/ksd.toml.d/10-a.toml", "usr/ksd.toml.d/50-b.toml",
                                   "run/ksd.toml.d/70-c.toml"));
}

TEST_F(Layers, HideADropInBehindItsNamesakeOfAnEarlierFolder) {
  write("usr/ksd.toml.d/50.toml", "[service]\nsupstate = 1\n");
  write("run/ksd.toml.d/50.toml", "[service]\nsupstate = 2\n");
  EXPECT_THAT(found(), ElementsAre("run/ksd.toml.d/50.toml"));
  EXPECT_EQ(good().supstate, 2u);
  std::filesystem::create_directories(root_ + "/etc/ksd.toml.d");
  std::filesystem::create_symlink("/dev/null", root_ + "/etc/ksd.toml.d/50.toml");
  EXPECT_EQ(good().supstate, 0u) << "/dev/null switches it off";
}

TEST_F(Layers, ReplaceKeyByKey) {
  write("usr/ksd.toml", "[service]\nsupstate = 1\nsend_limit_ms = 100\n[trace]\nrecord = [1, 2]\n");
  write("etc/ksd.toml.d/10.toml", "[service]\nsend_limit_ms = 200\n[trace]\nrecord = [3]\n");
  write("usr/ksd.toml.d/20.toml", "[service]\nsend_limit_ms = 300\n");
  const Config config = good();
  EXPECT_EQ(config.supstate, 1u);
  EXPECT_EQ(config.send_limit_ms, 300u) << "the later name counts, whatever its folder";
  EXPECT_TRUE(config.gates.record[3]);
  EXPECT_EQ(config.gates.record.count(), 1u);
}

TEST_F(Layers, ReplaceAVdcById) {
  write("usr/ksd.toml", "[[vdc]]\nid = 1\nusers = [10]\n[[vdc]]\nid = 2\nusers = [20]\n");
  write("etc/ksd.toml.d/10.toml", "[[vdc]]\nid = 2\nusers = [21]\n[[vdc]]\nid = 3\nusers = [30]\n");
  EXPECT_THAT(good().vdc_of_user, ElementsAre(std::pair(10u, 1), std::pair(21u, 2), std::pair(30u, 3)));
}

TEST_F(Layers, TellTheFileOfEachProblem) {
  write("usr/ksd.toml", "[service]\nsend_limit_ms = 1\n");
  write("etc/ksd.toml.d/10.toml", "\n[servise]\n");
  write("etc/ksd.toml.d/20.toml", "[limits]\n  entries = -1\n[[vdc]]\nid = 1\n[[vdc]]\nid = 1\n");
  EXPECT_THAT(
      problems(),
      ElementsAre("etc/ksd.toml.d/10.toml:2:2: unknown key servise; the nearest known one is service; known here: "
                  "service, vault, limits, trace, administrators, shared, vdc",
                  "etc/ksd.toml.d/20.toml:2:13: limits.entries takes a whole number from 0 to 65535",
                  "etc/ksd.toml.d/20.toml:6:6: VDC 1 has a [[vdc]] already; put all its users there",
                  "usr/ksd.toml:2:17: service.send_limit_ms takes a whole number from 10 to 3600000"));
}

TEST_F(Layers, AreRefusedWhenOthersMayWriteOne) {
  write("usr/ksd.toml", "");
  write("etc/ksd.toml.d/10.toml", "");
  std::filesystem::permissions(root_ + "/etc/ksd.toml.d/10.toml", std::filesystem::perms(0666));
  EXPECT_THAT(problems(), ElementsAre(testing::StartsWith("etc/ksd.toml.d/10.toml: isn't safe: ")));
}

TEST_F(Layers, AreRefusedWhenOneIsNoToml) {
  write("usr/ksd.toml", "[service\n");
  EXPECT_THAT(problems(), ElementsAre(testing::StartsWith("usr/ksd.toml:1:9: ")));
}

TEST(UnknownKey, IsToldWithTheNearestKnownOne) {
  const auto problem_of = [](const std::string &text) {
    const auto parsed = ksd::config::parse_config(text);
    return parsed.problems.empty() ? std::string() : parsed.problems[0].text;
  };
  EXPECT_THAT(problem_of("[service]\nsokcet = 1\n"),
              testing::StartsWith("unknown key service.sokcet; the nearest known one is socket;"));
  EXPECT_THAT(problem_of("[limits]\nentries_user = 1\n"), testing::HasSubstr("one is entries_per_user;"));
  EXPECT_THAT(problem_of("[administrator]\n"), testing::HasSubstr("one is administrators;"));
}

TEST(Sandbox, IsWhatTheConfigurationSays) {
  using ksd::config::Sandbox;
  const auto sandbox_of = [](const std::string &text) { return ksd::config::parse_config(text).config.sandbox; };
  EXPECT_EQ(sandbox_of(""), Sandbox::kAuto);
  EXPECT_EQ(sandbox_of("[service]\nsandbox = \"off\"\n"), Sandbox::kOff);
  EXPECT_EQ(sandbox_of("[service]\nsandbox = \"required\"\n"), Sandbox::kRequired);
  EXPECT_EQ(ksd::config::parse_config("[service]\nsandbox = true\n").problems.at(0).text,
            "sandbox takes \"auto\", \"off\" or \"required\"");
}

}  // namespace
