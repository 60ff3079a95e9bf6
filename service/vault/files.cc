// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/files.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <system_error>

#include "base/refuse.h"
#include "base/trust.h"

namespace ksd::vault {

bool file_exists(const std::string &path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

bool is_same_file(const std::string &path, const std::string &other) {
  struct stat info, other_info;
  return stat(path.c_str(), &info) == 0 && stat(other.c_str(), &other_info) == 0 && info.st_dev == other_info.st_dev &&
         info.st_ino == other_info.st_ino;
}

UniqueFd make_file(const std::string &path) {
  return UniqueFd(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
}

bool sync_folder(const std::string &folder) {
  const UniqueFd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return fd && fsync(fd.get()) == 0;
}

void refuse_what_others_may_write(const std::string &path) {
  if (const auto why = why_others_may_replace(path)) refuse("{}: {}", path, *why);
}

std::string errno_text(int error) {
  return std::system_category().message(error);
}

}  // namespace ksd::vault
