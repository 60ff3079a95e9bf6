// The command line of ksd: what it says, and with which status it ends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "service/service_process.h"

namespace {

using ks_test::run_ksd;
using testing::HasSubstr;

TEST(KsdCheck, AcceptsTheSample) {
  const auto run = run_ksd({"--check", "--config", KS_SOURCE_DIR "/service/ksd.toml"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.output, KS_SOURCE_DIR "/service/ksd.toml: valid\n");
}

TEST(KsdCheck, NamesFileLineAndColumn) {
  const std::string path = testing::TempDir() + "ks-bad-" + std::to_string(getpid()) + ".toml";
  std::ofstream(path) << "[service]\nport = 1\n";
  const auto run = run_ksd({"--check", "--config", path});
  std::filesystem::remove(path);
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.errors, testing::StartsWith(path + ":2:1: unknown key service.port"));
}

TEST(KsdCheck, SaysThatThereIsNoFile) {
  const auto run = run_ksd({"--check", "--config", "/nonexistent/ksd.toml"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.errors, "/nonexistent/ksd.toml: No such file or directory\n");
}

TEST(KsdCommandLine, TellsItsVersionAndItsUse) {
  EXPECT_EQ(run_ksd({"--version"}).output, "ksd 1.0.0\n");
  EXPECT_THAT(run_ksd({"--help"}).output, HasSubstr("--master-key-file"));
  EXPECT_EQ(run_ksd({"--help"}).status, 0);
}

TEST(KsdCommandLine, RefusesWrongUseWithStatus2) {
  EXPECT_EQ(run_ksd({"--chek"}).status, 2);
  EXPECT_EQ(run_ksd({"--log-level", "loud"}).status, 2);
}

}  // namespace
