// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Events: what the journal is sent, and that each of them is explained.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <regex>
#include <set>

#include "base/fd.h"
#include "base/log.h"
#include "content_of.h"
#include "temporary_folder.h"

namespace {

using ks_test::content_of;
using testing::HasSubstr;
using testing::IsEmpty;

std::multiset<std::string> found(const std::string &text, const std::string &pattern) {
  const std::regex expression(pattern);
  std::multiset<std::string> all;
  for (std::sregex_iterator at(text.begin(), text.end(), expression), end; at != end; ++at) all.insert((*at)[1]);
  return all;
}

// A journal of the test's own, and standard error in a file.
class Events : public testing::Test {
 protected:
  Events() : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path().copy(address.sun_path, sizeof address.sun_path - 1);
    bind(socket_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
    const ksd::UniqueFd errors(open((folder_.path() + "/errors").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    dup2(errors.get(), STDERR_FILENO);
  }
  ~Events() override { dup2(own_errors_.get(), STDERR_FILENO); }

  std::string path() const { return folder_.path() + "/journal"; }
  std::string errors() const { return content_of(folder_.path() + "/errors"); }
  std::string datagram() const {
    std::array<char, 4096> text{};
    const ssize_t size = recv(socket_.get(), text.data(), text.size(), 0);
    return size < 0 ? "" : std::string(text.data(), static_cast<size_t>(size));
  }

 private:
  const ks_test::TemporaryFolder folder_;
  const ksd::UniqueFd own_errors_{fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)};
  const ksd::UniqueFd socket_;
};

TEST_F(Events, GoToTheJournalWithTheirId) {
  ksd::start_logging(ksd::LogFormat::kJournal, "info", path().c_str());
  ksd::tell(ksd::event::kDiskFull, "{}: full", "/vault");
  using namespace std::string_literals;
  EXPECT_EQ(datagram(),
            "PRIORITY=3\nSYSLOG_IDENTIFIER=ksd\nMESSAGE_ID=4abaff6592be40ecad396480b407b083\n"
            "MESSAGE\n\x0c\0\0\0\0\0\0\0/vault: full\n"s);
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Events, TellTheLengthOfALongText) {
  ksd::start_logging(ksd::LogFormat::kJournal, "info", path().c_str());
  const std::string text(0x1234 / 2, 'x');
  ksd::tell(ksd::event::kDiskFull, "{}", text);
  using namespace std::string_literals;
  EXPECT_THAT(datagram(), HasSubstr("MESSAGE\n\x1a\x09\0\0\0\0\0\0"s + text + "\n"));
}

TEST_F(Events, NameTheClientThatTheyAreAbout) {
  ksd::start_logging(ksd::LogFormat::kJournal, "info", path().c_str());
  ksd::LogLimiter limiter;
  limiter.warn(ksd::LogLimiter::Kind::kForeignName, 1234, "user {} named an entry of another VDC", 1234);
  const std::string sent = datagram();
  EXPECT_THAT(sent, HasSubstr("PRIORITY=4\n"));
  EXPECT_THAT(sent, HasSubstr("MESSAGE_ID=2ef025c730b2416889e74cb6106cdb46\nKSD_CLIENT_UID=1234\n"));
}

TEST_F(Events, AreLinesWhereNoJournalTakesThem) {
  ksd::start_logging(ksd::LogFormat::kJournal, "info", "/nonexistent/journal");
  ksd::tell(ksd::event::kDiskFull, "full");
  EXPECT_EQ(errors(), "<3>full\n");
}

TEST_F(Events, AreLinesForPeopleAndFiles) {
  ksd::start_logging(ksd::LogFormat::kPlain, "info", path().c_str());
  ksd::tell(ksd::event::kDiskFull, "full");
  EXPECT_THAT(errors(), testing::EndsWith(" error: full\n"));
  EXPECT_THAT(datagram(), IsEmpty());
}

TEST_F(Events, KeepToTheLevelOfTheLog) {
  ksd::start_logging(ksd::LogFormat::kJournal, "error", path().c_str());
  ksd::tell(ksd::event::kNeedsRestart, "a warning");
  EXPECT_THAT(datagram(), IsEmpty());
}

TEST(EventCatalog, ExplainsEachEventOnce) {
  const auto told = found(content_of(KS_SOURCE_DIR "/service/base/event.h"), "\"([0-9a-f]{32})\"");
  const auto explained =
      found(content_of(KS_SOURCE_DIR "/service/systemd/ksd.catalog"), "(?:^|\n)-- ([0-9a-f]{32})\nSubject: [^\n]+\n");
  EXPECT_EQ(told, explained);
  EXPECT_EQ(told.size(), std::set(told.begin(), told.end()).size());
  EXPECT_GE(told.size(), 20u);
}

}  // namespace
