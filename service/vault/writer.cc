// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/writer.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <new>

#include "base/log.h"
#include "vault/files.h"

namespace ksd::vault {
namespace {

constexpr int kPagesPerStep = 256;  // given back between two groups: 1 MiB, some milliseconds

bool only_removes(const RowChanges &changes) {
  return std::all_of(changes.begin(), changes.end(), [](const auto &one) { return one.second.after == nullptr; });
}

}  // namespace

Writer::Writer(Database database, const Keys &keys, Witness witness)
    : database_(std::move(database)),
      keys_(keys),
      witness_(std::move(witness)),
      reserve_(database_.path() + "-reserve") {}

WriteFailure Writer::witness_failure(int error) const {
  const bool full = error == ENOSPC || error == EDQUOT;
  return {full ? KS_STORE_FULL : KS_FW_BAD_CELL,
          fmt::format("{} can't be written: {}", witness_.path(), errno_text(error))};
}

std::optional<WriteFailure> Writer::begin(const Header &header) {
  if (broken_) return WriteFailure{KS_FW_BAD_CELL, why_broken_};
  reserve_.keep();  // a full one may be there from last time
  // The log begins anew, so that nothing of an earlier life stands behind what this one writes.
  if (auto failed = judge(with_reserve([&] { return database_.write_back(); }))) return failed;
  // Only now: what the log held may not have been on disk before, and the witness must never be ahead. And before the
  // mark of use: a vault that was in use is expected to have its witness, whenever a kill came.
  if (const int error = witness_.set_up(header.last_version)) {
    return witness_failure(error);
  }
  const auto mark = [&] {
    std::optional<WriteFailure> failed =
        database_.transaction([&] { return put_header(header, true, keys_.of_table()); });
    if (!failed) failed = database_.write_back();
    return failed;
  };
  if (auto failed = judge(with_reserve(mark))) return failed;
  begun_ = true;
  return std::nullopt;
}

std::optional<WriteFailure> Writer::write(const RowChanges &changes, const Header &header, const Header &present) {
  if (broken_) return WriteFailure{KS_FW_BAD_CELL, why_broken_};
  if (!begun_) {
    if (auto failed = begin(present)) return failed;
  }
  const bool makes_room = only_removes(changes);
  // Room that was taken out of the reserve is for what makes room.
  if (!reserve_.keep() && !makes_room) return WriteFailure{KS_STORE_FULL, "the disk is full"};
  const auto step = [&] { return write_once(changes, header); };
  std::optional<WriteFailure> failed = judge(makes_room ? with_reserve(step) : step());
  if (failed) {
    put_again(present);
    return failed;
  }
  store_in_witness(header.last_version);
  return std::nullopt;
}

// A commit whose last step failed may have left a whole transaction in the log, which a start after a crash would take
// for a good one. Writing the present header again puts a good one in its place.
void Writer::put_again(const Header &present) noexcept try {
  judge(database_.transaction([&] { return put_header(present, true, keys_.of_table()); }));
} catch (const std::bad_alloc &) {  // the next change that succeeds does the same
}

template <typename Body>
std::optional<WriteFailure> Writer::change_key(Body body, const Header &present) {
  if (broken_) return WriteFailure{KS_FW_BAD_CELL, why_broken_};
  if (!begun_) {
    if (auto failed = begin(present)) return failed;
  }
  if (!reserve_.keep()) return WriteFailure{KS_STORE_FULL, "the disk is full"};
  std::optional<WriteFailure> failed = judge(database_.transaction(body));
  if (failed) put_again(present);
  return failed;
}

std::optional<WriteFailure> Writer::begin_key_change(const std::shared_ptr<const SecretBytes> &next_key,
                                                     const Header &present) {
  const Sealer &sealer = keys_.present();
  const KeyChange change{.key_id = key_id_of(*next_key),
                         .sealed_key = sealer.seal(RecordKind::kNextKey, 0, next_key->bytes()),
                         .moved = 0};
  const Keys both(sealer, next_key, 0);
  auto failed = change_key([&] { return database_.begin_key_change(change); }, present);
  if (!failed) keys_ = both;
  return failed;
}

std::optional<WriteFailure> Writer::move_rows(std::span<const EntryRow *const> rows, const std::optional<Header> &last,
                                              const Header &present) {
  const uint64_t moved = last ? kAllMoved : rows.back()->id;
  const auto body = [&] {
    for (const EntryRow *row : rows) {
      if (!put_row(*row, keys_.next())) return false;
    }
    return database_.put_moved(moved) && (!last || put_header(*last, true, keys_.next()));
  };
  if (auto failed = change_key(body, present)) return failed;
  keys_.move_to(moved);
  return std::nullopt;
}

std::optional<WriteFailure> Writer::renew_witness(uint64_t version) {
  if (const int error = witness_.renew(keys_.next(), version)) return witness_failure(error);
  return std::nullopt;
}

std::optional<WriteFailure> Writer::end_key_change(const Header &present) {
  const KeyId key_id = key_id_of(*keys_.next_key());
  if (auto failed = change_key([&] { return database_.end_key_change(key_id); }, present)) return failed;
  keys_ = Keys(Sealer(keys_.next()));
  return judge(database_.write_back());
}

// with_reserve does something that makes room, if need be in that of the reserve.
template <typename Step>
std::optional<WriteFailure> Writer::with_reserve(Step step) {
  std::optional<WriteFailure> failed = step();
  if (!failed || failed->code != KS_STORE_FULL || !reserve_.is_kept()) return failed;
  reserve_.release();
  judge(database_.write_back());  // then all of the log is free
  return step();
}

std::optional<WriteFailure> Writer::write_once(const RowChanges &changes, const Header &header) {
  return database_.transaction([&] {
    for (const auto &[id, change] : changes) {
      if (!(change.after ? put_row(*change.after, keys_.of_row(id)) : database_.remove_entry(id))) return false;
    }
    return put_header(header, true, keys_.of_table());
  });
}

// judge looks whether a failure is of the kind after which nothing is written any more.
std::optional<WriteFailure> Writer::judge(std::optional<WriteFailure> failed) noexcept {
  if (failed && failed->code == KS_FW_BAD_CELL && !broken_) {
    broken_ = true;
    try {
      why_broken_ = failed->text;
    } catch (const std::bad_alloc &) {  // without a reason, then
    }
  }
  return failed;
}

bool Writer::put_row(const EntryRow &row, const Sealer &sealer) {
  return database_.put_entry(row.id, sealer.seal(RecordKind::kEntry, row.id, encode_entry(row)->bytes()));
}

bool Writer::put_header(const Header &header, bool in_use, const Sealer &sealer) {
  Header marked = header;
  marked.in_use = in_use;
  return database_.put_header(sealer.seal(RecordKind::kHeader, 0, encode_header(marked)));
}

// The change is on disk, so it has happened, whatever becomes of the witness.
void Writer::store_in_witness(uint64_t version) noexcept {
  if (witness_.store(version)) {
    witness_failing_ = false;
    return;
  }
  const int error = errno;
  if (witness_failing_) return;
  witness_failing_ = true;
  try {
    tell(event::kWitnessNotWritten,
         "{}: can't be written: {}; a vault that lacks later changes wouldn't be noticed. Look after its disk",
         witness_.path(), errno_text(error));
  } catch (...) {  // no memory for a line
  }
}

void Writer::tidy_up() noexcept try {
  if (broken_ || !begun_) return;
  if (database_.log_is_long()) judge(database_.write_back());
  if (reserve_.keep() || broken_) return;
  // What was cleared is free within the file. Given back to the disk, it may be enough for the reserve.
  if (judge(database_.give_back(kPagesPerStep)) || judge(database_.write_back())) return;
  reserve_.keep();
} catch (...) {  // no memory: next time
}

std::optional<WriteFailure> Writer::give_back(bool &done) {
  done = true;
  if (broken_) return WriteFailure{KS_FW_BAD_CELL, why_broken_};
  if (auto failed = judge(with_reserve([&] { return database_.give_back(kPagesPerStep); }))) return failed;
  done = database_.room().free_pages == 0;
  return done ? judge(database_.write_back()) : std::nullopt;
}

std::optional<WriteFailure> Writer::write_log_back(uint64_t &pages) {
  if (broken_) return WriteFailure{KS_FW_BAD_CELL, why_broken_};
  pages = static_cast<uint64_t>(database_.log_pages());
  return judge(database_.write_back());
}

void Writer::end(const Header &header) noexcept try {
  if (broken_ || !begun_) return;
  if (database_.transaction([&] { return put_header(header, false, keys_.of_table()); })) return;
  if (database_.put_log_away()) return;
  witness_.sync();
} catch (...) {  // no memory: the mark of use stays
}

}  // namespace ksd::vault
