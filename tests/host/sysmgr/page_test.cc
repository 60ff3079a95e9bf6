// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Which files are taken for the state page, and what a caller's own errno goes through.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "fake_service/fake_service.h"
#include "library_calls.h"
#include "sysmgr.h"

namespace {

using ks_test::fail_call;
using ks_test::LibraryCalls;

constexpr const char *kLibrary = "libsysmgr.so";

// A process keeps its page and its identity, so each test uses the library in a child of its own.
class Page : public testing::Test {
 protected:
  Page() { setenv("KS_SOCKET", socket_path().c_str(), 1); }

  std::string socket_path() const { return folder_.path() + "/ksd.sock"; }
  std::string page_path() const { return socket_path() + ".state"; }

  void write_page(uint32_t magic, uint32_t version) const {
    HostStatePage page = {};
    page.magic = magic;
    page.version = version;
    page.supstate = KS_SUPSTATE_HOLD;
    const int file = open(page_path().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (write(file, &page, sizeof page) != sizeof page) abort();
    close(file);
  }

  static bool holds() { return sysmgr_supstate_get() == KS_SUPSTATE_HOLD; }

 private:
  TemporaryFolder folder_;
};

TEST_F(Page, IsAFileOfItsMagicAndVersion) {
  write_page(0x3173736b, 1);
  EXPECT_TRUE(passes_in_child([] { return holds() && holds(); }));
}

TEST_F(Page, IsNoFileOfAnotherVersionOrMagic) {
  for (const auto &[magic, version] : {std::pair{0x3173736bU, 0U}, {0x3173736bU, 2U}, {0x3173736aU, 1U}}) {
    write_page(magic, version);
    EXPECT_TRUE(passes_in_child([] { return !holds(); })) << magic << ' ' << version;
  }
}

TEST_F(Page, IsNoFileThatIsTooShort) {
  write_page(0x3173736b, 1);
  ASSERT_EQ(truncate(page_path().c_str(), 79), 0);
  EXPECT_TRUE(passes_in_child([] { return !holds(); }));
  ASSERT_EQ(truncate(page_path().c_str(), 80), 0);
  EXPECT_TRUE(passes_in_child([] { return sysmgr_supstate_get() == KS_SUPSTATE_HOLD; }));
}

TEST_F(Page, IsNoPipeAndNoFolder) {
  ASSERT_EQ(mkfifo(page_path().c_str(), 0600), 0);
  EXPECT_TRUE(passes_in_child([] { return !holds(); }));
  ASSERT_EQ(unlink(page_path().c_str()), 0);
  ASSERT_EQ(mkdir(page_path().c_str(), 0700), 0);
  EXPECT_TRUE(passes_in_child([] { return !holds(); }));
}

TEST_F(Page, LeavesNoDescriptorOpen) {
  write_page(0x3173736b, 1);
  EXPECT_TRUE(passes_in_child([] {
    const size_t before = open_descriptors();
    return holds() && open_descriptors() == before;
  }));
}

TEST_F(Page, LeavesErrnoAsItWas) {
  EXPECT_TRUE(passes_in_child([this] {
    errno = 77;
    if (holds() || errno != 77) return false;
    if (sysmgr_vdc_get() != 0xffff || errno != 77) return false;
    write_page(0x3173736b, 1);
    errno = 77;
    return holds() && errno == 77;
  }));
}

TEST_F(Page, IsNoneForAsLongAsTheSystemRefusesToShowIt) {
  write_page(0x3173736b, 1);
  EXPECT_TRUE(passes_in_child([] {
    const size_t before = open_descriptors();
    const LibraryCalls<library_fstat> calls(kLibrary, fail_call(1, -1, EIO));
    return !holds() && open_descriptors() == before && holds();
  }));
  EXPECT_TRUE(passes_in_child([] {
    const LibraryCalls<pread64> calls(kLibrary, fail_call(1, ssize_t{-1}, EIO));
    return !holds() && holds();
  }));
  EXPECT_TRUE(passes_in_child([] {
    int left = 1;
    const auto no_mapping = [&](void *, size_t size, int, int, int, off64_t) -> std::optional<void *> {
      if (size != sizeof(HostStatePage) || left-- == 0) return std::nullopt;
      errno = ENOMEM;
      return MAP_FAILED;
    };
    const LibraryCalls<mmap64> calls(kLibrary, no_mapping);
    const size_t before = open_descriptors();
    return !holds() && open_descriptors() == before && holds();
  }));
}

TEST_F(Page, IsOpenedSoThatNoProgramInheritsIt) {
  write_page(0x3173736b, 1);
  EXPECT_TRUE(passes_in_child([] {
    bool closes = true;
    const LibraryCalls<open64> calls(kLibrary, [&](const char *, int flags) -> std::optional<int> {
      closes = closes && (flags & O_CLOEXEC) != 0;
      return std::nullopt;
    });
    return holds() && closes;
  }));
}

}  // namespace
