// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "fleet/shared_vault.h"

#include <fmt/format.h>
#include <malloc.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <set>
#include <shared_mutex>
#include <stdexcept>

#include "base/log.h"
#include "base/refuse.h"
#include "fleet/belonging.h"
#include "fleet/clock.h"

namespace ksd::fleet {
namespace {

using namespace std::chrono_literals;

constexpr auto kAcceptLimit = 20s;

CoreOptions core_options(const SharedOptions &options, const Mirror *mirror) {
  // A mirror is sealed under the next key before that takes the place of the other.
  const bool is_past = mirror != nullptr && mirror->master_key() == options.next_key;
  uint64_t session = 0;
  randombytes_buf(&session, sizeof session);
  CoreOptions core{.machine = options.machine,
                   .session = session,
                   .master_key = is_past ? options.next_key : options.master_key,
                   .next_key = is_past ? nullptr : options.next_key,
                   .machine_key = options.machine_key,
                   .keeper = options.keeper.get(),
                   .fleet = mirror != nullptr && mirror->fleet() ? mirror->fleet() : options.fleet,
                   .make = std::nullopt,
                   .accepted_incarnation = options.accepted_incarnation,
                   .limits = options.limits,
                   .write_wait = options.write_wait,
                   .max_age = options.max_age};
  // Never again where there was one: the store was emptied, or is another one.
  if (options.create && !core.fleet) randombytes_buf(core.make.emplace().data(), sizeof(FleetId));
  return core;
}

// Connection is how the way to the store is: whether there is an engine, and what keeps it from the store, if known.
struct Connection {
  bool has_engine = true;
  std::string trouble = {};
};

std::string words_for(const Connection &connection) {
  const std::string why = connection.trouble.empty() ? "" : fmt::format(" ({})", connection.trouble);
  if (!connection.has_engine) {
    return fmt::format(
        "there is no engine to reach the store with{}: changes are refused; ksctl doctor tells what to do", why);
  }
  return fmt::format("the store doesn't answer{}: changes are refused; look after the network and the store's members",
                     why);
}

// words_for says what a standing means, to who looks after the machine.
std::string words_for(Standing standing, const std::string &why, const Connection &connection, bool belongs) {
  switch (standing) {
    case Standing::kGood:
      return "";
    case Standing::kLoading:
      return "the entries of the fleet haven't been loaded yet";
    case Standing::kNoFleet:
      if (belongs) {
        return "the store is empty, but this machine belongs to a fleet: bring the store back, or restore a backup by "
               "`ksctl fleet restore`";
      }
      return "the store is empty; make the fleet on one machine, by create = true under [shared]";
    case Standing::kNoContact:
      return words_for(connection);
    case Standing::kNoSpace:
      return "the store's quota is used up: changes are refused; make room in it";
    case Standing::kDenied:
      return "the store takes no changes of this machine; look after its rights there";
    case Standing::kTooManyMachines:
      return "as many machines as the fleet can have made changes before this one; take one out";
    case Standing::kTampered:
      return fmt::format(
          "the store isn't as the fleet left it: {}. No changes are taken, and no reads once they are too old; find "
          "out who changed it, bring it back and restart the service, or use `ksctl fleet restore`",
          why);
    case Standing::kRestored:
      return fmt::format(
          "the fleet was restored from a backup: nothing is changed, and reads end when they are too old; if that was "
          "meant, `ksctl fleet accept {}` has this machine follow",
          why);
    case Standing::kNamesake:
      return fmt::format("{}: give each its own under [shared], and restart the service", why);
    case Standing::kOtherKey:
      return "the fleet has another master key; join it, or name the right one";
    case Standing::kKeyNotKept:
      return fmt::format("the fleet's next master key waits for this machine, which can't take it: {}", why);
    case Standing::kOut:
      return fmt::format(
          "this machine isn't one of the fleet any more: {}. Nothing of the fleet is served; take [shared] out of the "
          "configuration, and remove mirror and master key",
          why);
    case Standing::kOtherFleet:
      return "the store holds another fleet than the one that this machine belongs to; look after prefix and endpoints";
  }
  return "";
}

}  // namespace

SharedVault::SharedVault(SharedOptions options, std::unique_ptr<Engine> engine)
    : options_(std::move(options)),
      owners_(options_.owners),
      engine_(std::move(engine)),
      mirror_(options_.mirror.empty()
                  ? nullptr
                  : std::make_unique<Mirror>(options_.mirror, options_.master_key, options_.next_key, options_.fleet)),
      core_(core_options(options_, mirror_.get()), owners_, *this),
      key_in_place_(options_.master_key),
      limits_(options_.limits),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!wake_) refuse("there are no descriptors left for a store that is shared; raise the limit");
  begin();
  worker_ = std::thread([this] { work(); });
}

SharedVault::~SharedVault() {
  {
    const std::lock_guard lock(inbox_mutex_);
    closing_ = true;
  }
  wake();
  worker_.join();
  mirror_.reset();  // it reads memory until then
}

void SharedVault::begin() {
  std::optional<Core::Kept> kept = mirror_ ? mirror_->load(core_.memory()) : std::nullopt;
  if (kept) {
    spdlog::info("{}: {} entries as of change {} of the fleet, {} s old", options_.mirror,
                 kept->whole.state.table.size(), kept->whole.header.header.version, kept->age / 1s);
  }
  core_.begin(clock_now(), std::move(kept));
  flush();
}

// ---- Reads ----

void SharedVault::require_young() const {
  if (clock_now().count() >= readable_until_.load(std::memory_order_relaxed)) {
    throw vault::Unavailable(KS_FW_COMM_ERROR);
  }
}

std::optional<vault::Entry> SharedVault::find(const EntryName &name) const {
  require_young();
  vault::RowPtr row;
  {
    const std::shared_lock lock(state_lock_);
    row = core_.memory().state().table.find(name);
  }
  if (row == nullptr) return std::nullopt;
  return vault::Entry{row->generation, row->secret, row->metadata};
}

bool SharedVault::exists(const EntryName &name) const {
  require_young();
  const std::shared_lock lock(state_lock_);
  return core_.memory().state().table.find(name) != nullptr;
}

std::optional<EntryName> SharedVault::at(uint16_t position) const {
  require_young();
  const std::shared_lock lock(state_lock_);
  const vault::EntryRow *row = core_.memory().state().table.at(position);
  if (row == nullptr) return std::nullopt;
  return row->name;
}

size_t SharedVault::count() const {
  require_young();
  const std::shared_lock lock(state_lock_);
  return core_.memory().state().table.size();
}

vault::Store::Usage SharedVault::usage() const {
  const vault::Limits limits = current_limits();
  Usage usage;
  usage.entry_limit = limits.entries;
  usage.byte_limit = limits.bytes;
  const std::shared_lock lock(state_lock_);
  const vault::Use &use = core_.memory().state().ledger.all();
  usage.entries = use.entries;
  usage.bytes = use.bytes;
  usage.over_90_percent = vault::reaches(use, {limits.entries, limits.bytes}, 90);
  return usage;
}

std::vector<vault::Owner> SharedVault::owners(uid_t from, size_t most) const {
  const std::shared_lock lock(state_lock_);
  return core_.memory().state().ledger.owners(from, most);
}

vault::Snapshot SharedVault::snapshot() {
  require_young();
  const std::shared_lock lock(state_lock_);
  const Memory &memory = core_.memory();
  return {.vault_id = *memory.fleet(),
          .header = memory.state().header,
          .rows = memory.state().table.rows(),
          .owners = owners_.all()};
}

// ---- Changes ----

KsResult SharedVault::put(const EntryName &name, const std::optional<EntryName> &alias, Bytes secret, Bytes metadata,
                          uid_t owner) {
  return change(vault::decide_put(name, alias, secret, metadata, owners_.of_user(owner)));
}

KsResult SharedVault::set_metadata(const EntryName &name, Bytes metadata) {
  return change(vault::decide_metadata(name, metadata));
}

KsResult SharedVault::remove(const EntryName &name) {
  return change(vault::decide_remove(name));
}

KsResult SharedVault::rename(const EntryName &from, const EntryName &to) {
  return change(vault::decide_rename(from, to));
}

Told SharedVault::ask(std::function<bool(Ticket ticket)> begin) {
  Asked asked{.begin = std::move(begin), .answer = {}};
  ask({&asked, 1});
  return asked.answer.get_future().get();
}

SharedVault::Asked SharedVault::asked_of(vault::Decide decide) {
  return {.begin =
              [this, decide = std::move(decide)](Ticket ticket) {
                core_.change(clock_now(), ticket, decide);
                return true;
              },
          .answer = {}};
}

KsResult SharedVault::change(vault::Decide decide) {
  Asked asked = asked_of(std::move(decide));
  ask({&asked, 1});
  return asked.answer.get_future().get().result;
}

void SharedVault::ask(std::span<Asked> asked) {
  {
    const std::lock_guard lock(inbox_mutex_);
    inbox_.reserve(inbox_.size() + asked.size());  // all of them or none
    for (Asked &one : asked) inbox_.push_back(&one);
  }
  wake();
}

std::vector<vault::RowPtr> SharedVault::of_fleet(const std::vector<vault::RowPtr> &rows, size_t &unnamed) {
  std::vector<vault::RowPtr> ours;
  std::set<uid_t> without_name;
  ours.reserve(rows.size());
  for (const vault::RowPtr &row : rows) {
    auto copy = std::make_shared<vault::EntryRow>(*row);
    if (!owners_.is_named(row->owner)) without_name.insert(row->owner);
    copy->owner = owners_.of_user(row->owner);
    ours.push_back(std::move(copy));
  }
  unnamed = without_name.size();
  return ours;
}

ImportPlan SharedVault::plan_import(const std::vector<vault::RowPtr> &rows, vault::Taken taken) const {
  require_young();
  vault::State state;
  {
    const std::shared_lock lock(state_lock_);
    state = core_.memory().state();
  }
  return fleet::plan_import(state, current_limits(), rows, taken);
}

KsResult SharedVault::import(std::span<const vault::RowPtr> rows, vault::Taken taken, ImportCounts &counts) {
  std::vector<vault::Import> became(rows.size());
  std::vector<Asked> asked;
  for (size_t i = 0; i < rows.size(); ++i) asked.push_back(asked_of(vault::decide_import(rows[i], taken, became[i])));
  ask(asked);
  KsResult first_failure = KS_SUCCESS;
  for (size_t i = 0; i < rows.size(); ++i) {
    const KsResult result = asked[i].answer.get_future().get().result;
    if (result == KS_SUCCESS) counts.count(became[i]);
    if (first_failure == KS_SUCCESS) first_failure = result;
  }
  return first_failure;
}

// ---- Machines and keys ----

Told SharedVault::leave(const std::string &machine, bool even_if_alive) {
  return ask([&](Ticket ticket) {
    core_.leave(clock_now(), ticket, machine, even_if_alive);
    return true;
  });
}

Told SharedVault::begin_key_change(const Fingerprint &compared) {
  return ask([&](Ticket ticket) {
    core_.change_key(clock_now(), ticket, compared);
    return true;
  });
}

// look has the thread look at what it alone may. Throws std::bad_alloc.
void SharedVault::look(std::function<void()> look) {
  const Told told = ask([look = std::move(look)](Ticket) {
    look();
    return false;
  });
  if (told.result != KS_SUCCESS) throw std::bad_alloc();
}

std::vector<MachineSeen> SharedVault::machines() {
  std::vector<MachineSeen> machines;
  look([&] { machines = core_.machines(clock_now()); });
  return machines;
}

KeyChangeSeen SharedVault::fleet_key_change() {
  KeyChangeSeen seen;
  look([&] { seen = core_.key_change(); });
  return seen;
}

// put_key_in_place has the fleet's master key be the one of the next start, once nothing on this machine needs the one
// before.
void SharedVault::put_key_in_place() {
  constexpr auto kPause = 10s;
  const KeyPtr &key = core_.memory().master_key();
  if (key == key_in_place_ || options_.keeper == nullptr) return;
  if (mirror_ && mirror_->master_key() != key) return;
  if (key_tried_ != Time{} && clock_now() - key_tried_ < kPause) return;
  const std::string why = options_.keeper->use(*key);
  if (why.empty()) {
    key_in_place_ = key;
    spdlog::info("{}: this machine has the fleet's master key of now", path_);
  } else if (key_tried_ == Time{}) {
    tell(event::kKeyNotChanged, "{}; until then, the next master key has to stay beside the one before", why);
  }
  key_tried_ = why.empty() ? Time{} : clock_now();
}

vault::Limits SharedVault::current_limits() const {
  const std::lock_guard lock(status_mutex_);
  return limits_;
}

void SharedVault::on_retired(std::function<void(uint64_t generation)> retired) {
  const std::lock_guard lock(retired_mutex_);
  retired_ = std::move(retired);
}

void SharedVault::use_limits(const vault::Limits &limits) {
  {
    const std::lock_guard lock(status_mutex_);
    limits_ = limits;
  }
  {
    const std::lock_guard lock(inbox_mutex_);
    new_limits_ = limits;
  }
  wake();
}

KsResult SharedVault::accept_incarnation(uint64_t incarnation) {
  const auto is_waited_for = [](const SharedStatus &status) {
    return status.standing == Standing::kRestored || status.standing == Standing::kTampered;
  };
  SharedStatus now = status();
  if (!is_waited_for(now)) return KS_NOT_FOUND;
  if (now.standing == Standing::kRestored && now.restored_to != incarnation) return KS_INVALID_ARGS;
  const uint64_t loads = now.counts.loads;
  {
    const std::lock_guard lock(inbox_mutex_);
    accepted_incarnation_ = incarnation;
  }
  wake();
  for (const Time end = clock_now() + kAcceptLimit; clock_now() < end; poll(nullptr, 0, 5)) {
    now = status();
    const bool is_written = !mirror_ || mirror_->incarnation_written() >= incarnation;
    if (now.incarnation == incarnation && now.standing == Standing::kGood && is_written) return KS_SUCCESS;
    if (now.counts.loads != loads && is_waited_for(now)) return KS_INVALID_ARGS;
  }
  return KS_TIMEOUT;
}

KsResult SharedVault::begin_restore(Restore::Wanted wanted) {
  const Standing standing = status().standing;
  if (standing == Standing::kNamesake || standing == Standing::kOtherKey || standing == Standing::kOtherFleet) {
    return KS_INVALID_ARGS;
  }
  {
    const std::lock_guard lock(status_mutex_);
    restore_progress_ = {};
    restore_progress_.folder = wanted.folder;
    restore_progress_.all = wanted.rows.size();
  }
  {
    const std::lock_guard lock(inbox_mutex_);
    wanted_restore_ = std::move(wanted);
    restore_given_up_ = false;
  }
  wake();
  return KS_SUCCESS;
}

Restore::Progress SharedVault::wait_for_restore() {
  constexpr auto kAWhile = 100ms;
  std::unique_lock lock(status_mutex_);
  const uint64_t done = restore_progress_.done;
  const Restore::Progress::State state = restore_progress_.state;
  const bool is_over = state == Restore::Progress::State::kDone || state == Restore::Progress::State::kStopped;
  restore_goes_on_.wait_for(
      lock, kAWhile, [&] { return is_over || restore_progress_.done != done || restore_progress_.state != state; });
  return restore_progress_;
}

void SharedVault::give_up_restore() {
  {
    const std::lock_guard lock(inbox_mutex_);
    restore_given_up_ = true;
    wanted_restore_.reset();
  }
  wake();
}

KsResult SharedVault::write_back(uint64_t &pages) {
  pages = 0;
  return KS_SUCCESS;
}

// ---- Status ----

SharedStatus SharedVault::status() const {
  const std::lock_guard lock(status_mutex_);
  SharedStatus status = status_;
  if (as_of_) status.age = std::chrono::duration_cast<std::chrono::milliseconds>(clock_now() - *as_of_);
  return status;
}

vault::Condition SharedVault::condition() const {
  const std::lock_guard lock(status_mutex_);
  return {.refusal = status_.words, .until_restart = lasts(status_.standing), .reserve_kept = true};
}

bool SharedVault::wait_until_loaded(std::chrono::milliseconds at_most) const {
  std::unique_lock lock(status_mutex_);
  return loaded_.wait_for(lock, at_most, [this] { return status_.readable; });
}

// ---- The thread ----

void SharedVault::lock() {
  state_lock_.lock();
  begin_epoch();
}

void SharedVault::shown(const std::vector<uint64_t> &gone, const vault::RowChanges *changes) {
  {
    const std::lock_guard lock(retired_mutex_);
    if (retired_) {
      for (const uint64_t generation : gone) retired_(generation);
    }
  }
  try {
    if (mirror_) mirror_->follow(core_.memory(), changes);
    use_watch_.look_at(path_, core_.memory().state().ledger, current_limits());
  } catch (const std::bad_alloc &) {  // the next change does it
  }
}

void SharedVault::wake() const {
  const uint64_t one = 1;
  // It can't fail but for a counter that is full, and then the thread is awake anyhow.
  [[maybe_unused]] const ssize_t written = write(wake_.get(), &one, sizeof one);
}

void SharedVault::work() noexcept {
  for (;;) {
    try {
      if (!step()) return;
    } catch (const std::bad_alloc &) {
      break_off(KS_NO_MEMORY);
      spdlog::warn("{}: there is no memory to follow the fleet; it is tried again", path_);
    } catch (const std::exception &error) {
      break_off(KS_FAILURE);
      spdlog::warn("{}: {}; it is tried again", path_, error.what());
    }
    wait(core_.next_tick());
  }
}

// step does all that there is to do; false when it was the last.
bool SharedVault::step() {
  std::optional<vault::Limits> limits;
  uint64_t incarnation = 0;
  std::optional<Restore::Wanted> restore;
  bool given_up = false;
  bool closing = false;
  {
    const std::lock_guard lock(inbox_mutex_);
    beginning_.swap(inbox_);
    limits = std::exchange(new_limits_, std::nullopt);
    incarnation = std::exchange(accepted_incarnation_, 0);
    restore.swap(wanted_restore_);
    given_up = restore_given_up_;
    closing = closing_;
  }
  if (limits) core_.use_limits(*limits);
  if (given_up) {
    core_.give_up_restore();
    const std::lock_guard lock(inbox_mutex_);
    restore_given_up_ = false;
  }
  if (restore) begin_restore_now(std::move(*restore));
  if (incarnation != 0) core_.accept(clock_now(), incarnation);
  for (Asked *&beginning : beginning_) {
    asked_[++last_ticket_] = beginning;
    Asked *const one = std::exchange(beginning, nullptr);
    if (one->begin(last_ticket_)) {
      flush();
    } else {
      asked_.erase(last_ticket_);
      one->answer.set_value({KS_SUCCESS});
    }
  }
  beginning_.clear();
  reports_.clear();
  engine_->receive(reports_);
  bool has_loaded = false;
  for (Report &report : reports_) {
    has_loaded = has_loaded || std::holds_alternative<Loaded>(report);
    note_trouble(report);
    core_.take(clock_now(), std::move(report));
    flush();
  }
  core_.tick(clock_now());
  flush();
  put_key_in_place();
  // A load takes as much again as what it leaves, in small pieces that the C library would keep.
  if (has_loaded) malloc_trim(0);
  return !closing || !asked_.empty();
}

void SharedVault::begin_restore_now(Restore::Wanted wanted) {
  try {
    core_.restore(clock_now(), std::move(wanted));
  } catch (const std::bad_alloc &) {  // who waits for it is told
    const std::lock_guard lock(status_mutex_);
    restore_progress_.state = Restore::Progress::State::kStopped;
    restore_progress_.result = KS_NO_MEMORY;
    restore_progress_.why = "out of memory";
    restore_goes_on_.notify_all();
    throw;
  }
}

// flush carries out what the core wants done. Readers may see what is new before anybody is told of it.
void SharedVault::flush() {
  const std::optional<Time> until = core_.readable_until();
  readable_until_.store(until ? until->count() : INT64_MIN, std::memory_order_relaxed);
  if (mirror_ && until) mirror_->young(*until - options_.max_age);
  for (Request &request : core_.take_requests()) engine_->send(std::move(request));
  remember_fleet();
  tell_status();
  tell_restore();
  for (const std::string &news : core_.take_news()) spdlog::info("{}: {}", path_, news);
  hand_out_answers();
}

void SharedVault::hand_out_answers() noexcept {
  for (Answer &answer : core_.take_answers()) {
    const auto found = asked_.find(answer.ticket);
    if (found == asked_.end()) continue;
    Asked *asked = found->second;
    asked_.erase(found);
    asked->answer.set_value({answer.result, std::move(answer.words)});
  }
}

// break_off has nothing be half done when a step was cut short: who was lost in it would wait for ever, and rows that
// were lost in it would be missed in the store.
void SharedVault::break_off(KsResult why) noexcept {
  hand_out_answers();
  for (const auto &[ticket, asked] : asked_) {
    asked->given_up = core_.may_have_happened(ticket) ? KS_TIMEOUT : why;
  }
  core_.break_off();  // changes are decided on the stacks of those who wait
  for (const auto &[ticket, asked] : asked_) asked->answer.set_value({asked->given_up});
  asked_.clear();
  for (Asked *one : beginning_) {
    if (one != nullptr) one->answer.set_value({why});
  }
  beginning_.clear();
}

void SharedVault::note_trouble(const Report &report) {
  if (const auto *gone = std::get_if<EngineGone>(&report)) {
    has_engine_ = false;
    trouble_ = gone->why;
  } else if (const auto *failed = std::get_if<Failed>(&report)) {
    // Without an engine nothing is sent, and why there is none is known already.
    if (failed->kind == Failure::kNotSent && !has_engine_) return;
    has_engine_ = true;
    trouble_ = failed->why;
  } else if (std::holds_alternative<HeaderIs>(report)) {
    has_engine_ = true;
    trouble_.clear();
  }
}

void SharedVault::tell_status() {
  const Time now = clock_now();
  const Standing standing = core_.standing(now);
  const bool readable = core_.readable(now);
  if (readable != was_readable_ || standing != told_) {
    const std::string words =
        words_for(standing, core_.why(), {has_engine_, trouble_}, core_.memory().fleet().has_value());
    if (was_readable_ && !readable) {
      begin_epoch();  // a key that a thread remembers is too old as well
      if (standing != Standing::kOut) {
        tell(event::kEntriesTooOld, "{}: what is in memory is too old to be read: {}", path_, words);
      }
    } else if (!was_readable_ && readable) {
      spdlog::info("{}: {} entries as of change {}", path_, core_.memory().state().table.size(),
                   core_.memory().header().version);
    }
    if (standing != told_ && standing == Standing::kGood) {
      spdlog::info("{}: the fleet is followed, and changes are taken", path_);
    } else if (standing != told_) {
      tell(lasts(standing) ? event::kFleetStopped : event::kFleetTroubled, "{}: {}", path_, words);
    }
    told_ = standing;
    was_readable_ = readable;
    const std::lock_guard lock(status_mutex_);
    status_.standing = standing;
    status_.words = words;
    status_.readable = readable;
    if (readable) loaded_.notify_all();
  }
  const std::lock_guard lock(status_mutex_);
  if (const std::optional<Time> until = core_.readable_until()) as_of_ = *until - options_.max_age;
  status_.version = core_.memory().header().version;
  status_.incarnation = core_.memory().header().incarnation;
  status_.fleet = core_.memory().fleet();
  status_.counts = core_.counts();
  status_.has_engine = has_engine_;
  status_.restored_to = core_.restored_to();
}

void SharedVault::tell_restore() {
  if (core_.restoring() == nullptr) return;
  const Restore::Progress &progress = core_.restoring()->progress();
  const std::lock_guard lock(status_mutex_);
  const bool is_asked_for = progress.folder == restore_progress_.folder;  // and not one before it
  const bool is_new = progress.state != restore_progress_.state || progress.done != restore_progress_.done;
  if (!is_asked_for || !is_new) return;
  if (progress.state != restore_progress_.state) {
    if (progress.state == Restore::Progress::State::kSwitched) {
      tell(event::kFleetRestored,
           "{}: the fleet has the {} entries of a backup now, and incarnation {}; tell the other machines, by "
           "`ksctl fleet accept {}` on each",
           path_, progress.all, progress.incarnation, progress.incarnation);
    } else if (progress.state == Restore::Progress::State::kStopped) {
      spdlog::warn("{}: a restore was stopped: {}", path_, progress.why);
    }
  }
  restore_progress_ = progress;
  restore_goes_on_.notify_all();
}

// remember_fleet writes down which fleet this is, as soon as it has been seen to open, before anybody is told.
void SharedVault::remember_fleet() {
  if (fleet_is_remembered_ || !core_.memory().is_filled()) return;
  fleet_is_remembered_ = true;
  if (options_.belonging.empty() || options_.fleet == core_.memory().fleet()) return;
  try {
    write_belonging(options_.belonging, *core_.memory().fleet());
  } catch (const std::runtime_error &error) {
    tell(event::kMirrorNotWritten, "{}; until the next start, a store that is emptied could be taken for a new one",
         error.what());
  }
}

void SharedVault::wait(Time until) {
  const Time now = clock_now();
  if (const std::optional<Time> readable = core_.readable_until(); readable && *readable > now) {
    until = std::min(until, *readable);
  }
  // At least once a minute, whatever was said.
  Time most = std::clamp(until - now, Time(0), Time(60s));
  if (const auto engine = engine_->wait_at_most()) most = std::min<Time>(most, *engine);
  pollfd sources[] = {{.fd = wake_.get(), .events = POLLIN, .revents = 0},
                      {.fd = engine_->file(), .events = engine_->events(), .revents = 0}};
  const timespec limit{.tv_sec = most / 1s, .tv_nsec = (most % 1s).count()};
  ppoll(sources, 2, &limit, nullptr);
  uint64_t woken = 0;
  [[maybe_unused]] const ssize_t size = read(wake_.get(), &woken, sizeof woken);
}

}  // namespace ksd::fleet
