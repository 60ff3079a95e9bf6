// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// store.h: where the keystore's entries live, behind an interface of its own so that another store can stand there.
#ifndef SERVICE_VAULT_STORE_H
#define SERVICE_VAULT_STORE_H

#include <sys/types.h>

#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "base/bytes.h"
#include "base/entry_name.h"
#include "base/secret_bytes.h"

namespace ksd::vault {

// Entry is what a read of the table gives: a snapshot that later changes don't touch. The secret never changes once
// made, so a handler keeps a pointer for as long as it computes.
struct Entry {
  uint64_t generation = 0;  // of this content; another one after every change of the secret, never used twice
  std::shared_ptr<const SecretBytes> secret;
  std::shared_ptr<const std::vector<uint8_t>> metadata;
};

// Unavailable is thrown by a read that can't be answered now: what is in memory isn't there yet, or too old. It says
// nothing about whether the entry is there.
class Unavailable : public std::exception {
 public:
  explicit Unavailable(KsResult code) : code_(code) {}
  KsResult code() const { return code_; }
  const char *what() const noexcept override { return "the entries can't be read now"; }

 private:
  KsResult code_;
};

// Store is the table of all entries of the device, dense, in positions from 0. Reads wait for no commit; those of a
// store that is shared may throw Unavailable. Changes return when they are on disk, or with the code of what prevents
// them, and then have changed nothing.
//
// Codes of changes: KS_SUCCESS; KS_NOT_FOUND: no such entry; KS_INVALID_ARGS: the new name is taken; KS_STORE_FULL: a
// limit is reached or the disk is full; KS_FW_BAD_CELL: the write failed. Of a store that is shared besides:
// KS_FW_COMM_ERROR: it can't be reached, and nothing was sent; KS_TIMEOUT: it was sent, and what became of it isn't
// known.
class Store {
 public:
  virtual ~Store() = default;

  // find looks `name` up by name or alias, in constant time.
  virtual std::optional<Entry> find(const EntryName &name) const = 0;
  virtual bool exists(const EntryName &name) const = 0;

  // at gives the name at `position`, or nothing past the end.
  virtual std::optional<EntryName> at(uint16_t position) const = 0;
  virtual size_t count() const = 0;

  // put makes or replaces the entry `name`, secret and metadata at once; a replaced one keeps its position. `alias`,
  // when set, becomes another name of the entry, and replaces the alias it had. `owner` is whose limits it counts in.
  virtual KsResult put(const EntryName &name, const std::optional<EntryName> &alias, Bytes secret, Bytes metadata,
                       uid_t owner) = 0;
  virtual KsResult set_metadata(const EntryName &name, Bytes metadata) = 0;

  // remove takes the entry of that name or alias out; the rest keeps its order and closes the gap.
  virtual KsResult remove(const EntryName &name) = 0;

  // rename keeps secret, metadata and position. KS_INVALID_ARGS: `to` is the name or alias of another entry.
  virtual KsResult rename(const EntryName &from, const EntryName &to) = 0;

  // on_retired has `retired` called with the generation of every content that a change has replaced or removed, when
  // find no longer gives it: what was prepared from it is to be forgotten. It is set once, before the store is shared,
  // and called on any thread, also on several at once.
  virtual void on_retired(std::function<void(uint64_t generation)> retired) = 0;

  // compact rewrites the store without its free space while others go on.
  virtual KsResult compact() = 0;

  // epoch moves on with every change of the table: what was found in an epoch is still so while it lasts.
  uint64_t epoch() const { return epoch_.load(std::memory_order_acquire); }

  struct Usage {
    size_t entries = 0;
    size_t entry_limit = 0;
    uint64_t bytes = 0;  // of secrets and metadata
    uint64_t byte_limit = 0;
    bool over_90_percent = false;
    bool compaction_helps = false;
  };
  virtual Usage usage() const = 0;

 protected:
  // begin_epoch is called for a change before any read can find what is new.
  void begin_epoch() { epoch_.fetch_add(1, std::memory_order_release); }

 private:
  std::atomic<uint64_t> epoch_{0};
};

}  // namespace ksd::vault

#endif
