// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/reserve.h"

#include <fcntl.h>
#include <unistd.h>

#include "base/fd.h"

namespace ksd::vault {
namespace {

constexpr int kFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

}  // namespace

bool Reserve::keep() noexcept {
  if (is_kept_) return true;
  const UniqueFd file(open(path_.c_str(), kFlags | O_CREAT, 0600));
  is_kept_ = file && posix_fallocate(file.get(), 0, kSize) == 0;
  if (file && !is_kept_ && ftruncate(file.get(), 0) != 0) unlink(path_.c_str());  // part of it helps nobody
  return is_kept_;
}

void Reserve::release() noexcept {
  is_kept_ = false;
  const UniqueFd file(open(path_.c_str(), kFlags));
  if (!file || ftruncate(file.get(), 0) != 0) unlink(path_.c_str());
}

}  // namespace ksd::vault
