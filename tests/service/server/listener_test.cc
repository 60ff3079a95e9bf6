// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The socket that the service makes, and what it says where it can't make one.
#include "server/listener.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "temporary_folder.h"

namespace ksd::server {
namespace {

class Listener : public testing::Test {
 protected:
  // refusal gives the text of a failure, or nothing.
  static std::string refusal(const std::string &path) {
    try {
      listen_at(path, {});
    } catch (const std::runtime_error &failure) {
      return failure.what();
    }
    return "";
  }

  const ks_test::TemporaryFolder folder;
  const std::string path = folder.path() + "/ksd.sock";
};

TEST_F(Listener, HasTheModeOfTheConfigurationWhateverTheMask) {
  const mode_t before = umask(0777);
  config::Config config;
  config.socket_mode = 0640;
  {
    const UniqueFd listening = listen_at(path, config);
    EXPECT_EQ(socket_path_of(listening.get()), path);
  }
  struct stat status {};
  ASSERT_EQ(lstat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
  EXPECT_EQ(umask(before), 0777u);
}

TEST_F(Listener, TakesThePlaceOfAnEarlierSocketAndOfNothingElse) {
  EXPECT_EQ(refusal(path), "");
  EXPECT_EQ(refusal(path), "");
  std::filesystem::remove(path);
  std::ofstream(path) << "a file";
  EXPECT_EQ(refusal(path), path + ": isn't a socket; remove it or name another place");
}

TEST_F(Listener, SaysWhatStandsInItsWay) {
  const std::string nowhere = folder.path() + "/none/ksd.sock";
  EXPECT_EQ(refusal(nowhere), nowhere + ": can't bind the socket: No such file or directory");
  const std::string longest = folder.path() + "/" + std::string(107 - folder.path().size() - 1, 'l');
  EXPECT_EQ(refusal(longest), "");
  EXPECT_EQ(refusal(longest + "l"), longest + "l: too long for a socket; 107 bytes are possible");
}

TEST_F(Listener, HasItsFolderMadeWhenOnlyThatIsMissing) {
  make_socket_folder(folder.path() + "/new/ksd.sock");
  make_socket_folder(folder.path() + "/new/ksd.sock");
  EXPECT_TRUE(std::filesystem::is_directory(folder.path() + "/new"));
  EXPECT_THROW(make_socket_folder(folder.path() + "/a/b/ksd.sock"), std::runtime_error);
}

}  // namespace
}  // namespace ksd::server
