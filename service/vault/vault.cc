#include "vault/vault.h"

#include <fmt/format.h>
#include <pthread.h>
#include <spdlog/spdlog.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <future>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <stdexcept>
#include <thread>

#include "vault/database.h"
#include "vault/files.h"
#include "vault/ledger.h"
#include "vault/master_key.h"
#include "vault/table.h"

namespace ksd::vault {
namespace {

constexpr size_t kLargestGroup = 256;     // changes in one commit
constexpr int kPagesPerStep = 256;        // given back between two groups: 1 MiB, some milliseconds
constexpr int64_t kPagesWorthwhile = 64;  // free ones, below which compaction is said to be of no help

// ReadMostlyLock lets a waiting writer in before further readers, which std::shared_mutex doesn't. Neither ever waits
// for the disk while holding it.
class ReadMostlyLock {
 public:
  ReadMostlyLock() {
    pthread_rwlockattr_t attributes;
    pthread_rwlockattr_init(&attributes);
    pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    pthread_rwlock_init(&lock_, &attributes);
    pthread_rwlockattr_destroy(&attributes);
  }
  ~ReadMostlyLock() { pthread_rwlock_destroy(&lock_); }
  ReadMostlyLock(const ReadMostlyLock &) = delete;
  ReadMostlyLock &operator=(const ReadMostlyLock &) = delete;

  void lock() { pthread_rwlock_wrlock(&lock_); }
  void unlock() { pthread_rwlock_unlock(&lock_); }
  void lock_shared() { pthread_rwlock_rdlock(&lock_); }
  void unlock_shared() { pthread_rwlock_unlock(&lock_); }

 private:
  pthread_rwlock_t lock_;
};

// State is all that the sealed file says: what is on disk, and what readers see.
struct State {
  Table table;
  Header header;
  Ledger ledger;
};

// Group is a number of changes that reach the disk together, on top of a state that stays as it is until then.
class Group {
 public:
  Group(const State &base, const Limits &limits, uint64_t &last_version)
      : draft_(base.table), header_(base.header), ledger_(base.ledger), limits_(limits), last_version_(last_version) {}

  RowPtr find(const EntryName &name) const { return draft_.find(name); }

  // store puts `after` in the place of `before`, null for a new entry, unless limits forbid it.
  KsResult store(const RowPtr &before, EntryRow after) {
    if (!ledger_.admits(before.get(), after, limits_)) return KS_STORE_FULL;
    if (before == nullptr) after.id = ++header_.last_id;
    after.version = next_version();
    if (before == nullptr || before->secret != after.secret) after.generation = after.version;
    replace(before, std::make_shared<const EntryRow>(std::move(after)));
    return KS_SUCCESS;
  }

  void remove(const RowPtr &before) { replace(before, nullptr); }

  const RowChanges &changes() const { return draft_.changes(); }

  // finished_header is the header that goes with the changes.
  Header finished_header(const Sealer &sealer) const {
    Header header = header_;
    header.last_version = last_version_;
    header.entry_count = draft_.size();
    for (const auto &[id, change] : changes()) {
      if (change.before) header.take_out(sealer.mark(id, change.before->version));
      if (change.after) header.add(sealer.mark(id, change.after->version));
    }
    return header;
  }
  const Ledger &ledger() const { return ledger_; }

 private:
  // Versions are never used again, not even those of changes that failed: they are generations too.
  uint64_t next_version() { return ++last_version_; }

  void replace(const RowPtr &before, const RowPtr &after) {
    draft_.replace(before, after);
    ledger_.replace(before.get(), after.get());
  }

  Draft draft_;
  Header header_;
  Ledger ledger_;
  const Limits &limits_;
  uint64_t &last_version_;
};

using Decide = std::function<KsResult(Group &)>;

// Change is one asked-for change. It is decided against the group it falls into, and answered when that is on disk.
struct Change {
  Decide decide;
  std::promise<KsResult> answer;
};

// UseWatch logs once when most of the room is used, and again only after it was well below.
class UseWatch {
 public:
  void look_at(const std::string &path, const Ledger &ledger, const Limits &limits) {
    watch(path, kAllUsers, ledger.all(), {limits.entries, limits.bytes});
    for (const auto &[uid, use] : ledger.users()) {
      watch(path, uid, use, {limits.entries_per_user, limits.bytes_per_user});
    }
  }

 private:
  static constexpr int64_t kAllUsers = -1;

  void watch(const std::string &path, int64_t user, const Use &use, const Use &limit) {
    if (!reaches(use, limit, 70)) said_.erase(user);
    if (!reaches(use, limit, 80) || !said_.insert(user).second) return;
    spdlog::warn("{}: 80 % of the room of {} is used: {} of {} entries, {} of {} bytes; clear some or raise the limit",
                 path, user == kAllUsers ? "all users" : fmt::format("user {}", user), use.entries, limit.entries,
                 use.bytes, limit.bytes);
  }

  std::set<int64_t> said_;
};

class FileVault final : public Vault {
 public:
  FileVault(Database database, const Sealer &sealer, State state, const Limits &limits)
      : database_(std::move(database)),
        sealer_(sealer),
        state_(std::move(state)),
        last_version_(state_.header.last_version),
        limits_(limits) {
    look_around(limits_);
    worker_ = std::thread([this] { work(); });
  }

  ~FileVault() override {
    {
      const std::lock_guard lock(queue_mutex_);
      closing_ = true;
    }
    work_to_do_.notify_one();
    worker_.join();
  }

  std::optional<Entry> find(const EntryName &name) const override {
    RowPtr row;
    {
      const std::shared_lock lock(state_lock_);
      row = state_.table.find(name);
    }
    if (row == nullptr) return std::nullopt;
    return Entry{row->generation, row->secret, row->metadata};
  }

  bool exists(const EntryName &name) const override {
    const std::shared_lock lock(state_lock_);
    return state_.table.find(name) != nullptr;
  }

  std::optional<EntryName> at(uint16_t position) const override {
    const std::shared_lock lock(state_lock_);
    const EntryRow *row = state_.table.at(position);
    if (row == nullptr) return std::nullopt;
    return row->name;
  }

  size_t count() const override {
    const std::shared_lock lock(state_lock_);
    return state_.table.size();
  }

  KsResult put(const EntryName &name, const std::optional<EntryName> &alias, Bytes secret, Bytes metadata,
               uid_t owner) override {
    EntryRow asked;
    asked.owner = owner;
    asked.name = name;
    asked.alias = alias;
    asked.secret = SecretBytes::copy_of(secret);
    asked.metadata = std::make_shared<const std::vector<uint8_t>>(metadata.begin(), metadata.end());
    return commit([&asked](Group &group) { return decide_put(group, asked); });
  }

  KsResult set_metadata(const EntryName &name, Bytes metadata) override {
    const auto block = std::make_shared<const std::vector<uint8_t>>(metadata.begin(), metadata.end());
    return commit([&](Group &group) {
      const RowPtr before = group.find(name);
      if (before == nullptr) return KS_NOT_FOUND;
      EntryRow after = *before;
      after.metadata = block;
      return group.store(before, std::move(after));
    });
  }

  KsResult remove(const EntryName &name) override {
    return commit([&](Group &group) {
      const RowPtr before = group.find(name);
      if (before == nullptr) return KS_NOT_FOUND;
      group.remove(before);
      return KS_SUCCESS;
    });
  }

  KsResult rename(const EntryName &from, const EntryName &to) override {
    return commit([&](Group &group) { return decide_rename(group, from, to); });
  }

  void on_retired(std::function<void(uint64_t generation)> retired) override { retired_ = std::move(retired); }

  KsResult compact() override {
    std::future<KsResult> answer;
    {
      const std::lock_guard lock(queue_mutex_);
      answer = compactions_.emplace_back().get_future();
    }
    work_to_do_.notify_one();
    return answer.get();
  }

  Usage usage() const override {
    const Limits limits = current_limits();
    Usage usage;
    usage.entry_limit = limits.entries;
    usage.compaction_helps = compaction_helps_.load(std::memory_order_relaxed);
    const std::shared_lock lock(state_lock_);
    const Use &use = state_.ledger.all();
    usage.entries = use.entries;
    usage.over_90_percent = reaches(use, {limits.entries, limits.bytes}, 90);
    return usage;
  }

  void use_limits(const Limits &limits) override {
    const std::lock_guard lock(limits_mutex_);
    limits_ = limits;
  }

 private:
  static KsResult decide_put(Group &group, const EntryRow &asked) {
    const RowPtr before = group.find(asked.name);
    if (asked.alias) {
      const RowPtr holder = group.find(*asked.alias);
      if (holder != nullptr && holder != before) return KS_INVALID_ARGS;
    }
    EntryRow after = before == nullptr ? asked : *before;
    after.owner = asked.owner;
    after.secret = asked.secret;
    after.metadata = asked.metadata;
    if (asked.alias) after.alias = asked.alias;
    if (after.alias == after.name) after.alias = before == nullptr ? std::nullopt : before->alias;
    return group.store(before, std::move(after));
  }

  // decide_rename changes the name that the entry was called by, which may be its alias. Renamed to its other name, an
  // entry is left with that one alone.
  static KsResult decide_rename(Group &group, const EntryName &from, const EntryName &to) {
    const RowPtr before = group.find(from);
    if (before == nullptr) return KS_NOT_FOUND;
    if (from == to) return KS_SUCCESS;
    const RowPtr holder = group.find(to);
    if (holder != nullptr && holder != before) return KS_INVALID_ARGS;
    EntryRow after = *before;
    const bool called_by_alias = before->name != from;
    if (holder == before) after.alias.reset();
    if (called_by_alias && holder == nullptr) {
      after.alias = to;
    } else {
      after.name = to;
    }
    return group.store(before, std::move(after));
  }

  // commit waits until the change is on disk, and gives its result.
  KsResult commit(Decide decide) {
    Change change{std::move(decide), {}};
    std::future<KsResult> answer = change.answer.get_future();
    {
      const std::lock_guard lock(queue_mutex_);
      queue_.push_back(&change);
    }
    work_to_do_.notify_one();
    return answer.get();
  }

  // work is the thread of all writes: what came in while one group was on its way to the disk is the next group.
  void work() {
    for (;;) {
      std::vector<Change *> group;
      {
        std::unique_lock lock(queue_mutex_);
        work_to_do_.wait(lock, [&] { return closing_ || !queue_.empty() || !compactions_.empty(); });
        if (queue_.empty() && compactions_.empty()) return;
        while (!queue_.empty() && group.size() < kLargestGroup) {
          group.push_back(queue_.front());
          queue_.pop_front();
        }
      }
      if (!group.empty()) process(group);
      go_on_compacting();
    }
  }

  // process brings a group to disk and answers it. When that fails, each change is tried by itself: a large one that
  // doesn't fit must not fail others, and one that makes room must succeed.
  void process(std::span<Change *const> changes) {
    std::vector<KsResult> results;
    if (const std::optional<KsResult> failed = try_together(changes, results)) {
      if (changes.size() > 1) {
        for (Change *const &change : changes) process({&change, 1});
        return;
      }
      results.assign(1, *failed);
    }
    for (size_t i = 0; i < changes.size(); ++i) changes[i]->answer.set_value(results[i]);
  }

  std::optional<KsResult> try_together(std::span<Change *const> changes, std::vector<KsResult> &results) try {
    const Limits limits = current_limits();
    Group group(state_, limits, last_version_);
    for (Change *change : changes) results.push_back(change->decide(group));
    if (group.changes().empty()) return std::nullopt;
    const Header header = group.finished_header(sealer_);
    if (const std::optional<WriteFailure> failed = write(group.changes(), header)) {
      log_failure(*failed);
      overwrite_failed_write();
      return failed->code;
    }
    failing_ = false;
    show(group, header);
    look_around(limits);
    return std::nullopt;
  } catch (const std::bad_alloc &) {
    return KS_NO_MEMORY;  // thrown before anything was committed: what follows the commit doesn't throw
  }

  std::optional<WriteFailure> write(const RowChanges &changes, const Header &header) {
    return database_.transaction([&] {
      for (const auto &[id, change] : changes) {
        if (!(change.after ? put_row(*change.after) : database_.remove_entry(id))) return false;
      }
      return put_header(header);
    });
  }

  bool put_row(const EntryRow &row) {
    return database_.put_entry(row.id, sealer_.seal(RecordKind::kEntry, row.id, encode_entry(row)->bytes()));
  }

  bool put_header(const Header &header) {
    return database_.put_header(sealer_.seal(RecordKind::kHeader, 0, encode_header(header)));
  }

  // A commit whose last step failed may have left a whole transaction in the log, which a start after a crash would
  // take for a good one. Writing the present header again puts a good one in its place.
  void overwrite_failed_write() {
    database_.transaction([&] { return put_header(state_.header); });
  }

  // show lets readers see what is on disk now.
  void show(const Group &group, const Header &header) noexcept {
    {
      const std::unique_lock lock(state_lock_);
      begin_epoch();
      state_.table.apply(group.changes());
      state_.ledger = group.ledger();
    }
    state_.header = header;
    if (!retired_) return;
    for (const auto &[id, change] : group.changes()) {
      if (!change.before) continue;
      if (!change.after || change.after->generation != change.before->generation) retired_(change.before->generation);
    }
  }

  void look_around(const Limits &limits) noexcept {
    use_watch_.look_at(database_.path(), state_.ledger, limits);
    measure_room();
  }

  // go_on_compacting gives back some free pages and leaves the rest to the next time round, so that changes get their
  // turn in between.
  void go_on_compacting() {
    {
      const std::lock_guard lock(queue_mutex_);
      if (compactions_.empty()) return;
    }
    std::optional<WriteFailure> failed = database_.give_back(kPagesPerStep);
    if (!failed && database_.room().free_pages != 0) return;
    if (!failed) failed = database_.shorten();
    if (failed) log_failure(*failed);
    measure_room();
    std::vector<std::promise<KsResult>> done;
    {
      const std::lock_guard lock(queue_mutex_);
      done.swap(compactions_);
    }
    for (std::promise<KsResult> &answer : done) answer.set_value(failed ? failed->code : KS_SUCCESS);
  }

  void measure_room() {
    const Database::Room room = database_.room();
    compaction_helps_.store(room.free_pages >= kPagesWorthwhile && room.free_pages * 4 >= room.pages,
                            std::memory_order_relaxed);
  }

  // log_failure says it once per streak of failures: clients are told each time.
  void log_failure(const WriteFailure &failure) {
    if (failing_) return;
    failing_ = true;
    spdlog::error("{}: changes are refused: {}; reads go on. Make room on the disk or look after it", database_.path(),
                  failure.text);
  }

  Limits current_limits() const {
    const std::lock_guard lock(limits_mutex_);
    return limits_;
  }

  // Of the worker alone.
  Database database_;
  const Sealer sealer_;
  UseWatch use_watch_;
  bool failing_ = false;
  std::function<void(uint64_t)> retired_;

  // Written by the worker under the lock; it reads without.
  mutable ReadMostlyLock state_lock_;
  State state_;
  uint64_t last_version_;

  mutable std::mutex limits_mutex_;
  Limits limits_;
  std::atomic<bool> compaction_helps_{false};

  std::mutex queue_mutex_;
  std::condition_variable work_to_do_;
  std::deque<Change *> queue_;  // on the stacks of those who wait
  std::vector<std::promise<KsResult>> compactions_;
  bool closing_ = false;
  std::thread worker_;
};

VaultId draw_vault_id() {
  VaultId id;
  randombytes_buf(id.data(), id.size());
  return id;
}

void make_vault(const std::string &path, const MasterKey &master) {
  VaultIdentity identity{key_id_of(*master.key), draw_vault_id(), {}};
  const Sealer sealer(*master.key, identity.vault_id);
  identity.sealed_header = sealer.seal(RecordKind::kHeader, 0, encode_header(Header{}));
  Database::create(path, identity);
  spdlog::info("{}: made an empty vault under the master key of {}", path, master.path);
}

Header open_header(const std::string &path, const VaultIdentity &identity, const Sealer &sealer) {
  const std::shared_ptr<const SecretBytes> plain = sealer.open(RecordKind::kHeader, 0, identity.sealed_header);
  const std::optional<Header> header = plain ? decode_header(plain->bytes()) : std::nullopt;
  if (!header) refuse_damaged(path, "its header doesn't open");
  return *header;
}

// load reads all entries. The digest in the header tells whether they are the ones that belong together.
State load(Database &database, const Sealer &sealer, const Header &header) {
  State state;
  state.header = header;
  RowChanges rows;
  Header found{.last_id = header.last_id, .last_version = header.last_version, .entry_count = 0, .digest = {}};
  database.for_each_entry([&](uint64_t id, Bytes sealed) {
    const std::shared_ptr<const SecretBytes> plain = sealer.open(RecordKind::kEntry, id, sealed);
    const RowPtr row = plain ? decode_entry(id, plain->bytes()) : nullptr;
    if (row == nullptr) refuse_damaged(database.path(), fmt::format("entry {} doesn't open", id));
    found.add(sealer.mark(id, row->version));
    ++found.entry_count;
    state.ledger.replace(nullptr, row.get());
    rows.emplace_hint(rows.end(), id, RowChange{nullptr, row});
  });
  if (found.entry_count != header.entry_count || found.digest != header.digest) {
    refuse_damaged(database.path(), "its entries aren't those of its last change");
  }
  state.table.reserve(rows.size());
  state.table.apply(rows);
  return state;
}

// check_writable finds out at start, rather than at the first change, that nothing can be written. A full disk is no
// reason not to serve reads, and clearing entries needs a running service.
void check_writable(Database &database, const Sealer &sealer, const Header &header) {
  const std::optional<WriteFailure> failed = database.transaction(
      [&] { return database.put_header(sealer.seal(RecordKind::kHeader, 0, encode_header(header))); });
  if (!failed) return;
  if (failed->code != KS_STORE_FULL) {
    throw std::runtime_error(
        fmt::format("{}: the vault can't be written: {}; make the file, its folder and its disk writable",
                    database.path(), failed->text));
  }
  spdlog::error("{}: the disk of the vault is full: changes are refused, reads go on; make room on it",
                database.path());
}

}  // namespace

std::unique_ptr<Vault> open_vault(const VaultOptions &options) {
  if (sodium_init() < 0) throw std::runtime_error("libsodium doesn't start; the system generator may be missing");
  const std::string log = options.path + "-wal";
  const bool is_there = file_exists(options.path);
  if (!is_there && file_exists(log)) {
    throw std::runtime_error(
        fmt::format("{}: the vault is gone, but its log {} is there; put the vault back, or move the log away as well "
                    "to start with an empty one",
                    options.path, log));
  }
  const MasterKey master = read_master_key(options.master_key_file, !is_there);
  if (!is_there) make_vault(options.path, master);

  Database database(options.path);
  const VaultIdentity identity = database.identity();
  if (identity.key_id != key_id_of(*master.key)) {
    throw std::runtime_error(
        fmt::format("{}: the vault belongs to another master key than the one in {}; give the service the key that the "
                    "vault was made with",
                    options.path, master.path));
  }
  const Sealer sealer(*master.key, identity.vault_id);
  const Header header = open_header(options.path, identity, sealer);
  State state = load(database, sealer, header);
  check_writable(database, sealer, header);
  if (!guarded_memory_use().all_locked) {
    spdlog::warn("{}: secrets in memory can't all be locked against swapping; raise LimitMEMLOCK", options.path);
  }
  spdlog::info("{}: {} entries", options.path, state.table.size());
  return std::make_unique<FileVault>(std::move(database), sealer, std::move(state), options.limits);
}

}  // namespace ksd::vault
