// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// keys.h: what a vault is sealed with: one master key, or two of them while it moves from one to the other.
#ifndef SERVICE_VAULT_KEYS_H
#define SERVICE_VAULT_KEYS_H

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "base/secret_bytes.h"
#include "vault/seal.h"

namespace ksd::vault {

// All rows have moved, those to come included.
inline constexpr uint64_t kAllMoved = INT64_MAX;

// KeyChange is what the file says while its key is changed: the next key, sealed under the present one, and how far the
// rows have moved. So the present key opens the vault all the while; the next one does as soon as all has moved.
struct KeyChange {
  KeyId key_id{};
  std::vector<uint8_t> sealed_key;
  uint64_t moved = 0;  // the last row that is sealed under the next key, or kAllMoved
};

class Keys {
 public:
  explicit Keys(const Sealer &present) : present_(present) {}

  // `next_key` is moved to; it is the present one already where only that is at hand.
  Keys(const Sealer &present, std::shared_ptr<const SecretBytes> next_key, uint64_t moved)
      : present_(present),
        next_(Sealer(*next_key, present.vault_id())),
        next_key_(std::move(next_key)),
        moved_(moved) {}

  // of_row gives what seals the row `id`; of_table what seals the header, and marks rows and witness.
  const Sealer &of_row(uint64_t id) const { return next_ && id <= moved_ ? *next_ : present_; }
  const Sealer &of_table() const { return next_ && moved_ == kAllMoved ? *next_ : present_; }

  bool changing() const { return next_.has_value(); }
  uint64_t moved() const { return moved_; }
  bool all_moved() const { return moved_ == kAllMoved; }
  const Sealer &present() const { return present_; }
  const Sealer &next() const { return *next_; }
  const std::shared_ptr<const SecretBytes> &next_key() const { return next_key_; }

  void move_to(uint64_t moved) { moved_ = moved; }

 private:
  Sealer present_;
  std::optional<Sealer> next_;
  std::shared_ptr<const SecretBytes> next_key_;
  uint64_t moved_ = 0;
};

}  // namespace ksd::vault

#endif
