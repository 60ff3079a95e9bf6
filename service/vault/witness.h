// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// witness.h: a small file that remembers the last acknowledged change, so that a vault that lacks it is noticed.
#ifndef SERVICE_VAULT_WITNESS_H
#define SERVICE_VAULT_WITNESS_H

#include <cstdint>
#include <optional>
#include <string>

#include "base/fd.h"
#include "vault/keys.h"
#include "vault/seal.h"

namespace ksd::vault {

// Witness is the file. It has two slots, written in turn, each with a version and a mark of it that only the holder of
// the master key can make, for this vault alone. A slot that was torn doesn't open, and then the other one counts.
//
// A version is stored once its change is on disk, and before anybody is told. It isn't synced then: a kill takes
// nothing from what the kernel has, and after a power failure the witness may be behind the vault, but never ahead of
// it.
//
// It is written and not mapped: a mapping would end the process when somebody cuts the file.
class Witness {
 public:
  // Opens the file, if there is one. `keys` says what marks it; one that bears the mark of the key before counts as
  // well, and is made anew when it is set up.
  Witness(std::string path, const Keys &keys);

  const std::string &path() const { return path_; }
  bool file_is_there() const { return file_is_there_; }

  // version is the newest that the file tells of; nothing when there is no such file, or not of this vault.
  std::optional<uint64_t> version() const { return version_; }

  // set_up makes the file when there is none for this vault, and sees that it tells of `version`. Gives an errno, or 0.
  int set_up(uint64_t version);
  bool is_set_up() const { return static_cast<bool>(file_); }

  // renew has it bear the mark of another key from now on, on disk when it gives 0.
  int renew(const Sealer &sealer, uint64_t version);

  // store remembers `version`, in one write over what is there already: it needs no room, no memory, and no disk.
  bool store(uint64_t version) noexcept;

  // sync brings it to disk, at an orderly end.
  bool sync() noexcept;

 private:
  void read(const Sealer &sealer);
  int make(uint64_t version);

  std::string path_;
  Sealer sealer_;
  UniqueFd file_;
  bool file_is_there_ = false;
  std::optional<uint64_t> version_;
  int next_slot_ = 0;
};

}  // namespace ksd::vault

#endif
