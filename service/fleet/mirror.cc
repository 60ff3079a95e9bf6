// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "fleet/mirror.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <set>

#include "base/fd.h"
#include "base/little_endian.h"
#include "base/log.h"
#include "base/refuse.h"
#include "fleet/clock.h"
#include "vault/files.h"

namespace ksd::fleet {
namespace {

using vault::RecordKind;
using namespace std::chrono_literals;

constexpr auto kPauseBetweenWrites = 100ms;
// How much older memory may have become since it was last written down.
constexpr auto kAgeInterval = 10s;

// Where the fields of a mirror's state stand; the header is behind them.
enum StateOffset : size_t { kHash = 0, kAge = 32, kBoot = 40, kClock = 56, kWall = 64, kHeader = 72 };

using BootId = std::array<uint8_t, 16>;

// boot_id tells one run of the kernel from another; zeros where the kernel doesn't say, which is never the same run.
BootId boot_id() {
  BootId id{};
  const UniqueFd file(open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC));
  std::array<uint8_t, 36> text{};
  if (!file || read(file.get(), text.data(), text.size()) != ssize_t{text.size()}) return id;
  crypto_generichash(id.data(), id.size(), text.data(), text.size(), nullptr, 0);
  return id;
}

uint64_t milliseconds(Time time) {
  return static_cast<uint64_t>(std::max<int64_t>(0, time / 1ms));
}

}  // namespace

Mirror::Mirror(std::string path, KeyPtr master_key, const KeyPtr &next_key, const std::optional<FleetId> &fleet)
    : path_(std::move(path)), master_key_(std::move(master_key)) {
  vault::refuse_what_others_may_write(path_);
  key_followed_ = master_key_;
  if (!vault::file_exists(path_)) return;
  database_ = std::make_unique<vault::Database>(path_);
  const vault::VaultIdentity identity = database_->identity();
  const bool is_under_next = next_key != nullptr && identity.key_id == vault::key_id_of(*next_key);
  if (is_under_next) key_followed_ = master_key_ = next_key;
  const char *other = identity.key_id != vault::key_id_of(*master_key_) ? "master key"
                      : fleet && identity.vault_id != *fleet            ? "fleet"
                                                                        : nullptr;
  if (other != nullptr) {
    refuse("{}: is the mirror of another {}; move it away to load all from the fleet", path_, other);
  }
  fleet_ = identity.vault_id;
  sealer_.emplace(*master_key_, *fleet_);
}

KeyPtr Mirror::master_key() const {
  const std::lock_guard lock(mutex_);
  return master_key_;
}

Mirror::~Mirror() {
  if (!worker_.joinable()) return;
  {
    const std::lock_guard lock(mutex_);
    closing_ = true;
  }
  to_do_.notify_one();
  worker_.join();
}

std::optional<Core::Kept> Mirror::load(Memory &memory) {
  if (!database_) return std::nullopt;
  const auto refuse_damaged = [this] {
    refuse("{}: the mirror is damaged; move it away to load all from the fleet", path_);
  };
  const vault::VaultIdentity identity = database_->identity();
  const std::shared_ptr<const SecretBytes> plain = sealer_->open(RecordKind::kMirror, 0, identity.sealed_header);
  if (plain == nullptr || plain->size() < kHeader) refuse_damaged();
  const uint8_t *state = plain->bytes().data();
  std::optional<FleetHeader> header = decode_header(plain->bytes().subspan(kHeader));
  if (!header) refuse_damaged();
  OpenedHeader opened{
      .header = std::move(*header), .hash = {}, .fleet = *fleet_, .revision = 0, .key = identity.key_id};
  std::copy_n(state + kHash, opened.hash.size(), opened.hash.begin());

  Memory::Loading loading(memory);
  database_->for_each_entry([&](uint64_t id, Bytes sealed) {
    loading.add({{.key = row_key({.folder = opened.header.folder, .id = id}),
                  .value = {sealed.begin(), sealed.end()},
                  .mod_revision = 0}});
  });
  std::optional<Memory::Whole> whole = loading.finish(opened);
  if (!whole) refuse_damaged();

  // In the same run of the kernel its clock tells how long ago that was. Otherwise, and where the whole machine was put
  // back to an earlier state, the time of day does, as far as it can be believed: it never makes the copy younger than
  // it was when it was written, and up to an interval later.
  Core::Kept kept{.whole = std::move(*whole),
                  .age = std::chrono::milliseconds(get_little_endian<uint64_t>(state + kAge))};
  const BootId boot = boot_id();
  const uint64_t now = milliseconds(clock_now()), then = get_little_endian<uint64_t>(state + kClock);
  const bool same_run = boot != BootId{} && std::equal(boot.begin(), boot.end(), state + kBoot) && then <= now;
  if (same_run) {
    kept.age += std::chrono::milliseconds(now - then);
  } else {
    const auto wall = static_cast<int64_t>(get_little_endian<uint64_t>(state + kWall));
    kept.age += kAgeInterval + std::chrono::seconds(std::max<int64_t>(0, std::time(nullptr) - wall));
  }
  header_ = opened.header;
  hash_ = followed_ = opened.hash;
  lost_ = false;
  return kept;
}

void Mirror::follow(const Memory &memory, const vault::RowChanges *changes) {
  {
    const std::lock_guard lock(mutex_);
    const bool is_other_key = memory.master_key() != key_followed_;
    const bool is_there = changes == nullptr && followed_ == memory.hash();  // at a start, most of the time
    if (std::exchange(lost_, true) || (changes == nullptr && !is_there) || is_other_key) {
      due_.all = true;
      due_.rows.clear();
      for (vault::RowPtr &row : memory.state().table.rows()) due_.rows[row->id] = std::move(row);
    } else if (changes != nullptr) {
      for (const auto &[id, change] : *changes) due_.rows[id] = change.after;
    }
    due_.header = memory.header();
    due_.hash = followed_ = memory.hash();
    due_.key = key_followed_ = memory.master_key();
    lost_ = false;
    if (!worker_.joinable()) {
      memory_ = &memory;
      worker_ = std::thread([this] { work(); });
    }
  }
  to_do_.notify_one();
}

void Mirror::young(Time as_of) {
  const std::lock_guard lock(mutex_);
  as_of_ = as_of;
}

void Mirror::work() noexcept {
  Time written_at{};
  for (;;) {
    Due due;
    Time as_of{};
    bool is_last = false;
    {
      std::unique_lock lock(mutex_);
      to_do_.wait_for(lock, kAgeInterval / 2, [&] { return closing_ || due_.header; });
      is_last = closing_;
      as_of = as_of_;
      const bool ages = clock_now() - as_of >= kAgeInterval / 2 && clock_now() - written_at >= kAgeInterval / 2;
      if (!due_.header && !ages && !is_last) continue;
      std::swap(due, due_);
    }
    try {
      write(due, as_of);
      written_at = clock_now();
      failing_ = false;
    } catch (const std::exception &error) {
      if (!std::exchange(failing_, true)) {
        tell(event::kMirrorNotWritten, "{}; a start without the fleet would know less. Look after its disk",
             error.what());
      }
      const std::lock_guard lock(mutex_);
      lost_ = true;
    }
    if (is_last) return;
    std::unique_lock lock(mutex_);
    to_do_.wait_for(lock, kPauseBetweenWrites, [&] { return closing_; });
  }
}

std::vector<uint8_t> Mirror::state_record(const FleetHeader &header, const HeaderHash &hash, Time as_of,
                                          const vault::Sealer &sealer) const {
  std::vector<uint8_t> state(kHeader);
  std::copy(hash.begin(), hash.end(), state.begin() + kHash);
  put_little_endian(state.data() + kAge, milliseconds(clock_now() - as_of));
  const BootId boot = boot_id();
  std::copy(boot.begin(), boot.end(), state.begin() + kBoot);
  put_little_endian(state.data() + kClock, milliseconds(clock_now()));
  put_little_endian(state.data() + kWall, static_cast<uint64_t>(std::time(nullptr)));
  const std::vector<uint8_t> encoded = encode_header(header);
  state.insert(state.end(), encoded.begin(), encoded.end());
  return sealer.seal(RecordKind::kMirror, 0, state);
}

void Mirror::write(const Due &due, Time as_of) {
  if (!due.header && !database_) return;
  // Where only time has passed, the rows are those of the header that was written last.
  const FleetHeader &header = due.header ? *due.header : header_;
  const HeaderHash &hash = due.header ? due.hash : hash_;
  // Another key comes with all rows, and takes the place of the one before together with them.
  const KeyPtr key = due.key != nullptr ? due.key : master_key_;
  const vault::KeyId key_id = vault::key_id_of(*key);
  if (!database_) fleet_ = *memory_->fleet();
  const vault::Sealer sealer = key == master_key_ && sealer_ ? *sealer_ : vault::Sealer(*key, *fleet_);
  const std::vector<uint8_t> state = state_record(header, hash, as_of, sealer);
  if (!database_) {
    vault::Database::create(path_, {.key_id = key_id, .vault_id = *fleet_, .sealed_header = state});
    database_ = std::make_unique<vault::Database>(path_);
  }
  std::set<uint64_t> gone;
  if (due.all) {
    database_->for_each_entry([&](uint64_t id, Bytes) {
      if (!due.rows.contains(id)) gone.insert(id);
    });
  }
  const std::optional<vault::WriteFailure> failed = database_->transaction([&] {
    for (const uint64_t id : gone) {
      if (!database_->remove_entry(id)) return false;
    }
    for (const auto &[id, row] : due.rows) {
      const bool is_done =
          row == nullptr
              ? database_->remove_entry(id)
              : database_->put_entry(id, sealer.seal(RecordKind::kFleetRow, id, memory_->plain_of(*row)->bytes()));
      if (!is_done) return false;
    }
    if (key != master_key_ && !database_->end_key_change(key_id)) return false;
    return database_->put_header(state);
  });
  if (failed) refuse("{}: the mirror can't be written: {}", path_, failed->text);
  if (due.header) {
    header_ = header;
    hash_ = hash;
    incarnation_written_ = header.incarnation;
  }
  sealer_ = sealer;
  {
    const std::lock_guard lock(mutex_);
    master_key_ = key;
  }
  if (database_->log_is_long()) database_->write_back();
}

}  // namespace ksd::fleet
