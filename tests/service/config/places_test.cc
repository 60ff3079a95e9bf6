// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What is said of the places that a configuration names.
#include "config/places.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "temporary_folder.h"

namespace {

using ksd::config::Config;
using ksd::config::find_obstacles;
using testing::ElementsAre;
using testing::IsEmpty;

class Places : public testing::Test {
 protected:
  Places() {
    config.socket = path("run/s");
    config.vault = path("lib/vault.db");
    config.master_key_file = path("etc/master.key");
  }

  std::string path(const std::string &name) const { return folder_.path() + "/" + name; }
  void make_folder(const std::string &name, mode_t mode = 0700) const {
    mkdir(path(name).c_str(), mode);
    chmod(path(name).c_str(), mode);
  }
  void make_file(const std::string &name) const {
    std::ofstream(path(name)) << "";
    chmod(path(name).c_str(), 0600);
  }
  std::vector<std::string> obstacles() const { return find_obstacles(config); }

  const std::string user = std::to_string(geteuid());
  Config config;

 private:
  const ks_test::TemporaryFolder folder_;
};

TEST_F(Places, MayBeMissingAtAFirstStart) {
  EXPECT_THAT(obstacles(), IsEmpty());
}

TEST_F(Places, OfAWitnessAreOnAVolumeThatIsThere) {
  config.witness = path("volume/witness");
  EXPECT_THAT(obstacles(), ElementsAre("witness: folder " + path("volume") + ": No such file or directory; make it, " +
                                       "with mode 0700, for user " + user));
}

TEST_F(Places, OfTheVaultAreMissedWhenThereIsAKey) {
  make_folder("etc");
  make_file("etc/master.key");
  EXPECT_THAT(obstacles(), ElementsAre("vault: folder " + path("lib") +
                                       ": No such file or directory; make it, with mode 0700, for user " + user));
  make_folder("lib");
  EXPECT_THAT(obstacles(), IsEmpty());
}

TEST_F(Places, OfTheVaultAreMissedWhenTheKeyIsACredential) {
  config.master_key_file.clear();
  EXPECT_THAT(obstacles(), ElementsAre("vault: folder " + path("lib") +
                                       ": No such file or directory; make it, with mode 0700, for user " + user));
}

TEST_F(Places, AreMissedWhereNothingIsAbove) {
  config.socket = path("none/run/s");
  config.master_key_file = path("none/etc/key");
  EXPECT_THAT(obstacles(), ElementsAre("socket: folder " + path("none/run") +
                                           ": No such file or directory; make it, with mode 0700, for user " + user,
                                       "master_key_file: folder " + path("none/etc") +
                                           ": No such file or directory; make it, with mode 0700, for user " + user));
}

TEST_F(Places, AreNoFolders) {
  for (const char *name : {"run", "run/s", "lib", "lib/vault.db", "etc", "etc/master.key"}) make_folder(name);
  EXPECT_THAT(
      obstacles(),
      ElementsAre("socket: " + path("run/s") + " is a folder, not a socket; name a place in a folder",
                  "vault: " + path("lib/vault.db") + " is a folder, not the vault's file; name a place in a folder",
                  "master_key_file: " + path("etc/master.key") + " is a folder, not a key; name a place in a folder"));
}

TEST_F(Places, AreNoFilesOfAnotherKind) {
  for (const char *name : {"run", "lib"}) make_folder(name);
  make_file("run/s");
  make_file("etc");
  EXPECT_THAT(
      obstacles(),
      ElementsAre("socket: " + path("run/s") + " is a file of another kind, not a socket; name a place in a folder",
                  "master_key_file: " + path("etc") + " isn't a folder; remove it or name another place"));
}

TEST_F(Places, AreNotOthersToWrite) {
  make_folder("run", 0777);
  make_folder("lib", 0770);
  make_folder("etc");
  make_file("etc/master.key");
  chmod(path("etc/master.key").c_str(), 0620);
  EXPECT_THAT(
      obstacles(),
      ElementsAre(
          "socket: " + path("run") + " has mode 0777, with which others may write it; run: chmod go-w " + path("run"),
          "vault: " + path("lib") + " has mode 0770, with which others may write it; run: chmod go-w " + path("lib"),
          "master_key_file: " + path("etc/master.key") +
              " has mode 0620, with which others may write it; run: chmod go-w " + path("etc/master.key")));
}

TEST_F(Places, AreTheUsersToWrite) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
  for (const char *name : {"run", "lib", "etc"}) make_folder(name, 0755);
  chmod(path("").c_str(), 0755);
  ASSERT_EQ(seteuid(23456), 0);
  const std::vector<std::string> found = obstacles();
  ASSERT_EQ(seteuid(0), 0);
  EXPECT_THAT(
      found,
      ElementsAre(
          "socket: user 23456 may not write in " + path("run") + "; give the folder to the service's user",
          "vault: user 23456 may not write in " + path("lib") + "; give the folder to the service's user",
          "master_key_file: user 23456 may not write in " + path("etc") + "; give the folder to the service's user"));
}

TEST_F(Places, OfFilesForTlsAreThereAndInSafeHands) {
  config.shared.emplace();
  EXPECT_THAT(obstacles(), IsEmpty());
  config.shared->ca = path("ca");
  config.shared->certificate = path("certificate");
  config.shared->key = path("tls");
  make_file("certificate");
  chmod(path("certificate").c_str(), 0666);
  make_folder("tls");
  EXPECT_THAT(
      obstacles(),
      ElementsAre("ca: " + path("ca") + ": No such file or directory; put it there, readable for the engine's user",
                  testing::HasSubstr("certificate: " + path("certificate")), "key: " + path("tls") + " isn't a file"));
}

}  // namespace
