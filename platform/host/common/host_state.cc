// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "host_state.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "host_socket.h"
#include "host_trust.h"

namespace host {

namespace {

constexpr HostStatePage kNoPage = {.magic = 0,
                                   .version = 0,
                                   .supstate = 0,
                                   .reserved = 0,
                                   .history_open = {~0U, ~0U, ~0U, ~0U, ~0U, ~0U, ~0U, ~0U},
                                   .debug_open = {~0U, ~0U, ~0U, ~0U, ~0U, ~0U, ~0U, ~0U}};

// The file that is mapped. While it is, its inode number is not given to another.
constinit std::atomic<uint64_t> mapped_inode{0};

// It says what is recorded and whether PACs may leave, so it has to be of whoever serves here, and nobody else's to
// change or to cut.
bool is_state_page(int file, const struct stat &status, const char *path) {
  uid_t folder_owner;
  if (!S_ISREG(status.st_mode) || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) return false;
  if (!check_folder_of(path, &folder_owner) || !is_trusted_owner(status.st_uid, folder_owner)) return false;
  HostStatePage page;
  return pread(file, &page, sizeof page, 0) == sizeof page && page.magic == HOST_STATE_MAGIC && page.version == 1;
}

}  // namespace

constinit std::atomic<const HostStatePage *> state_page_in_use{&kNoPage};

void refresh_state_page() {
  const int caller_errno = errno;
  const SocketPath socket;
  char path[sizeof socket.text + sizeof HOST_STATE_SUFFIX];
  snprintf(path, sizeof path, "%s%s", socket.text, HOST_STATE_SUFFIX);

  struct stat status;
  const bool wanted = stat(path, &status) == 0 && status.st_ino != mapped_inode.load(std::memory_order_relaxed);
  const int file = wanted ? open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK) : -1;
  if (file >= 0) {
    if (fstat(file, &status) == 0 && is_state_page(file, status, path)) {
      void *page = mmap(nullptr, sizeof(HostStatePage), PROT_READ, MAP_SHARED, file, 0);
      if (page != MAP_FAILED) {
        state_page_in_use.store(static_cast<const HostStatePage *>(page), std::memory_order_release);
        mapped_inode.store(status.st_ino, std::memory_order_relaxed);
      }
    }
    close(file);
  }
  errno = caller_errno;
}

}  // namespace host
