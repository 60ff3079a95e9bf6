// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// memory.h: a machine's own copy of what its fleet shares, and every check that stands between it and the engine.
#ifndef SERVICE_FLEET_MEMORY_H
#define SERVICE_FLEET_MEMORY_H

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
};

class Memory {
 public:
  // `fleet` is the fleet's id, where it is known beforehand; else it is that of the first header.
  Memory(std::shared_ptr<const SecretBytes> master_key, std::optional<FleetId> fleet, Owners &owners);

  // A memory that is filled holds what was once the state of the fleet, as of header().
  bool is_filled() const { return filled_; }
  const vault::State &state() const { return state_; }
  const FleetHeader &header() const { return header_; }
  const HeaderHash &hash() const { return hash_; }
  Revision revision() const { return revision_; }  // at which that header was put; 0: not known in this store
  const std::optional<FleetId> &fleet() const { return fleet_; }
  const vault::KeyId &key_id() const { return key_id_; }

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

    bool has_rows() const { return has_rows_; }

   private:
    struct Folder {
      vault::RowChanges rows;
      size_t count = 0;
      vault::Digest digest{};
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

  // commit_of is the transaction that makes a group of changes, decided on this memory, as one more of `writer`.
  // Nothing when there are too many machines. `last_version` is what the group has reached.
  std::optional<Commit> commit_of(const vault::Group &group, const WriterMark &writer) const;

  // first_commit makes the fleet, with no entries.
  Commit first_commit(const FleetId &fleet, const WriterMark &writer) const;

  const vault::Sealer *sealer() const { return sealer_ ? &*sealer_ : nullptr; }

  // sealed_header and sealed_row are what a mirror keeps.
  std::vector<uint8_t> sealed_row(const vault::EntryRow &row) const;

 private:
  void belong_to(const FleetId &fleet);
  vault::RowPtr find(uint64_t id) const;
  std::shared_ptr<const SecretBytes> plain_of(const vault::EntryRow &row) const;
  vault::Digest mark_of(const vault::EntryRow &row) const;
  struct OpenedRow {
    vault::RowPtr row;
    vault::Digest mark{};
  };
  std::optional<OpenedRow> open_row(const KeyValue &stored, uint64_t id, const vault::RowPtr &before);
  KeyValue header_value(const FleetHeader &header) const;

  const std::shared_ptr<const SecretBytes> master_key_;
  const vault::KeyId key_id_;
  Owners &owners_;
  std::optional<FleetId> fleet_;
  std::optional<vault::Sealer> sealer_;

  bool filled_ = false;
  vault::State state_;
  FleetHeader header_;
  HeaderHash hash_{};
  Revision revision_ = 0;
  uint64_t last_generation_ = 0;
};

}  // namespace ksd::fleet

#endif
