// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What programs have left in their history rings, as lines, as a drawing and as a page.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "content_of.h"
#include "ksctl.h"
#include "ring_file.h"

namespace {

using ks_test::content_of;
using ks_test::ksctl;
using ks_test::ProgramRun;
using ks_test::RingFile;
using ks_test::run_program;
using ks_test::ServiceProcess;
using ks_test::TemporaryFolder;
using ks_test::with_administrator;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr uint32_t kNobodysPid = 0x7fffffff;
constexpr uint64_t kStart = 1'700'000'000'000'000'000;  // 2023-11-14T22:13:20Z

// Field 22 of the statistics of this process.
uint64_t own_start() {
  std::ifstream file("/proc/self/stat");
  std::string text;
  std::getline(file, text);
  std::istringstream fields(text.substr(text.rfind(')') + 1));
  std::string field;
  for (int number = 3; number < 22; ++number) fields >> field;
  uint64_t start = 0;
  fields >> start;
  return start;
}

class KsctlHistory : public testing::Test {
 protected:
  KsctlHistory() { mkdir((folder_.path() + "/history").c_str(), 0700); }

  std::string ring(int number) const { return folder_.path() + "/history/0" + std::to_string(number) + ".ring"; }
  std::string file(const char *name) const { return folder_.path() + "/" + name; }
  // Without a runtime folder, in which this user's real programs may have left something.
  ProgramRun history(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {"/usr/bin/env", "XDG_RUNTIME_DIR=/nowhere", ks_test::kKsctl, "--socket",
                                         folder_.path() + "/s", "history"});
    return run_program(arguments);
  }

  const TemporaryFolder folder_;
};

TEST_F(KsctlHistory, TellsReportsAndMessagesOfAProgramThatHasEnded) {
  RingFile written("reader", kNobodysPid, 1);
  written.report(kStart, 41, 103, "ks_store_pac(53):SDB opened. \n");
  written.message(kStart + 1000, 41, 4, 0, 66569);
  written.message(kStart + 9000, 41, 3, 0, 66569);
  written.report(kStart + 10000, 41, 100, "no more memory");
  written.write(ring(0));

  const ProgramRun run = history({});

  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_EQ(run.output,
            "2023-11-14T22:13:20.000000Z\treader\t2147483647\t41\treport\tnormal\tks_store_pac\tSDB opened.\n"
            "2023-11-14T22:13:20.000001Z\treader\t2147483647\t41\tmessage\tsend\tstore PAC\t\n"
            "2023-11-14T22:13:20.000009Z\treader\t2147483647\t41\tmessage\treceive\tstore PAC\t\n"
            "2023-11-14T22:13:20.000010Z\treader\t2147483647\t41\treport\talert\t\tno more memory\n");
}

TEST_F(KsctlHistory, PutsTheRecordsOfAllProgramsInOrder) {
  RingFile first("first", kNobodysPid, 1);
  first.report(kStart + 1000, 1, 100, "a");
  first.report(kStart + 3000, 1, 100, "c");
  first.write(ring(0));
  RingFile second("second", kNobodysPid - 1, 1);
  second.report(kStart + 2000, 2, 100, "b");
  second.report(kStart + 4000, 2, 100, "d");
  second.write(ring(1));

  EXPECT_THAT(history({}).output, ContainsRegex("\ta\n.*\tb\n.*\tc\n.*\td\n"));
  EXPECT_THAT(history({"--last", "1"}).output, ContainsRegex("^[^\n]*\td\n$"));
  EXPECT_THAT(history({"--pid", "2147483646"}).output, ContainsRegex("^[^\n]*\tb\n[^\n]*\td\n$"));
}

TEST_F(KsctlHistory, TellsWhichProgramsRun) {
  RingFile here("here", static_cast<uint32_t>(getpid()), own_start());
  here.report(kStart, 1, 100, "x");
  here.write(ring(0));
  RingFile gone("gone", static_cast<uint32_t>(getpid()), own_start() + 1);  // another had the number
  gone.report(kStart + 1, 1, 100, "x");
  gone.write(ring(1));

  const ProgramRun run = history({"--list"});

  EXPECT_THAT(run.output, HasSubstr("\there\tyes\t1\t"));
  EXPECT_THAT(run.output, HasSubstr("\tgone\tno\t1\t"));
}

TEST_F(KsctlHistory, ReadsWhatARealProgramLeft) {
  ks_test::ServiceSetup setup = with_administrator();
  setup.config += "[trace]\nrecord = [100, 103]\n";
  const ServiceProcess service(setup);
  const ProgramRun program =
      run_program({"/usr/bin/env", "KS_SOCKET=" + service.socket(), KS_SERVICE_DIR "/examples/secrets", "store"});
  ASSERT_EQ(program.status, 0) << program.errors;

  const ProgramRun run = ksctl(service.socket(), {"history", "--last", "20"});

  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.output, ContainsRegex("\tsecrets\t[0-9]+\t[0-9]+\tmessage\tsend\tstore secret\t\n"));
  EXPECT_THAT(run.output, HasSubstr("\treport\tnormal\tks_sdb_init\tSDB Open successful.\n"));
}

TEST_F(KsctlHistory, LeavesOutWhatIsHalfWritten) {
  RingFile written("writer", kNobodysPid, 1);
  written.report(kStart, 1, 100, "whole");
  written.report(kStart + 1, 1, 100, "torn");
  written.report(kStart + 2, 1, 100, std::string(300, 'l'));
  written.put_number(RingFile::slot(1) + 7, 0x80, 1);  // being written
  written.put_number(RingFile::slot(3), 1, 8);         // the long one's second slot is of another lap
  written.write(ring(0));

  EXPECT_THAT(history({}).output, ContainsRegex("^[^\n]*\twhole\n$"));
  EXPECT_THAT(history({"--list", "--json"}).output, HasSubstr("\"records\":1,\"overwritten\":0,\"unreadable\":3,"));
}

TEST_F(KsctlHistory, KeepsALongReportWhole) {
  RingFile written("writer", kNobodysPid, 1);
  written.report(kStart, 1, 100, std::string(511, 'l'));
  written.write(ring(0));

  EXPECT_THAT(history({}).output, HasSubstr("\t" + std::string(511, 'l') + "\n"));
}

TEST_F(KsctlHistory, PrintsNothingThatATerminalWouldObey) {
  RingFile written("\033]0;x", kNobodysPid, 1);
  written.report(kStart, 1, 100, "\033[2J\xff\x01");
  written.message(kStart + 1, 1, 4, 0xffffffff, 0);
  written.write(ring(0));

  for (const std::vector<std::string> &how : std::vector<std::vector<std::string>>{{}, {"--timeline"}, {"--list"}}) {
    const ProgramRun run = history(how);
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.output, HasSubstr("\\x1b]0;x"));
    EXPECT_THAT(run.output, Not(HasSubstr("\033")));
  }
}

// Whatever is in the file: it ends, and in order.
TEST_F(KsctlHistory, SurvivesARingThatHoldsAnything) {
  std::minstd_rand random(7);
  for (int round = 0; round < 12; ++round) {
    RingFile written("any", kNobodysPid, 1);
    for (int i = 0; i < 40; ++i) written.report(kStart, 1, 103, "report");
    for (int i = 0; i < 3000; ++i) written.bytes()[12 + random() % 5000] = static_cast<char>(random());
    if (round == 0) written.put_number(16, UINT64_MAX, 8);
    if (round == 1) written.bytes().resize(5000);
    if (round > 1) written.put_number(16, 40, 8);
    written.write(ring(0));
    for (const char *how : {"--timeline", "--json"}) {
      const ProgramRun run = history({how});
      EXPECT_EQ(run.status, 0) << run.errors;
    }
  }
}

TEST_F(KsctlHistory, PassesOverWhatIsNoRingOfThisUser) {
  ASSERT_EQ(mkfifo(ring(0).c_str(), 0600), 0);
  ASSERT_EQ(mkdir(ring(1).c_str(), 0700), 0);
  RingFile other("elsewhere", kNobodysPid, 1);
  other.report(kStart, 1, 100, "linked");
  other.write(file("other"));
  ASSERT_EQ(symlink(file("other").c_str(), ring(2).c_str()), 0);

  const ProgramRun run = history({});

  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(run.output, IsEmpty());
}

TEST_F(KsctlHistory, PassesOverAFolderThatOthersMayUse) {
  RingFile written("writer", kNobodysPid, 1);
  written.report(kStart, 1, 100, "x");
  written.write(ring(0));
  ASSERT_EQ(chmod(file("history").c_str(), 0755), 0);

  EXPECT_THAT(history({}).output, IsEmpty());
  EXPECT_THAT(history({"--ring", ring(0)}).output, HasSubstr("\tx\n"));
}

TEST_F(KsctlHistory, SaysWhatIsNotThere) {
  EXPECT_EQ(history({"--pid", "2147483647"}).status, 3);
  EXPECT_EQ(history({"--ring", ring(5)}).status, 3);

  std::ofstream(ring(0)) << "no ring";
  const ProgramRun run = history({"--ring", ring(0)});

  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.errors, "ksctl: " + ring(0) + ": isn't a history ring; name a file NN.ring of a history folder\n");
}

// A program with one exchange that is answered, one that isn't, and one that could not be sent.
RingFile three_exchanges(const std::string &program) {
  RingFile written(program, kNobodysPid, 1);
  written.message(kStart, 41, 4, 0, 66565);
  written.report(kStart + 500'000, 42, 103, "of another thread");
  written.report(kStart + 1'000'000, 41, 103, "ks_x(7): waits");
  written.message(kStart + 2'000'000, 41, 3, 0, 66565);
  written.message(kStart + 3'000'000, 41, 4, 0xffffffff, 0);
  written.message(kStart + 4'000'000, 41, 4, 0, 66594);
  written.message(kStart + 8'000'000, 41, 3, 0xffffffff, 0);
  return written;
}

TEST_F(KsctlHistory, DrawsEachExchangeWithItsParts) {
  three_exchanges("reader").write(ring(0));

  const ProgramRun run = history({"--timeline"});

  EXPECT_EQ(run.output,
            "reader[2147483647], ended, from 2023-11-14T22:13:20.000000Z, 8.000 ms\n"
            "       at ms      for ms  message\n"
            "       0.000       2.000  secret exists                [>===*===<                       ]  answered\n"
            "       0.000              send\n"
            "       1.000              report normal ks_x(7) waits\n"
            "       2.000              receive\n"
            "       0.500              report normal of another thread\n"
            "       3.000       0.000  message                      [            |                   ]  not sent\n"
            "       3.000              send  failed\n"
            "       4.000       4.000  compact memory               [                >==============x]  no reply\n"
            "       4.000              send\n"
            "       8.000              receive  failed\n");
}

TEST_F(KsctlHistory, TellsTheTimelineInJson) {
  three_exchanges("reader").write(ring(0));

  EXPECT_THAT(history({"--timeline", "--json"}).output,
              StartsWith("{\"begins\":\"2023-11-14T22:13:20.000000Z\",\"processes\":[{\"program\":\"reader\",\"pid\":"
                         "2147483647,\"running\":false,\"exchanges\":[{\"message\":\"secret exists\",\"thread\":41,"
                         "\"at_ns\":0,\"for_ns\":2000000,\"exact\":true,\"outcome\":\"answered\",\"parts\":[{\"at_ns\":"
                         "0,\"part\":\"send\",\"failed\":false},{\"at_ns\":1000000,\"part\":\"report\",\"level\":"
                         "\"normal\",\"function\":\"ks_x\",\"line\":7,\"text\":\"waits\"},"));
}

// ---- The page.

constexpr char kHostileName[] = "</script><script>document.title='ran'</script>";

TEST_F(KsctlHistory, WritesAPageForThisUserAlone) {
  three_exchanges("reader").write(ring(0));

  const ProgramRun run = history({"--html", file("page.html")});

  EXPECT_EQ(run.status, 0) << run.errors;
  struct stat status {};
  ASSERT_EQ(stat(file("page.html").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(KsctlHistory, WritesAPageThatFetchesNothingAndRunsNothingOfOthers) {
  three_exchanges(kHostileName).write(ring(0));
  history({"--html", file("page.html")});

  const std::string page = content_of(file("page.html"));

  EXPECT_THAT(page, HasSubstr("default-src 'none'"));
  EXPECT_THAT(page, Not(HasSubstr("://")));
  EXPECT_THAT(page, Not(HasSubstr("</script><script>document")));
  EXPECT_THAT(page, HasSubstr("\\u003c/script>\\u003cscript>document.title='ran'"));
}

TEST_F(KsctlHistory, LeavesTheFileThatItCannotReplace) {
  three_exchanges("reader").write(ring(0));

  const ProgramRun run = history({"--html", "/nowhere/page.html"});

  EXPECT_EQ(run.status, 3);
  EXPECT_THAT(run.errors, StartsWith("ksctl: /nowhere/page.html: No such file or directory; "));
}

// browser runs a page to its end and gives what became of it; nothing without a browser.
std::string browser(const std::string &page, const std::string &profile) {
  if (run_program({"/bin/sh", "-c", "command -v chromium"}).status != 0) return "";
  return run_program({"/usr/bin/env", "chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
                      "--no-first-run", "--disable-background-networking", "--disable-component-update",
                      "--disable-sync", "--user-data-dir=" + profile, "--dump-dom", "file://" + page})
      .output;
}

TEST_F(KsctlHistory, DrawsThePageInABrowserByWhichItZooms) {
  three_exchanges(kHostileName).write(ring(0));
  ASSERT_EQ(history({"--html", file("page.html")}).status, 0);
  // Plays the person at the keyboard, and notes what came of it.
  std::ofstream(file("page.html"), std::ios::app) << R"(<script>
    const press = key => dispatchEvent(new KeyboardEvent('keydown', { key })), note = document.documentElement.dataset;
    const before = { from, span };
    press('+');
    note.zoomed = span < before.span && from > before.from;
    const zoomed = from;
    press('ArrowRight');
    note.moved = from > zoomed;
    press('0');
    note.fitted = span === before.span && from === before.from;
    const wheel = { deltaY: -100, clientX: 500, cancelable: true };
    canvas.dispatchEvent(new WheelEvent('wheel', wheel));
    note.wheeled = span < before.span;
    press('n');
    note.stepped = chosen === exchanges[2];
    </script>)";

  const std::string page = browser(file("page.html"), file("profile"));
  if (page.empty()) GTEST_SKIP() << "there is no chromium on this machine; ./dev viewers installs it";

  EXPECT_THAT(page, ContainsRegex("<html[^>]* data-drawn=\"3\""));
  for (const char *what : {"zoomed", "moved", "fitted", "wheeled", "stepped"}) {
    EXPECT_THAT(page, HasSubstr(std::string(" data-") + what + "=\"true\""));
  }
  EXPECT_THAT(page, HasSubstr("<title>Exchanges with the keystore</title>"));
  EXPECT_THAT(page, HasSubstr("&lt;/script&gt;&lt;script&gt;document.title='ran'&lt;/script&gt; [2147483647]"));
  EXPECT_THAT(page, HasSubstr("compact memory, no reply"));
}

}  // namespace
