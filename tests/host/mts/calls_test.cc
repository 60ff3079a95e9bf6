// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What the library asks of the system, and what becomes of an exchange when the system says no.
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>

#include "client.h"
#include "library_calls.h"

namespace {

using ks_test::fail_call;
using ks_test::LibraryCalls;
using ks_test::see_calls;

constexpr const char *kLibrary = "libmts.so";
constexpr size_t kBufferSize = 32 + 192 * 1024;

// Unused is a copy of the library in which nothing has been called yet.
class Unused {
 public:
  explicit Unused(const char *name) {
    Dl_info info;
    if (dladdr(reinterpret_cast<void *>(mts_bind), &info) == 0) throw std::runtime_error("libmts.so isn't there");
    const std::string copy = folder_.path() + "/" + name;
    std::filesystem::copy_file(info.dli_fname, copy);
    library_ = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library_ == nullptr) throw std::runtime_error(dlerror());
  }

  // bind gives 0 or the error.
  uint32_t bind() const {
    const KsBindTemplate bind = {.word0 = 1, .word1 = 0, .word2 = 1024, .app_uuid = 1, .word4 = 0, .word5 = 15};
    return function<decltype(mts_bind)>("mts_bind")(1, 0, &bind, 0) != MTS_FAILED
               ? 0
               : function<decltype(mts_errno_get)>("mts_errno_get")(0);
  }

  // works tells whether a request on the queue of `bind` goes out and its reply comes.
  bool works() const {
    constexpr uint8_t kDescriptor = 5;
    KsMtsMessage sent;
    KsMtsMessage received;
    if (function<decltype(mts_send)>("mts_send")(1, KS_SERVICE_NODE, KS_SERVICE_SAP, 66562, &kDescriptor, 1, &sent, 0,
                                                 nullptr) == MTS_FAILED) {
      return false;
    }
    KsRecvOptions options = {};
    options.token = function<decltype(mts_rr_token_get)>("mts_rr_token_get")(&sent);
    if (function<decltype(mts_recv)>("mts_recv")(1, &received, &options) == MTS_FAILED) return false;
    function<decltype(mts_drop)>("mts_drop")(1, &received);
    return true;
  }

 private:
  template <typename Function>
  Function *function(const char *name) const {
    return reinterpret_cast<Function *>(dlsym(library_, name));
  }

  TemporaryFolder folder_;
  void *library_;  // stays loaded: what it keeps for its process it keeps for good
};

class Calls : public Mts {};

TEST_F(Calls, WithoutMemoryFailTheFirstBindingAndNotTheNext) {
  service.start();
  void *const none = nullptr;
  const auto no_buffer = [](void *, size_t size, int, int, int, off64_t) -> std::optional<void *> {
    if (size != kBufferSize) return std::nullopt;
    errno = ENOMEM;
    return MAP_FAILED;
  };
  constexpr const char *name = "libshort.so";
  const std::function<std::shared_ptr<void>()> shortages[] = {
      [&] { return std::make_shared<LibraryCalls<malloc>>(name, fail_call(1, none, ENOMEM)); },
      [&] { return std::make_shared<LibraryCalls<calloc>>(name, fail_call(1, none, ENOMEM)); },
      [&] { return std::make_shared<LibraryCalls<aligned_alloc>>(name, fail_call(1, none, ENOMEM)); },
      [&] { return std::make_shared<LibraryCalls<mmap64>>(name, no_buffer); },
  };
  for (const auto &shortage : shortages) {
    EXPECT_TRUE(passes_in_child([&] {
      const Unused library(name);
      {
        const std::shared_ptr<void> lasting = shortage();
        errno = 0;
        if (library.bind() != ENOMEM) return false;
      }
      return library.bind() == 0 && library.works();
    })) << "shortage "
        << &shortage - shortages;
  }
}

TEST_F(Calls, WithoutMemoryForAnotherPathGoOnWithTheOneBefore) {
  const uint32_t queue = bound();
  setenv("KS_SOCKET", "/nowhere/ksd.sock", 1);
  {
    const LibraryCalls<malloc> calls(kLibrary, fail_call<void *>(1, nullptr, ENOMEM));
    EXPECT_EQ(bind_as(0x11223344), queue);
  }
  EXPECT_TRUE(works(queue));
}

TEST_F(Calls, WithoutMemoryForAReplyFailThisExchangeAndKeepItsConnection) {
  const uint32_t queue = bound();
  {
    const LibraryCalls<malloc> calls(kLibrary, fail_call<void *>(1, nullptr, ENOMEM));
    const Answer answer = exchange(queue, {1});
    EXPECT_EQ(answer.received, MTS_FAILED);
    EXPECT_EQ(answer.error, static_cast<uint32_t>(ENOMEM));
    EXPECT_EQ(why(), socket_path() +
                         ": there is no memory for the reply, though the service did what was asked (Cannot allocate "
                         "memory). Free some, or raise the process's limits");
  }
  EXPECT_TRUE(works(queue));
  EXPECT_EQ(service.connections(), 1U);
}

// Kernels before 4.14, and a process without memory for a page.
TEST_F(Calls, TellProcessesApartWhereNoPageIsClearedInAChild) {
  service.start();
  const auto no_advice = [](void *, size_t, int advice) -> std::optional<int> {
    if (advice != MADV_WIPEONFORK) return std::nullopt;
    errno = EINVAL;
    return -1;
  };
  const auto no_page = [](void *, size_t size, int, int, int, off64_t) -> std::optional<void *> {
    if (size == kBufferSize) return std::nullopt;
    errno = ENOMEM;
    return MAP_FAILED;
  };
  const auto child_has_its_own = [this](const Unused &library) {
    if (library.bind() != 0 || !library.works()) return false;
    const size_t before = service.connections();
    return passes_in_child([&] { return library.works() && library.works(); }) && service.connections() == before + 1 &&
           library.works() && service.connections() == before + 1;
  };
  {
    const Unused library("libunadvised.so");
    const LibraryCalls<madvise> calls("libunadvised.so", no_advice);
    EXPECT_TRUE(child_has_its_own(library));
  }
  const Unused library("libpageless.so");
  const LibraryCalls<mmap64> calls("libpageless.so", no_page);
  EXPECT_TRUE(child_has_its_own(library));
}

TEST_F(Calls, OpenNothingThatAProgramWouldInherit) {
  service.start();
  int opened = 0;
  const LibraryCalls<open64> opens(kLibrary, [&](const char *, int flags) -> std::optional<int> {
    ++opened;
    EXPECT_TRUE(flags & O_CLOEXEC);
    return std::nullopt;
  });
  const LibraryCalls<openat64> above(kLibrary, [&](int, const char *, int flags) -> std::optional<int> {
    ++opened;
    EXPECT_TRUE(flags & O_CLOEXEC);
    return std::nullopt;
  });
  const LibraryCalls<socket> sockets(kLibrary, [&](int, int type, int) -> std::optional<int> {
    ++opened;
    EXPECT_TRUE(type & SOCK_CLOEXEC);
    return std::nullopt;
  });
  EXPECT_NE(bind_as(1), MTS_FAILED);
  EXPECT_GT(opened, 2);
}

TEST_F(Calls, KeepRequestsAndRepliesOutOfChildren) {
  service.start();
  int kept = 0;
  const Unused library("libmapping.so");
  const LibraryCalls<madvise> calls("libmapping.so", see_calls<int>([&](void *, size_t size, int advice) {
                                      kept += size == kBufferSize && advice == MADV_DONTFORK;
                                    }));
  EXPECT_EQ(library.bind(), 0U);
  EXPECT_EQ(kept, 1);
}

TEST_F(Calls, AskOnceForThePageThatTellsProcessesApart) {
  service.start();
  int pages = 0;
  const Unused library("libpaging.so");
  const LibraryCalls<mmap64> calls(
      "libpaging.so", see_calls<void *>([&](void *, size_t size, auto...) { pages += size < kBufferSize; }));
  EXPECT_EQ(library.bind(), 0U);
  EXPECT_TRUE(library.works() && library.works());
  EXPECT_EQ(pages, 1);
}

TEST_F(Calls, WaitForAReplyInTheReceiveItself) {
  const uint32_t queue = bound();
  int polls = 0;
  const LibraryCalls<poll> calls(kLibrary, see_calls<int>([&](auto...) { ++polls; }));
  EXPECT_TRUE(works(queue));
  EXPECT_EQ(polls, 0);
}

}  // namespace
