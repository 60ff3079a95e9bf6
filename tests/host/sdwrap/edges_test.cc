// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The first and the last of the gates, and debug lines that can't be made or written.
#include <fcntl.h>
#include <signal.h>

#include <cerrno>
#include <cwchar>
#include <string>

#include "fake_service/fake_service.h"
#include "sdwrap.h"
#include "sdwrap_hooks.h"

namespace {

// A process keeps its page, so each test uses the library in a child of its own.
class Edges : public testing::Test {
 protected:
  Edges() { setenv("KS_SOCKET", (folder_.path() + "/ksd.sock").c_str(), 1); }

  void write_page(uint32_t recorded, uint32_t debugged) const {
    HostStatePage page = {};
    page.magic = 0x3173736b;
    page.version = 1;
    page.history_open[recorded / 32] = UINT32_C(1) << recorded % 32;
    page.debug_open[debugged / 32] = UINT32_C(1) << debugged % 32;
    const int file = open((folder_.path() + "/ksd.sock.state").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (pwrite(file, &page, sizeof page, 0) != sizeof page) abort();
    close(file);
  }

  // What `body` writes to standard error in a child.
  static std::string lines_of(const std::function<void()> &body) {
    int ends[2];
    if (pipe2(ends, O_NONBLOCK) != 0) abort();
    EXPECT_TRUE(passes_in_child([&] {
      dup2(ends[1], STDERR_FILENO);
      body();
      return true;
    }));
    close(ends[1]);
    std::string found(8192, '\0');
    const ssize_t size = read(ends[0], found.data(), found.size());
    found.resize(size < 0 ? 0 : static_cast<size_t>(size));
    close(ends[0]);
    return found;
  }

 private:
  TemporaryFolder folder_;
};

TEST_F(Edges, OfEachWordOfGatesAreLookedUpAtTheFirstCall) {
  for (uint32_t number = 0; number < 256; number += number % 32 == 0 ? 31 : 1) {
    write_page(number, 255 - number);
    EXPECT_TRUE(passes_in_child([number] { return sdwrap_hist_event_subtype_check(0x730000, number) == 0; })) << number;
    EXPECT_TRUE(passes_in_child([number] { return sdwrap_chk_int(255 - number, 0, 0, 1) == 1; })) << number;
    EXPECT_TRUE(passes_in_child([number] {
      return sdwrap_hist_event_subtype_check(0x730000, number ^ 1) == 1 && sdwrap_chk_int(number, 0, 0, 1) == 0 &&
             sdwrap_hist_event_subtype_check(0x730000, number) == 0;
    })) << number;
  }
}

TEST_F(Edges, OfALineAreTheModuleAndTheProcess) {
  EXPECT_EQ(lines_of([] {
              buginf(1, nullptr, 0, "%s", "text");
              buginf(1, "", 0, "%s", "\n");
            }).find("-["),
            0U);
  const std::string line = lines_of([] { buginf(1, "mod", 0, "%d\n", 7); });
  EXPECT_TRUE(line.starts_with("mod[")) << line;
  EXPECT_TRUE(line.ends_with("]: 7\n")) << line;
}

TEST_F(Edges, OfWhatCanBePrintedAreNotCrossed) {
  EXPECT_EQ(lines_of([] { buginf(1, "mod", 0, "%lc", wint_t{0x7fffffff}); }), "") << "no character";
  const std::string name(1100, 'm');
  EXPECT_EQ(lines_of([&] { buginf(1, name.c_str(), 0, "text"); }), "") << "no room behind the module's name";
}

TEST_F(Edges, OfALineAreKeptForAnEmptyMessage) {
  EXPECT_TRUE(lines_of([] { buginf(1, "mod", 0, "%s", ""); }).ends_with("]: \n"));
}

TEST_F(Edges, OfALineAreKeptThroughSignals) {
  const std::string line = lines_of([] {
    interrupted_writes = 3;
    buginf(1, "mod", 0, "%d\n", 7);
  });
  EXPECT_TRUE(line.ends_with("]: 7\n")) << line;
}

TEST_F(Edges, AreNoReasonToLoseErrnoOrASignal) {
  EXPECT_TRUE(passes_in_child([] {
    int ends[2];
    if (pipe(ends) != 0) return false;
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    close(ends[1]);
    errno = 77;
    buginf(1, "mod", 0, "to nobody\n");
    if (errno != 77) return false;

    // One that was there before is there afterwards.
    sigset_t pipe_signal;
    sigemptyset(&pipe_signal);
    sigaddset(&pipe_signal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_signal, nullptr);
    sigset_t pending;
    buginf(1, "mod", 0, "to nobody\n");
    sigpending(&pending);
    if (sigismember(&pending, SIGPIPE) != 0) return false;
    raise(SIGPIPE);
    buginf(1, "mod", 0, "to nobody\n");
    sigpending(&pending);
    return sigismember(&pending, SIGPIPE) == 1;
  }));
}

}  // namespace
