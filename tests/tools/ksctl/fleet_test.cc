// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// How a machine gets the master key of a fleet, and what stands in the way of who exchanges files on the way.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "content_of.h"
#include "ksctl.h"
#include "temporary_folder.h"

namespace {

using ks_test::ProgramRun;
using testing::HasSubstr;

constexpr int kFailed = 1, kNotAllowed = 4, kConflict = 7;

class KsctlFleet : public testing::Test {
 protected:
  KsctlFleet() {
    write("fleet.key", std::string("0123456789abcdef0123456789abcdef"));
    chmod(path("fleet.key").c_str(), 0600);
  }

  std::string path(const std::string &name) const { return folder_.path() + "/" + name; }
  void write(const std::string &name, const std::string &content) const { std::ofstream(path(name)) << content; }
  std::string content(const std::string &name) const { return ks_test::content_of(path(name)); }
  bool is_there(const std::string &name) const { return std::filesystem::exists(path(name)); }

  static ProgramRun run(std::vector<std::string> arguments) { return ks_test::ksctl("/none", std::move(arguments)); }
  static std::string fingerprint_in(const ProgramRun &done) {
    EXPECT_EQ(done.status, 0) << done.errors;
    const size_t at = done.output.find("fingerprint\t");
    EXPECT_NE(at, std::string::npos) << done.output;
    return done.output.substr(at + 12, 39);
  }

  // Each gives the fingerprint that it shows.
  std::string request(const std::string &name = "") const {
    return fingerprint_in(
        run({"fleet", "request", path(name + "request"), "--join-key-file", path(name + "join.key")}));
  }
  ProgramRun admit(const std::string &fingerprint) const {
    return run({"fleet", "admit", path("request"), path("answer"), "--fingerprint", fingerprint, "--master-key-file",
                path("fleet.key")});
  }
  ProgramRun join(const std::string &fingerprint, const std::string &name = "") const {
    return run({"fleet", "join", path("answer"), "--fingerprint", fingerprint, "--join-key-file",
                path(name + "join.key"), "--master-key-file", path("own.key")});
  }

 private:
  const ks_test::TemporaryFolder folder_;
};

TEST_F(KsctlFleet, GivesTheMasterKeyToAMachineThatAsks) {
  const std::string asked = request();
  const std::string answered = fingerprint_in(admit(asked));
  EXPECT_THAT(content("answer"), testing::Not(HasSubstr(content("fleet.key"))));
  ASSERT_EQ(join(answered).status, 0);
  EXPECT_EQ(content("own.key"), content("fleet.key"));
  EXPECT_EQ(std::filesystem::status(path("own.key")).permissions(), std::filesystem::perms(0600));
  EXPECT_FALSE(is_there("join.key"));
}

// The service's user makes them, and whoever carries them is another one.
TEST_F(KsctlFleet, MakesRequestsAndAnswersThatAnybodyCanCarry) {
  const mode_t mask = umask(077);
  const std::string asked = request();
  EXPECT_EQ(admit(asked).status, 0);
  umask(mask);
  for (const char *name : {"request", "answer"}) {
    EXPECT_EQ(std::filesystem::status(path(name)).permissions(), std::filesystem::perms(0644)) << name;
  }
  EXPECT_EQ(std::filesystem::status(path("join.key")).permissions(), std::filesystem::perms(0600));
}

TEST_F(KsctlFleet, AnswersNoRequestThatWasExchangedOnItsWay) {
  const std::string asked = request();
  request("stranger's ");
  std::filesystem::rename(path("stranger's request"), path("request"));
  const ProgramRun refused = admit(asked);
  EXPECT_EQ(refused.status, kNotAllowed);
  EXPECT_THAT(refused.errors, HasSubstr("has another fingerprint than the one given"));
  EXPECT_FALSE(is_there("answer"));
}

TEST_F(KsctlFleet, TakesNoKeyFromAnAnswerThatWasExchangedOnItsWay) {
  const std::string asked = request();
  const std::string answered = fingerprint_in(admit(asked));
  std::filesystem::remove(path("answer"));
  write("fleet.key", std::string(32, 'x'));  // a stranger's
  admit(asked);
  EXPECT_EQ(join(answered).status, kNotAllowed);
  EXPECT_FALSE(is_there("own.key"));
  EXPECT_TRUE(is_there("join.key"));
}

TEST_F(KsctlFleet, TakesNoKeyFromAnAnswerToAnotherMachine) {
  const std::string answered = fingerprint_in(admit(request()));
  request("other ");
  EXPECT_EQ(join(answered, "other ").status, kNotAllowed);
  EXPECT_FALSE(is_there("own.key"));
}

TEST_F(KsctlFleet, ReplacesNothing) {
  const std::string asked = request();
  EXPECT_EQ(run({"fleet", "request", path("request"), "--join-key-file", path("second")}).status, kConflict);
  EXPECT_FALSE(is_there("second"));
  EXPECT_EQ(run({"fleet", "request", path("second"), "--join-key-file", path("join.key")}).status, kConflict);
  const std::string answered = fingerprint_in(admit(asked));
  EXPECT_EQ(admit(asked).status, kConflict);
  write("own.key", "is there");
  EXPECT_EQ(join(answered).status, kConflict);
  EXPECT_EQ(content("own.key"), "is there");
  EXPECT_TRUE(is_there("join.key"));
}

TEST_F(KsctlFleet, SaysWhichFileIsNoneOfIts) {
  const std::string asked = request();
  const std::string good = content("request");
  for (const std::string &other : {std::string("nonsense"), good + good, good.substr(0, good.size() - 6),
                                   "ks-fleet-answer-1" + good.substr(good.find(' '))}) {
    write("request", other);
    const ProgramRun refused = admit(asked);
    EXPECT_EQ(refused.status, kFailed) << other;
    EXPECT_THAT(refused.errors, HasSubstr("isn't a request to join; give the file that `ksctl fleet request` made"));
  }
  write("request", good);
  const std::string answered = fingerprint_in(admit(asked));
  write("join.key", "short");
  EXPECT_THAT(join(answered).errors, HasSubstr("isn't the key of a machine that wants to join"));
}

}  // namespace
