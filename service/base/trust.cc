// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "base/trust.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ksd {
namespace {

constexpr mode_t kOthersWrite = S_IWGRP | S_IWOTH;

std::optional<std::string> why(const std::string &path, const struct stat &status, uid_t owner_too = 0) {
  if (status.st_uid != geteuid() && status.st_uid != 0 && status.st_uid != owner_too) {
    return fmt::format("{} belongs to user {}, who is neither root nor the service's user {}; run: chown {} {}", path,
                       status.st_uid, geteuid(), geteuid(), path);
  }
  if ((status.st_mode & kOthersWrite) != 0) {
    return fmt::format("{} has mode {:04o}, with which others may write it; run: chmod go-w {}", path,
                       status.st_mode & 07777, path);
  }
  return std::nullopt;
}

}  // namespace

std::string folder_of(const std::string &path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::optional<std::string> why_others_may_write(const std::string &path) {
  struct stat status {};
  if (stat(path.c_str(), &status) < 0) return std::nullopt;
  return why(path, status);
}

std::optional<std::string> why_others_may_replace(const std::string &path, uid_t owner_too) {
  struct stat status {};
  if (stat(path.c_str(), &status) == 0) {
    if (const auto found = why(path, status, owner_too)) return found;
  }
  const std::string folder = folder_of(path);
  if (stat(folder.c_str(), &status) < 0 || (status.st_mode & S_ISVTX) != 0) return std::nullopt;
  return why(folder, status);
}

}  // namespace ksd
