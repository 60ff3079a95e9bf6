// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// synced_pages.h: what a change that is answered when it is on disk can't do without: a page written over and synced,
// in a file that has its size already, as the vault's log has.
#ifndef BENCH_SYNCED_PAGES_H
#define BENCH_SYNCED_PAGES_H

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace bench {

class SyncedPages {
 public:
  explicit SyncedPages(const std::string &folder)
      : path_(folder + "/pages"), file_(open(path_.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600)) {
    const std::vector<char> pages(kPage * kPages, 'p');
    require(::write(file_, pages.data(), pages.size()) == static_cast<ssize_t>(pages.size()));
    require(fsync(file_) == 0);
  }
  ~SyncedPages() {
    close(file_);
    unlink(path_.c_str());
  }
  SyncedPages(const SyncedPages &) = delete;
  SyncedPages &operator=(const SyncedPages &) = delete;

  void write(size_t number) const {
    put(number);
    sync();
  }
  void put(size_t number) const {
    static constexpr char kContent[kPage] = {};
    const auto offset = static_cast<off_t>(kPage * (number % kPages));
    require(pwrite(file_, kContent, kPage, offset) == static_cast<ssize_t>(kPage));
  }
  void sync() const { require(fdatasync(file_) == 0); }

 private:
  static constexpr size_t kPage = 4096, kPages = 256;

  void require(bool holds) const {
    if (holds) return;
    std::perror(path_.c_str());
    std::exit(1);
  }

  std::string path_;
  int file_;
};

}  // namespace bench

#endif
