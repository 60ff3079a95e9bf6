// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// memory.h: a machine's own copy of what its fleet shares, and every check that stands between it and the engine.
#ifndef SERVICE_FLEET_MEMORY_H
#define SERVICE_FLEET_MEMORY_H

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "fleet/engine.h"
#include "fleet/format.h"
#include "fleet/owners.h"
#include "vault/group.h"
#include "vault/keys.h"
#include "vault/state.h"

namespace ksd::fleet {

// Verdict is what a header of the engine is, beside the one that memory has.
enum class Verdict : uint8_t {
  kSame,
  kLater,       // a successor, as far as it can be told; any header, while memory is empty
  kMissing,     // there is none
  kUnreadable,  // it isn't sealed with the fleet's key
  kOtherKey,    // it says that it is sealed with another key
  kOtherFleet,
  kRolledBack,  // an earlier one
  kForked,      // not a successor, and not an earlier one
  kRestored,    // of a later incarnation, which is nobody's successor
};

// OpenedHeader is a header of the engine that opened.
struct OpenedHeader {
  FleetHeader header;
  HeaderHash hash{};
  FleetId fleet{};
  Revision revision = 0;  // at which it was put
  vault::KeyId key{};     // under which it was sealed
};

using KeyPtr = std::shared_ptr<const SecretBytes>;

class Memory {
 public:
  // `next_key` is what the machine holds beside its master key, or null. `fleet` is the fleet's id, where it is known
  // beforehand; else it is that of the first header.
  Memory(KeyPtr master_key, KeyPtr next_key, std::optional<FleetId> fleet, Owners &owners);

  // A memory that is filled holds what was once the state of the fleet, as of header().
  bool is_filled() const { return filled_; }
  const vault::State &state() const { return state_; }
  const FleetHeader &header() const { return header_; }
  const HeaderHash &hash() const { return hash_; }
  Revision revision() const { return revision_; }  // at which that header was put; 0: not known in this store
  const std::optional<FleetId> &fleet() const { return fleet_; }

  // The master key is the fleet's, as of header(): with the header that ends a change of it, the next one takes its
  // place.
  const KeyPtr &master_key() const { return master_key_; }
  const vault::KeyId &key_id() const { return key_id_; }
  const KeyPtr &next_key() const { return next_key_; }
  bool holds(const vault::KeyId &key) const { return key == key_id_ || (next_key_ != nullptr && key == next_id_); }
  void hold(KeyPtr next_key);

  // row_key gives the key of a row; is_own_row tells whether a key is one of memory's rows, and not of a restore that
  // isn't its header's.
  std::string row_key(uint64_t id) const { return fleet::row_key({.folder = header_.folder, .id = id}); }
  bool is_own_row(std::string_view key) const;

  // judge opens a header, into `out` if it can be opened, and compares it with that of memory.
  Verdict judge(const std::optional<KeyValue> &header, OpenedHeader &out) const;

  // Step is the way from one header to the next.
  struct Step {
    vault::RowChanges changes;
    OpenedHeader header;
    vault::Ledger ledger;
  };

  // next checks that a change of the store is the step that follows on memory: the next version, with the hash of the
  // present header in it, of a writer that made one more change, with the rows that belong to it. Nothing otherwise.
  // Throws std::bad_alloc.
  std::optional<Step> next(Revision revision, const std::vector<KeyValue> &puts,
                           const std::vector<std::string> &deletes);
  // take goes there. Throws std::bad_alloc, and then memory is as it was.
  void take(Step step);

  // Whole is another state in the place of memory's.
  struct Whole {
    vault::State state;
    OpenedHeader header;
    std::vector<uint64_t> gone;  // contents of memory that aren't in it
  };

  // Loading collects the rows of a load, page by page, each folder for itself: which of them counts, the header tells,
  // which comes last. What is as it was in memory isn't kept twice; with kCounted no row is kept, and is_of is all that
  // can be asked.
  enum class Rows : uint8_t { kKept, kCounted };
  class Loading {
   public:
    explicit Loading(Memory &memory, Rows rows = Rows::kKept) : memory_(memory), keeps_(rows == Rows::kKept) {}

    // add takes a page of rows. While the fleet isn't known, they wait for the header.
    void add(std::vector<KeyValue> rows);

    // is_of tells whether all rows open, and their count and digest are those of the header.
    bool is_of(const FleetHeader &header) const;

    // finish gives the whole, if the rows are those of the header, and so are ids and names.
    std::optional<Whole> finish(const OpenedHeader &header);

    // is_sealed_as tells whether each row is sealed under the key that it has as of the header.
    bool is_sealed_as(const OpenedHeader &header) const;

    bool has_rows() const { return has_rows_; }

   private:
    struct Folder {
      vault::RowChanges rows;
      size_t count = 0;
      vault::Digest digest{};
      uint64_t last_moved = 0;              // of the rows that are sealed under the next key
      uint64_t first_to_move = UINT64_MAX;  // of those under the present one
      bool all_open = true;
    };
    // More than restores can leave behind.
    static constexpr size_t kMostFolders = 64;

    bool open(const KeyValue &stored, uint64_t id, Folder &folder);

    Memory &memory_;
    const bool keeps_;
    std::vector<KeyValue> closed_;
    std::map<uint64_t, Folder> folders_;
    bool has_rows_ = false;
  };
  void take(Whole &whole) noexcept;

  // successor is the header that follows on memory's with one more change of `writer`, who is a machine of the fleet
  // from then on. Nothing when there are too many machines.
  std::optional<FleetHeader> successor(const WriterMark &writer) const;

  // commit_of is the transaction that makes `next` the header; the others add to it.
  Commit commit_of(const FleetHeader &next) const;

  // commit_of_group makes a group of changes that was decided on this memory.
  Commit commit_of_group(FleetHeader next, const vault::Group &group) const;

  // commit_of_move seals further rows under the next key, up to `most`; with the last of them the header, too, and the
  // change of the key is over.
  Commit commit_of_move(FleetHeader next, size_t most) const;

  // first_commit makes the fleet, with no entries.
  Commit first_commit(const FleetId &fleet, const WriterMark &writer) const;

  // sealer is what heartbeats and boxes are sealed with. Null while the fleet isn't known.
  const vault::Sealer *sealer() const { return keys_ ? &keys_->present() : nullptr; }

  // open gives what `opened` makes of a record with one of the keys, or nothing.
  template <typename Open>
  auto open(Open opened) const {
    auto found = opened(keys_->present());
    if (!found && keys_->changing()) found = opened(keys_->next());
    return found;
  }

  // plain_of is a row before it is sealed. Any thread may ask.
  std::shared_ptr<const SecretBytes> plain_of(const vault::EntryRow &row) const;

 private:
  void belong_to(const FleetId &fleet);
  void make_keys();
  bool is_under_next(const OpenedHeader &header) const { return next_key_ != nullptr && header.key == next_id_; }
  void use_keys_of(const OpenedHeader &header) noexcept;
  uint64_t moved_in(const FleetHeader &header) const;
  const vault::Sealer *former(const vault::KeyId &key) const;
  std::shared_ptr<const SecretBytes> open_header(const HeaderFront &front) const;
  vault::RowPtr find(uint64_t id) const;
  vault::Digest mark_of(const vault::EntryRow &row) const { return mark_of(row, keys_->present()); }
  vault::Digest mark_of(const vault::EntryRow &row, const vault::Sealer &sealer) const;
  KeyValue stored_row(const vault::EntryRow &row, const vault::Sealer &sealer) const;
  struct OpenedRow {
    vault::RowPtr row;
    vault::Digest mark{};
  };
  std::optional<OpenedRow> open_row(const KeyValue &stored, uint64_t id, const vault::RowPtr &before,
                                    const vault::Sealer &sealer);
  bool has_all_rows_between(uint64_t from, uint64_t to, const std::unordered_set<uint64_t> &ids) const;
  vault::Digest digest_under_next() const;

  KeyPtr master_key_;
  vault::KeyId key_id_;
  KeyPtr next_key_;
  vault::KeyId next_id_{};
  Owners &owners_;
  std::optional<FleetId> fleet_;
  std::optional<vault::Keys> keys_;
  // Master keys of before, the last one first: headers that were read long ago may still come in.
  struct Former {
    vault::KeyId id{};
    vault::Sealer sealer;
  };
  std::array<std::optional<Former>, 4> formers_;

  bool filled_ = false;
  vault::State state_;
  FleetHeader header_;
  HeaderHash hash_{};
  Revision revision_ = 0;
  uint64_t last_generation_ = 0;
};

}  // namespace ksd::fleet

#endif
