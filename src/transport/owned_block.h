// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// owned_block.h: the owner of one heap block.
#ifndef TRANSPORT_OWNED_BLOCK_H
#define TRANSPORT_OWNED_BLOCK_H

#include <stdint.h>
#include <stdlib.h>

namespace ks {

// OwnedBlock frees on leaving what was put into it. Blocks go in the reverse order of their declaration, which is how
// an operation writes down its promised order of release.
class OwnedBlock {
 public:
  OwnedBlock() = default;
  OwnedBlock(const OwnedBlock &) = delete;
  OwnedBlock &operator=(const OwnedBlock &) = delete;
  ~OwnedBlock() { release(); }

  uint8_t **place() { return &data_; }  // for what hands a block out
  const uint8_t *data() const { return data_; }

  // take hands the block to whoever frees it from here on.
  uint8_t *take() {
    uint8_t *taken = data_;
    data_ = nullptr;
    return taken;
  }

  // release frees the block now, for operations that have something to do after it.
  void release() {
    free(data_);
    data_ = nullptr;
  }

 private:
  uint8_t *data_ = nullptr;
};

}  // namespace ks

#endif
