// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The system manager: identity from the greeting, sup state from the state page. What it learns holds for the life of a
// process, so each test uses the library in a child of its own.
#include "sysmgr.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <string>

#include "fake_service/fake_service.h"
#include "library_calls.h"

namespace {

class Sysmgr : public testing::Test {
 protected:
  Sysmgr() {
    setenv("KS_SOCKET", socket_path().c_str(), 1);
    strcpy(service.hello.running_cfg_uri, "lmdb:///run/ks/db");
  }

  std::string socket_path() const { return folder_.path() + "/ksd.sock"; }

  void write_state(const HostStatePage &page) const {
    const int file = open((socket_path() + ".state").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_EQ(pwrite(file, &page, sizeof page, 0), static_cast<ssize_t>(sizeof page));
    close(file);
  }
  static HostStatePage page_of(uint32_t supstate) {
    HostStatePage page = {};
    page.magic = 0x3173736b;
    page.version = 1;
    page.supstate = supstate;
    return page;
  }

 private:
  TemporaryFolder folder_;

 protected:
  FakeService service{socket_path()};
};

TEST_F(Sysmgr, LearnsIdAndUriOnceOnAConnectionThatItCloses) {
  service.start();
  EXPECT_TRUE(passes_in_child([] {
    return sysmgr_vdc_get() == 7 && std::string(sysmgr_running_cfg_uri_get()) == "lmdb:///run/ks/db" &&
           sysmgr_vdc_get() == 7;
  }));
  EXPECT_EQ(service.connections(), 1U);
  service.wait_until_closed(1);
}

TEST_F(Sysmgr, KeepsWhatItLearntWhenTheServiceIsGone) {
  service.start();
  int go[2];
  ASSERT_EQ(pipe(go), 0);
  const pid_t child = fork();
  if (child == 0) {
    close(go[1]);
    char byte;
    const bool before = sysmgr_vdc_get() == 7;
    // The parent stops the service when its connection has come, and then closes the pipe.
    const bool after = read(go[0], &byte, 1) == 0 && sysmgr_vdc_get() == 7;
    _exit(before && after ? 0 : 1);
  }
  service.wait_until_closed(1);
  service.stop();
  close(go[1]);
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  close(go[0]);
}

TEST_F(Sysmgr, HasNoIdAndNoUriWithoutServiceAndAsksAgain) {
  int step[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, step), 0);
  const pid_t child = fork();
  if (child == 0) {
    char byte = 0;
    bool right = sysmgr_vdc_get() == 0xffff && std::string(sysmgr_running_cfg_uri_get()).empty();
    right = write(step[1], &byte, 1) == 1 && read(step[1], &byte, 1) == 1 && right;
    _exit(right && sysmgr_vdc_get() == 7 ? 0 : 1);
  }
  char byte = 0;
  ASSERT_EQ(read(step[0], &byte, 1), 1);
  service.start();
  ASSERT_EQ(write(step[0], &byte, 1), 1);
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  close(step[0]);
  close(step[1]);
}

TEST_F(Sysmgr, DoesNotKeepThatACallerHasNoId) {
  service.hello.vdc_id = 0xffff;
  service.start();
  EXPECT_TRUE(passes_in_child([] { return sysmgr_vdc_get() == 0xffff && sysmgr_vdc_get() == 0xffff; }));
  EXPECT_EQ(service.connections(), 2U);
}

TEST_F(Sysmgr, AsksForAChildAnew) {
  const FakeService::Handler usual = service.greeter;
  service.greeter = [&](int socket, const FakeService::Request &request) {
    service.hello.vdc_id++;
    return usual(socket, request);
  };
  service.start();
  EXPECT_TRUE(passes_in_child([] {
    return sysmgr_vdc_get() == 8 && passes_in_child([] { return sysmgr_vdc_get() == 9 && sysmgr_vdc_get() == 9; }) &&
           sysmgr_vdc_get() == 8;
  }));
  EXPECT_EQ(service.connections(), 2U);
}

TEST_F(Sysmgr, SeesTheSupStateChange) {
  EXPECT_TRUE(passes_in_child([this] {
    const bool without_page = sysmgr_supstate_get() == 0;
    write_state(page_of(0));
    const bool at_first = sysmgr_supstate_get() == 0;
    write_state(page_of(KS_SUPSTATE_HOLD));
    const bool changed = sysmgr_supstate_get() == KS_SUPSTATE_HOLD;
    return without_page && at_first && changed;
  }));
}

TEST_F(Sysmgr, FollowsThePageIntoANewFolder) {
  EXPECT_TRUE(passes_in_child([this] {
    write_state(page_of(0));
    const bool before = sysmgr_supstate_get() == 0;
    unlink((socket_path() + ".state").c_str());
    const bool kept = sysmgr_supstate_get() == 0;
    write_state(page_of(KS_SUPSTATE_HOLD));
    return before && kept && sysmgr_supstate_get() == KS_SUPSTATE_HOLD;
  }));
}

TEST_F(Sysmgr, TakesNoOtherFileForThePage) {
  EXPECT_TRUE(passes_in_child([this] {
    HostStatePage page = page_of(KS_SUPSTATE_HOLD);
    page.magic ^= 1;
    write_state(page);
    const bool foreign = sysmgr_supstate_get() == 0;
    const bool cut = truncate((socket_path() + ".state").c_str(), 79) == 0 && sysmgr_supstate_get() == 0;
    return foreign && cut;
  }));
}

TEST_F(Sysmgr, TakesNoPageThatOthersMayWriteOrThatIsAStrangers) {
  EXPECT_TRUE(passes_in_child([this] {
    const std::string path = socket_path() + ".state";
    write_state(page_of(KS_SUPSTATE_HOLD));
    chmod(path.c_str(), 0666);
    const bool writable = sysmgr_supstate_get() == 0;
    chmod(path.c_str(), 0644);
    const bool strangers = geteuid() != 0 || (chown(path.c_str(), 12345, 12345) == 0 && sysmgr_supstate_get() == 0);
    const bool back = geteuid() != 0 || chown(path.c_str(), 0, 0) == 0;
    return writable && strangers && back && sysmgr_supstate_get() == KS_SUPSTATE_HOLD;
  }));
}

TEST_F(Sysmgr, CompletesAUri) {
  const char *uri = sysmgr_uri_complete("lmdb:///run/ks/db", "sksd_", "ks_cache_data");
  EXPECT_STREQ(uri, "lmdb:///run/ks/db/sksd_ks_cache_data");
  EXPECT_STREQ(sysmgr_uri_complete("lmdb:///x/", "a", "b"), "lmdb:///x/ab");
  EXPECT_STREQ(sysmgr_uri_complete("lmdb:///x", nullptr, "b"), "lmdb:///x/b");
  EXPECT_STREQ(sysmgr_uri_complete("lmdb:///x", "a", nullptr), "lmdb:///x/a");
  EXPECT_STREQ(sysmgr_uri_complete("", "sksd_", "ks_cache_data"), "");
  EXPECT_STREQ(sysmgr_uri_complete(nullptr, "sksd_", "ks_cache_data"), "");
  EXPECT_STREQ(uri, "lmdb:///run/ks/db/sksd_ks_cache_data") << "an earlier text is readable still";
  EXPECT_EQ(sysmgr_uri_complete("lmdb:///run/ks/db", "sksd_", "ks_cache_data"), uri) << "and made once";
  const std::string longer(5000, 'n');
  EXPECT_EQ(sysmgr_uri_complete("lmdb:///x", "p", longer.c_str()), "lmdb:///x/p" + longer);
}

TEST_F(Sysmgr, AsksAgainWhatItHadNoMemoryFor) {
  service.start();
  const auto short_of_memory = ks_test::fail_call<void *>(1, nullptr, ENOMEM);
  EXPECT_TRUE(passes_in_child([&] {
    const ks_test::LibraryCalls<malloc> calls("libsysmgr.so", short_of_memory);
    return sysmgr_vdc_get() == 0xffff && sysmgr_vdc_get() == 7;
  }));
  EXPECT_TRUE(passes_in_child([&] {
    const ks_test::LibraryCalls<malloc> calls("libsysmgr.so", short_of_memory);
    return std::string(sysmgr_uri_complete("lmdb:///a", "b", "c")).empty() &&
           std::string(sysmgr_uri_complete("lmdb:///a", "b", "c")) == "lmdb:///a/bc";
  }));
}

}  // namespace
