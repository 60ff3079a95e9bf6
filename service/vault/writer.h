// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// writer.h: all that the vault writes: rows and header in one transaction, and what guards them.
#ifndef SERVICE_VAULT_WRITER_H
#define SERVICE_VAULT_WRITER_H

#include <optional>

#include "vault/database.h"
#include "vault/keys.h"
#include "vault/record.h"
#include "vault/reserve.h"
#include "vault/seal.h"
#include "vault/table.h"
#include "vault/witness.h"

namespace ksd::vault {

// Writer keeps three promises beside the transaction's own. A change counts when the witness knows of it. Before the
// first change, the file itself says that it is in use, so that it is never taken for whole without its log. And when a
// write or sync has failed for another reason than a full disk, nothing more is written until the next start: what the
// kernel did with the pages of a failed sync can't be known, and a later sync that succeeds says nothing about them.
class Writer {
 public:
  Writer(Database database, const Keys &keys, Witness witness);

  // begin is the mark of use, and the witness. write does it first when it couldn't be done yet, as on a full disk.
  std::optional<WriteFailure> begin(const Header &header);

  // write brings changes and their header to disk. When it fails, none of it is there, and `present` is the header.
  std::optional<WriteFailure> write(const RowChanges &changes, const Header &header, const Header &present);

  // tidy_up does what no answer waits for: writes a long log back, and fills the reserve again.
  bool is_untidy() const { return begun_ && !broken_ && (database_.log_is_long() || !reserve_.is_kept()); }
  void tidy_up() noexcept;

  // give_back is a step of compaction; `done` tells whether it was the last.
  std::optional<WriteFailure> give_back(bool &done);

  // write_log_back tells how many pages the log held.
  std::optional<WriteFailure> write_log_back(uint64_t &pages);

  // A change of the master key, in these steps. What each has done is on disk when it gives nothing, and a kill
  // between two leaves what opens with the present key, and once all has moved with the next one as well.
  //
  // begin_key_change remembers the next key, sealed under the present one. move_rows seals rows anew, in the order of
  // their ids and from the first; with the last of them comes the header that is right under the next key. Then
  // renew_witness marks the witness with the next key. Once that key stands where the master key is looked for,
  // end_key_change forgets the present one.
  std::optional<WriteFailure> begin_key_change(const std::shared_ptr<const SecretBytes> &next_key,
                                               const Header &present);
  std::optional<WriteFailure> move_rows(std::span<const EntryRow *const> rows, const std::optional<Header> &last,
                                        const Header &present);
  std::optional<WriteFailure> renew_witness(uint64_t version);
  std::optional<WriteFailure> end_key_change(const Header &present);

  // end marks the vault as closed in order. A vault that couldn't be marked is as safe, but is lost without its log.
  void end(const Header &header) noexcept;

  const Keys &keys() const { return keys_; }
  Database::Room room() { return database_.room(); }
  bool has_begun() const { return begun_; }
  bool is_broken() const { return broken_; }
  const std::string &why_broken() const { return why_broken_; }
  bool reserve_is_kept() const { return reserve_.is_kept(); }
  const std::string &path() const { return database_.path(); }

 private:
  template <typename Step>
  std::optional<WriteFailure> with_reserve(Step step);
  std::optional<WriteFailure> write_once(const RowChanges &changes, const Header &header);
  template <typename Body>
  std::optional<WriteFailure> change_key(Body body, const Header &present);
  std::optional<WriteFailure> judge(std::optional<WriteFailure> failed) noexcept;
  bool put_row(const EntryRow &row, const Sealer &sealer);
  bool put_header(const Header &header, bool in_use, const Sealer &sealer);
  void put_again(const Header &present) noexcept;
  WriteFailure witness_failure(int error) const;
  void store_in_witness(uint64_t version) noexcept;

  Database database_;
  Keys keys_;
  Witness witness_;
  Reserve reserve_;
  bool begun_ = false;
  bool broken_ = false;  // nothing is written any more
  std::string why_broken_;
  bool witness_failing_ = false;
};

}  // namespace ksd::vault

#endif
