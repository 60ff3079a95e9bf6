// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/aside.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "base/refuse.h"
#include "base/trust.h"
#include "vault/files.h"

namespace ksd::vault {
namespace {

[[noreturn]] void refuse_copy(const std::string &file) {
  const int error = errno;
  refuse("{}: can't be copied before a loss is accepted: {}; make room beside the vault", file, errno_text(error));
}

bool copy(int from, int to) {
  std::array<char, 65536> part;
  ssize_t size;
  while ((size = read(from, part.data(), part.size())) > 0) {
    errno = ENOSPC;  // of a write that was cut short
    if (write(to, part.data(), static_cast<size_t>(size)) != size) return false;
  }
  return size == 0 && fsync(to) == 0;
}

std::string make_folder(const std::string &path) {
  for (int number = 1;; ++number) {
    std::string folder = fmt::format("{}-before-loss-{}", path, number);
    if (mkdir(folder.c_str(), 0700) == 0) return folder;
    if (errno != EEXIST) refuse_copy(path);
  }
}

}  // namespace

std::string put_aside(const std::string &path, const std::vector<std::string> &files) {
  const std::string folder = make_folder(path);
  for (const std::string &file : files) {
    const UniqueFd from(open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!from && errno == ENOENT) continue;
    const UniqueFd to = make_file(folder + "/" + file.substr(file.rfind('/') + 1));  // npos + 1 is 0
    if (!from || !to || !copy(from.get(), to.get())) refuse_copy(file);
  }
  if (!sync_folder(folder) || !sync_folder(folder_of(path))) refuse_copy(path);
  return folder;
}

}  // namespace ksd::vault
