// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "private_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/fd.h"
#include "base/read_secret.h"
#include "base/trust.h"
#include "failure.h"
#include "vault/files.h"

namespace ksctl {
namespace {

Failure failed(const std::string &path, int error) {
  const char *next = "look at the path and the disk";
  Exit exit = Exit::kFailed;
  switch (error) {
    case EACCES:
    case EPERM:
      exit = Exit::kNotAllowed;
      next = "look at the modes of the file and its folder";
      break;
    case ENOENT:
    case ENOTDIR:
      exit = Exit::kNotFound;
      next = "look at the path";
      break;
    case ENOSPC:
    case EDQUOT:
      next = "make room; nothing was written";
      break;
    default:
      break;
  }
  return {exit, fmt::format("{}: {}; {}", path, std::strerror(error), next)};
}

Failure is_there(const std::string &path) {
  return {Exit::kConflict, fmt::format("{}: there is such a file; --replace replaces it", path)};
}

void check_replaced(const std::string &path) {
  struct stat there {};
  if (lstat(path.c_str(), &there) < 0) {
    if (errno == ENOENT) return;
    throw failed(path, errno);
  }
  if (!S_ISREG(there.st_mode)) {
    throw Failure(Exit::kNotAllowed, fmt::format("{}: is no regular file, and isn't replaced; name another", path));
  }
  if (there.st_uid != geteuid()) {
    throw Failure(Exit::kNotAllowed,
                  fmt::format("{}: belongs to user {}, and isn't replaced; name another", path, there.st_uid));
  }
}

// NewFile is a file under a name of its own beside `path`, gone with the object unless it was given the right name.
class NewFile {
 public:
  explicit NewFile(const std::string &path) : path_(path), name_(path + ".XXXXXX") {
    fd_ = ksd::UniqueFd(mkostemp(name_.data(), O_CLOEXEC));
    if (!fd_) throw failed(path_, errno);
  }
  ~NewFile() {
    if (!name_.empty()) unlink(name_.c_str());
  }
  NewFile(const NewFile &) = delete;
  NewFile &operator=(const NewFile &) = delete;

  void write(std::string_view content) {
    while (!content.empty()) {
      const ssize_t written = ::write(fd_.get(), content.data(), content.size());
      if (written < 0 && errno == EINTR) continue;
      if (written < 0) throw failed(path_, errno);
      content.remove_prefix(static_cast<size_t>(written));
    }
    if (fsync(fd_.get()) < 0) throw failed(path_, errno);
  }

  void take_place(bool replace) {
    int done = replace ? rename(name_.c_str(), path_.c_str())
                       : renameat2(AT_FDCWD, name_.c_str(), AT_FDCWD, path_.c_str(), RENAME_NOREPLACE);
    if (!replace && done < 0 && (errno == EINVAL || errno == ENOSYS)) {  // a file system that can't
      done = link(name_.c_str(), path_.c_str());
      if (done == 0) unlink(name_.c_str());
    }
    if (done < 0) throw errno == EEXIST ? is_there(path_) : failed(path_, errno);
    name_.clear();
    ksd::vault::sync_folder(ksd::folder_of(path_));
  }

 private:
  const std::string &path_;
  std::string name_;
  ksd::UniqueFd fd_;
};

}  // namespace

void write_private_file(const std::string &path, std::string_view content, bool replace) {
  struct stat there {};
  if (replace) {
    check_replaced(path);
  } else if (lstat(path.c_str(), &there) == 0) {
    throw is_there(path);
  }
  NewFile file(path);
  file.write(content);
  file.take_place(replace);
}

Secret read_private_file(const std::string &path, size_t most) {
  const ksd::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!file) throw failed(path, errno);
  const ksd::ReadSecret input = ksd::read_secret(file.get(), most, ksd::SecretEnd::kEndOfFile);
  if (input.error != 0) throw failed(path, input.error);
  if (input.secret == nullptr) {
    throw Failure(Exit::kFailed, fmt::format("{}: has more than {} bytes; is it the right file?", path, most));
  }
  return input.secret;
}

bool is_open_to_others(const std::string &path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && (status.st_mode & (S_IRGRP | S_IROTH)) != 0;
}

}  // namespace ksctl
