// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "growing_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/trust.h"
#include "failure.h"

namespace ksctl {

GrowingFile::GrowingFile(const std::string &path, mode_t mode) : path_(path), draft_(path + ".part"), mode_(mode) {
  struct stat info {};
  if (lstat(path_.c_str(), &info) == 0) {
    errno = EEXIST;
    fail();
  }
  file_ = ksd::UniqueFd(open(ksd::folder_of(path_).c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
  if (file_ || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)) {
    if (!file_) fail();
    return;
  }
  unlink(draft_.c_str());  // of one that was cut short
  file_ = ksd::UniqueFd(open(draft_.c_str(), O_CREAT | O_EXCL | O_RDWR | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file_) fail();
  has_name_ = true;
}

GrowingFile::~GrowingFile() {
  if (has_name_) unlink(draft_.c_str());
}

void GrowingFile::write(std::span<const uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t size = ::write(file_.get(), bytes.data(), bytes.size());
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) fail();
    bytes = bytes.subspan(static_cast<size_t>(size));
  }
}

void GrowingFile::keep() {
  if (fchmod(file_.get(), mode_) != 0 || fsync(file_.get()) != 0) fail();
  const std::string nameless = fmt::format("/proc/self/fd/{}", file_.get());
  const bool named = has_name_ ? renameat2(AT_FDCWD, draft_.c_str(), AT_FDCWD, path_.c_str(), RENAME_NOREPLACE) == 0
                               : linkat(AT_FDCWD, nameless.c_str(), AT_FDCWD, path_.c_str(), AT_SYMLINK_FOLLOW) == 0;
  if (!named) fail();
  has_name_ = false;
  const ksd::UniqueFd folder(open(ksd::folder_of(path_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder || fsync(folder.get()) != 0) fail();
}

void GrowingFile::fail() const {
  if (errno == EEXIST) throw Failure(Exit::kConflict, fmt::format("{}: is there already; name another file", path_));
  throw Failure(Exit::kFailed, fmt::format("{}: {}; name a file in a folder that you may write, on a disk with room",
                                           path_, std::strerror(errno)));
}

}  // namespace ksctl
