// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The lines of the log: what stands in front of them, which are written, and what becomes of them where nobody reads.
#include "base/log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "temporary_folder.h"

namespace ksd {
namespace {

// Log has standard error be `file` and a new logger write there, for as long as it lives.
class Log {
 public:
  Log(int file, LogFormat format, const std::string &level)
      : before_(dup(STDERR_FILENO)), logger_(spdlog::default_logger()), level_(spdlog::get_level()) {
    dup2(file, STDERR_FILENO);
    start_logging(format, level);
  }
  ~Log() {
    spdlog::set_default_logger(logger_);
    spdlog::set_level(level_);
    dup2(before_, STDERR_FILENO);
    close(before_);
  }
  Log(const Log &) = delete;
  Log &operator=(const Log &) = delete;

 private:
  int before_;
  std::shared_ptr<spdlog::logger> logger_;
  spdlog::level::level_enum level_;
};

class Lines : public testing::Test {
 protected:
  Lines() {
    if (pipe2(ends_, O_NONBLOCK | O_CLOEXEC) != 0) abort();
  }
  ~Lines() override {
    close(ends_[0]);
    close(ends_[1]);
  }

  int in() const { return ends_[1]; }

  // written gives all that was written since it was last asked.
  std::string written() const { return read_all(ends_[0]); }

  static std::string read_all(int file) {
    std::string all;
    char part[4096];
    for (ssize_t size; (size = read(file, part, sizeof part)) > 0;) all.append(part, static_cast<size_t>(size));
    return all;
  }

  static void write_one_of_each() {
    spdlog::debug("d");
    spdlog::info("i");
    spdlog::warn("w");
    spdlog::error("e");
  }

 private:
  int ends_[2];
};

TEST_F(Lines, HaveAPriorityEachForTheJournal) {
  const Log log(in(), LogFormat::kJournal, "debug");
  write_one_of_each();
  EXPECT_EQ(written(), "<7>d\n<6>i\n<4>w\n<3>e\n");
}

TEST_F(Lines, HaveATimeForEverybodyElse) {
  const Log log(in(), LogFormat::kPlain, "info");
  spdlog::warn("text");
  EXPECT_THAT(written(), testing::MatchesRegex("[0-9-]+T[0-9:]+[.][0-9]+[+-][0-9:]+ ksd.[0-9]+. warning: text\n"));
}

TEST_F(Lines, AreForTheJournalWhereStandardErrorIsTheJournal) {
  setenv("JOURNAL_STREAM", "8:1", 1);
  {
    const Log log(in(), LogFormat::kAuto, "info");
    spdlog::info("text");
  }
  EXPECT_EQ(written(), "<6>text\n");
  unsetenv("JOURNAL_STREAM");
  const Log log(in(), LogFormat::kAuto, "info");
  spdlog::info("text");
  EXPECT_THAT(written(), testing::HasSubstr(" info: text\n"));
}

TEST_F(Lines, AreLeftOutBelowTheLevel) {
  const Log log(in(), LogFormat::kJournal, "warning");
  write_one_of_each();
  EXPECT_EQ(written(), "<4>w\n<3>e\n");
  set_log_level("error");
  write_one_of_each();
  EXPECT_EQ(written(), "<3>e\n");
  set_log_level("info");
  write_one_of_each();
  EXPECT_EQ(written(), "<6>i\n<4>w\n<3>e\n");
}

TEST_F(Lines, AreCountedWhereNobodyReadsAndToldOfOnce) {
  const Log log(in(), LogFormat::kJournal, "info");
  constexpr int kMany = 2000;
  for (int i = 0; i < kMany; ++i) spdlog::info("{}", std::string(96, 'x'));
  const std::string found = written();
  const auto fitted = std::count(found.begin(), found.end(), '\n');
  EXPECT_LT(fitted, kMany);
  spdlog::info("after");
  EXPECT_EQ(written(), "<4>" + std::to_string(kMany - fitted) + " lines were lost: nobody read the log\n<6>after\n");
  spdlog::info("later");
  EXPECT_EQ(written(), "<6>later\n");
}

TEST_F(Lines, GoIntoSocketsAndFiles) {
  int sockets[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, sockets), 0);
  {
    const Log log(sockets[1], LogFormat::kJournal, "info");
    spdlog::info("text");
  }
  EXPECT_EQ(read_all(sockets[0]), "<6>text\n");
  for (const int one : sockets) close(one);

  const ks_test::TemporaryFolder folder;
  const int file = open((folder.path() + "/log").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  {
    const Log log(file, LogFormat::kJournal, "info");
    spdlog::info("text");
  }
  lseek(file, 0, SEEK_SET);
  EXPECT_EQ(read_all(file), "<6>text\n");
  close(file);
}

}  // namespace
}  // namespace ksd
