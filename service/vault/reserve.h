// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// reserve.h: room on the disk that is kept back, so that on a full one entries can still be cleared.
#ifndef SERVICE_VAULT_RESERVE_H
#define SERVICE_VAULT_RESERVE_H

#include <string>

namespace ksd::vault {

// Reserve is a file beside the vault that nobody reads. Taking an entry out needs room in the log first; when there is
// none left, the file is emptied, and filled again once there is room for it.
class Reserve {
 public:
  // About the length of a full log: what writing it back into the vault may need.
  static constexpr long kSize = 4 << 20;

  explicit Reserve(std::string path) : path_(std::move(path)) {}

  // keep sees that the room is kept back, and tells whether it is.
  bool keep() noexcept;
  void release() noexcept;
  bool is_kept() const { return is_kept_; }

 private:
  std::string path_;
  bool is_kept_ = false;
};

}  // namespace ksd::vault

#endif
