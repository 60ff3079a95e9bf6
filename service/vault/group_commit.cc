#include "vault/group_commit.h"

#include <spdlog/spdlog.h>

#include <new>

namespace ksd::vault {
namespace {

constexpr size_t kLargestGroup = 256;     // changes in one commit
constexpr int kPagesPerStep = 256;        // given back between two groups: 1 MiB, some milliseconds
constexpr int64_t kPagesWorthwhile = 64;  // free ones, below which compaction is said to be of no help

}  // namespace

GroupCommit::GroupCommit(Database database, const Sealer &sealer, const State &state, const Limits &limits, Show show)
    : database_(std::move(database)),
      sealer_(sealer),
      state_(state),
      show_(std::move(show)),
      last_version_(state.header.last_version),
      limits_(limits) {
  look_around(limits_);
  worker_ = std::thread([this] { work(); });
}

GroupCommit::~GroupCommit() {
  {
    const std::lock_guard lock(queue_mutex_);
    closing_ = true;
  }
  work_to_do_.notify_one();
  worker_.join();
}

KsResult GroupCommit::commit(Decide decide) {
  Change change{std::move(decide), {}};
  std::future<KsResult> answer = change.answer.get_future();
  {
    const std::lock_guard lock(queue_mutex_);
    queue_.push_back(&change);
  }
  work_to_do_.notify_one();
  return answer.get();
}

KsResult GroupCommit::compact() {
  std::future<KsResult> answer;
  {
    const std::lock_guard lock(queue_mutex_);
    answer = compactions_.emplace_back().get_future();
  }
  work_to_do_.notify_one();
  return answer.get();
}

Limits GroupCommit::current_limits() const {
  const std::lock_guard lock(limits_mutex_);
  return limits_;
}

void GroupCommit::use_limits(const Limits &limits) {
  const std::lock_guard lock(limits_mutex_);
  limits_ = limits;
}

void GroupCommit::work() {
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
void GroupCommit::process(std::span<Change *const> changes) {
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

std::optional<KsResult> GroupCommit::try_together(std::span<Change *const> changes,
                                                  std::vector<KsResult> &results) try {
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
  show_(group, header);
  look_around(limits);
  return std::nullopt;
} catch (const std::bad_alloc &) {
  return KS_NO_MEMORY;  // thrown before anything was committed: what follows the commit doesn't throw
}

std::optional<WriteFailure> GroupCommit::write(const RowChanges &changes, const Header &header) {
  return database_.transaction([&] {
    for (const auto &[id, change] : changes) {
      if (!(change.after ? put_row(*change.after) : database_.remove_entry(id))) return false;
    }
    return put_header(header);
  });
}

bool GroupCommit::put_row(const EntryRow &row) {
  return database_.put_entry(row.id, sealer_.seal(RecordKind::kEntry, row.id, encode_entry(row)->bytes()));
}

bool GroupCommit::put_header(const Header &header) {
  return database_.put_header(sealer_.seal(RecordKind::kHeader, 0, encode_header(header)));
}

// A commit whose last step failed may have left a whole transaction in the log, which a start after a crash would
// take for a good one. Writing the present header again puts a good one in its place.
void GroupCommit::overwrite_failed_write() {
  database_.transaction([&] { return put_header(state_.header); });
}

void GroupCommit::look_around(const Limits &limits) noexcept {
  use_watch_.look_at(database_.path(), state_.ledger, limits);
  measure_room();
}

// go_on_compacting gives back some free pages and leaves the rest to the next time round, so that changes get their
// turn in between.
void GroupCommit::go_on_compacting() {
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

void GroupCommit::measure_room() {
  const Database::Room room = database_.room();
  compaction_helps_.store(room.free_pages >= kPagesWorthwhile && room.free_pages * 4 >= room.pages,
                          std::memory_order_relaxed);
}

// log_failure says it once per streak of failures: clients are told each time.
void GroupCommit::log_failure(const WriteFailure &failure) {
  if (failing_) return;
  failing_ = true;
  spdlog::error("{}: changes are refused: {}; reads go on. Make room on the disk or look after it", database_.path(),
                failure.text);
}

}  // namespace ksd::vault
