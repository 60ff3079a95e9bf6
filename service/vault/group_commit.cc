// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/group_commit.h"

#include <new>

#include "base/log.h"

namespace ksd::vault {
namespace {

constexpr size_t kLargestGroup = 256;  // changes in one commit
constexpr size_t kRowsAtOnce = 256;    // sealed anew in one commit, while changes wait
constexpr size_t kBytesAtOnce = 1 << 18;
constexpr int64_t kPagesWorthwhile = 64;  // free ones, below which compaction is said to be of no help

}  // namespace

GroupCommit::GroupCommit(Writer writer, const State &state, const Limits &limits, Audience &audience, MasterKey master)
    : writer_(std::move(writer)),
      vault_id_(writer_.keys().present().vault_id()),
      state_(state),
      audience_(audience),
      last_version_(state.header.last_version),
      master_(std::move(master)),
      key_change_runs_(writer_.keys().changing()),
      limits_(limits) {
  group_.reserve(kLargestGroup);
  results_.reserve(kLargestGroup);
  look_around(limits_);
  tell_condition(writer_.has_begun() ? "" : "the disk is full");
  if (key_change_runs_) {
    tell_progress(KeyChangeProgress::State::kMoving);
    spdlog::info("{}: the change of the master key goes on", writer_.path());
  }
  worker_ = std::thread([this] { work(); });
}

GroupCommit::~GroupCommit() {
  {
    const std::lock_guard lock(queue_mutex_);
    closing_ = true;
  }
  work_to_do_.notify_one();
  worker_.join();
  writer_.end(state_.header);
}

KsResult GroupCommit::commit(Decide decide) {
  Change change{.decide = std::move(decide)};
  std::future<void> answered;
  bool is_writer = false;
  {
    const std::lock_guard lock(queue_mutex_);
    is_writer = !is_writing_ && is_idle();
    if (is_writer) {
      is_writing_ = true;
    } else {
      answered = change.waited_for.emplace().get_future();
      queue_.push_back(&change);
    }
  }
  if (is_writer) {
    write_alone(change);
  } else {
    work_to_do_.notify_one();
    answered.get();
  }
  return change.result;
}

// is_idle tells whether there is nothing to do for the worker. Under the queue's lock.
bool GroupCommit::is_idle() const {
  return !closing_ && !key_change_runs_ && !untidy_ && queue_.empty() && compactions_.empty() && errands_.empty();
}

// write_alone is what a writer does that isn't the worker.
void GroupCommit::write_alone(Change &change) {
  Change *const alone = &change;
  process({&alone, 1});
  tell_condition(nullptr);
  bool is_idle_again = false;
  {
    const std::lock_guard lock(queue_mutex_);
    untidy_ = writer_.is_untidy();
    is_writing_ = false;
    is_idle_again = is_idle();
  }
  if (!is_idle_again) work_to_do_.notify_one();
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

void GroupCommit::between_groups(const std::function<void()> &errand) {
  Errand asked{errand, {}};
  std::future<void> done = asked.done.get_future();
  {
    const std::lock_guard lock(queue_mutex_);
    errands_.push_back(&asked);
  }
  work_to_do_.notify_one();
  done.get();
}

KsResult GroupCommit::write_back(uint64_t &pages) {
  KsResult result = KS_SUCCESS;
  between_groups([&] {
    const std::optional<WriteFailure> failed = writer_.write_log_back(pages);
    if (!failed) return;
    tell(event::kLogNotWrittenBack, "{}: its log can't be written back: {}", writer_.path(), failed->text);
    if (writer_.is_broken()) log_failure(*failed);
    result = failed->code;
  });
  return result;
}

Condition GroupCommit::condition() const {
  const std::lock_guard lock(condition_mutex_);
  return condition_;
}

KsResult GroupCommit::change_key(std::shared_ptr<const SecretBytes> next) {
  KsResult result = KS_FAILURE;
  between_groups([&] { result = begin_key_change(next); });
  return result;
}

KeyChangeProgress GroupCommit::key_change() const {
  const std::lock_guard lock(progress_mutex_);
  return progress_;
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
  std::unique_lock lock(queue_mutex_);
  for (;;) {
    work_to_do_.wait(lock, [&] { return !is_writing_ && !is_idle(); });
    if (queue_.empty() && compactions_.empty() && errands_.empty() && closing_) return;
    take_group();
    const bool tidies_up = untidy_ || !group_.empty();
    untidy_ = false;
    is_writing_ = true;
    lock.unlock();
    if (!group_.empty()) process(group_);
    if (tidies_up) {
      writer_.tidy_up();
      tell_condition(nullptr);
    }
    do_errands();
    go_on_compacting();
    go_on_changing_key();
    lock.lock();
    is_writing_ = false;
  }
}

void GroupCommit::do_errands() noexcept {
  for (;;) {
    Errand *errand = nullptr;
    {
      const std::lock_guard lock(queue_mutex_);
      if (errands_.empty()) return;
      errand = errands_.front();
      errands_.pop_front();
    }
    try {
      errand->what();
      errand->done.set_value();
    } catch (...) {
      errand->done.set_exception(std::current_exception());
    }
  }
}

void GroupCommit::take_group() {
  group_.clear();
  while (!queue_.empty() && group_.size() < kLargestGroup) {
    group_.push_back(queue_.front());
    queue_.pop_front();
  }
}

// process brings a group to disk and answers it. When that fails, each change is tried by itself: a large one that
// doesn't fit must not fail others, and one that makes room must succeed.
void GroupCommit::process(std::span<Change *const> changes) noexcept {
  const std::optional<KsResult> failed = try_together(changes);
  if (failed && changes.size() > 1) {
    for (Change *const &change : changes) process({&change, 1});
    return;
  }
  for (size_t i = 0; i < changes.size(); ++i) changes[i]->answer(failed ? *failed : results_[i]);
}

// Memory is had before the disk is touched: with the commit, the group has happened, and what follows can't fail.
std::optional<KsResult> GroupCommit::try_together(std::span<Change *const> changes) noexcept try {
  const Limits limits = current_limits();
  Group group(state_, limits, last_version_);
  results_.clear();
  for (Change *change : changes) {
    results_.push_back(change->decide(group));
    if (results_.back() == KS_STORE_FULL) log_refusal(group);
  }
  if (group.changes().empty()) return std::nullopt;
  const Sealer &sealer = writer_.keys().of_table();
  const Header header = group.finished_header([&](const EntryRow &row) { return sealer.mark(row.id, row.version); });
  audience_.prepare(group);
  if (const std::optional<WriteFailure> failed = writer_.write(group.changes(), header, state_.header)) {
    audience_.discard();
    log_failure(*failed);
    return failed->code;
  }
  failing_ = false;
  tell_condition("");
  audience_.show(group, header);
  look_around(limits);
  return std::nullopt;
} catch (const std::bad_alloc &) {
  audience_.discard();
  return KS_NO_MEMORY;  // thrown before anything was committed
}

void GroupCommit::look_around(const Limits &limits) noexcept {
  try {
    use_watch_.look_at(writer_.path(), state_.ledger, limits);
  } catch (const std::bad_alloc &) {  // it looks again after the next change
  }
  measure_room();
}

// go_on_compacting gives back some free pages and leaves the rest to the next time round, so that changes get their
// turn in between.
void GroupCommit::go_on_compacting() noexcept {
  {
    const std::lock_guard lock(queue_mutex_);
    if (compactions_.empty()) return;
  }
  bool done = true;
  KsResult result = KS_SUCCESS;
  try {
    if (const std::optional<WriteFailure> failed = writer_.give_back(done)) {
      log_failure(*failed);
      result = failed->code;
    }
  } catch (const std::bad_alloc &) {
    result = KS_NO_MEMORY;
  }
  if (!done && result == KS_SUCCESS) return;
  measure_room();
  std::vector<std::promise<KsResult>> answers;
  {
    const std::lock_guard lock(queue_mutex_);
    answers.swap(compactions_);
  }
  for (std::promise<KsResult> &answer : answers) answer.set_value(result);
}

KsResult GroupCommit::begin_key_change(std::shared_ptr<const SecretBytes> next) {
  if (!writer_.keys().changing()) {
    if (master_.is_credential != (next != nullptr)) return KS_INVALID_ARGS;
    try {
      if (next == nullptr) {
        next = draw_master_key();
        prepare_key_file(master_, *next);
      }
      if (const std::optional<WriteFailure> failed = writer_.begin_key_change(next, state_.header)) {
        tell(event::kKeyNotChanged, "{}: the master key isn't changed: {}", writer_.path(), failed->text);
        drop_prepared_key(master_);
        return failed->code;
      }
    } catch (const std::runtime_error &error) {
      tell(event::kKeyNotChanged, "{}; the master key isn't changed", error.what());
      return KS_FW_BAD_CELL;
    }
    spdlog::info("{}: the change of the master key begins", writer_.path());
  } else if (next != nullptr && key_id_of(*next) != key_id_of(*writer_.keys().next_key())) {
    return KS_INVALID_ARGS;  // another one than that under way
  }
  key_change_runs_ = true;
  tell_progress(KeyChangeProgress::State::kMoving);
  return KS_SUCCESS;
}

// go_on_changing_key does one step, so that changes get their turn in between.
void GroupCommit::go_on_changing_key() noexcept {
  if (!key_change_runs_) return;
  try {
    const std::optional<WriteFailure> failed = change_key_further();
    writer_.tidy_up();
    if (failed) stop_changing_key(failed->text.c_str());
  } catch (const std::exception &error) {
    stop_changing_key(error.what());
  }
}

void GroupCommit::stop_changing_key(const char *why) noexcept {
  key_change_runs_ = false;
  tell_progress(KeyChangeProgress::State::kStopped);
  try {
    tell(event::kKeyNotChanged,
         "{}: the change of the master key stopped: {}; what has moved stays, ask for it again to go on",
         writer_.path(), why);
  } catch (...) {  // no memory for a line
  }
}

std::optional<WriteFailure> GroupCommit::change_key_further() {
  using Stage = KeyChangeProgress::State;
  if (!writer_.keys().all_moved()) {
    if (std::optional<WriteFailure> failed = move_some_rows()) return failed;
    tell_progress(Stage::kMoving);
    return std::nullopt;
  }
  const std::shared_ptr<const SecretBytes> next = writer_.keys().next_key();
  if (std::optional<WriteFailure> failed = writer_.renew_witness(state_.header.last_version)) return failed;
  const bool is_in_place = key_id_of(*next) == key_id_of(*master_.key);
  if (!is_in_place && master_.is_credential) {
    key_change_runs_ = false;
    tell_progress(Stage::kWaiting);
    spdlog::info("{}: all has moved to the next master key; start the service with it", writer_.path());
    return std::nullopt;
  }
  if (!is_in_place) replace_key_file(master_, *next);
  master_.key = next;
  if (std::optional<WriteFailure> failed = writer_.end_key_change(state_.header)) return failed;
  key_change_runs_ = false;
  tell_progress(Stage::kNone);
  spdlog::info("{}: the vault has another master key now, in {}", writer_.path(), master_.path);
  return std::nullopt;
}

std::optional<WriteFailure> GroupCommit::move_some_rows() {
  const Table &table = state_.table;
  const size_t begin = table.behind(writer_.keys().moved());
  std::vector<const EntryRow *> rows;
  size_t bytes = 0;
  for (size_t i = begin; i < table.size() && rows.size() < kRowsAtOnce && bytes < kBytesAtOnce; ++i) {
    rows.push_back(table.at(i));
    bytes += rows.back()->bytes();
  }
  std::optional<Header> last;
  if (begin + rows.size() == table.size()) {
    last = state_.header;
    last->digest = {};
    for (size_t i = 0; i < table.size(); ++i) {
      last->add(writer_.keys().next().mark(table.at(i)->id, table.at(i)->version));
    }
  }
  std::optional<WriteFailure> failed = writer_.move_rows(rows, last, state_.header);
  if (!failed && last) audience_.use_header(*last);
  return failed;
}

void GroupCommit::tell_progress(KeyChangeProgress::State state) noexcept {
  const size_t moved = state == KeyChangeProgress::State::kNone ? 0 : state_.table.behind(writer_.keys().moved());
  const std::lock_guard lock(progress_mutex_);
  progress_ = {.state = state, .moved = moved, .entries = state_.table.size()};
}

void GroupCommit::measure_room() noexcept {
  const Database::Room room = writer_.room();
  compaction_helps_.store(room.free_pages >= kPagesWorthwhile && room.free_pages * 4 >= room.pages,
                          std::memory_order_relaxed);
}

// Each user's at most once a minute: clients are told each time.
void GroupCommit::log_refusal(const Group &group) noexcept {
  if (!group.refused()) return;
  const auto &[user, why] = *group.refused();
  log_limiter_.warn(
      LogLimiter::Kind::kStoreRefused, user,
      "{}: a store of user {} is refused: {} of {} are in use ({} under [limits]); clear some or raise it",
      writer_.path(), user, why.used, why.limit, why.limit_name);
}

// log_failure says it once per streak of failures: clients are told each time.
void GroupCommit::log_failure(const WriteFailure &failure) noexcept {
  tell_condition(failure.text.empty() ? "there is no memory" : failure.text.c_str());
  if (failing_) return;
  failing_ = true;
  try {
    const bool lasts = failure.code == KS_FW_BAD_CELL;
    tell(event::kChangesRefused, "{}: changes are refused: {}; reads go on. {}", writer_.path(), failure.text,
         lasts ? "Look after the disk, then restart the service: until then nothing is written"
               : "Make room on the disk or look after it");
  } catch (...) {  // no memory for a line
    failing_ = false;
  }
}

// tell_condition says how the vault is, and why it takes no changes; null: as before.
void GroupCommit::tell_condition(const char *refusal) noexcept {
  const std::lock_guard lock(condition_mutex_);
  condition_.until_restart = writer_.is_broken();
  condition_.reserve_kept = writer_.reserve_is_kept();
  try {
    if (refusal != nullptr) condition_.refusal = refusal;
    // What no answer waited for may have failed, too.
    if (writer_.is_broken() && condition_.refusal.empty()) condition_.refusal = writer_.why_broken();
  } catch (const std::bad_alloc &) {  // what it was before, then
  }
}

}  // namespace ksd::vault
