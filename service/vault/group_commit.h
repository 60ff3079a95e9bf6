// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// group_commit.h: one writer at a time. What came in while one group was on its way to the disk is the next group.
#ifndef SERVICE_VAULT_GROUP_COMMIT_H
#define SERVICE_VAULT_GROUP_COMMIT_H

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <span>
#include <thread>
#include <vector>

#include "base/log.h"
#include "vault/decide.h"
#include "vault/group.h"
#include "vault/master_key.h"
#include "vault/use_watch.h"
#include "vault/vault.h"
#include "vault/writer.h"

namespace ksd::vault {

// Audience is who makes readers see a group. The writer calls it.
class Audience {
 public:
  // prepare gets what show needs, before anything of the group is on disk. Throws std::bad_alloc.
  virtual void prepare(const Group &group) = 0;

  // discard gives back what prepare got for a group that came to nothing: it holds secrets.
  virtual void discard() noexcept = 0;

  // show makes readers see a group that is on disk now, with the header that went with it.
  virtual void show(Group &group, const Header &header) noexcept = 0;

  // use_header puts a header in force that is on disk now, with no other change.
  virtual void use_header(const Header &header) noexcept = 0;

 protected:
  ~Audience() = default;
};

// A thread whose change finds nobody writing is the writer until its own change is answered: to wake another one and to
// wait for it would take as long as what it does. All else is the worker's, which never makes a client wait for others.
class GroupCommit {
 public:
  // `state` is changed by `audience` alone, by the writer, who reads it without a lock.
  // `master` is the key that the vault was opened with. A change of it that was interrupted goes on.
  GroupCommit(Writer writer, const State &state, const Limits &limits, Audience &audience, MasterKey master);

  // All that has been asked for is committed first, and the vault is closed in order.
  ~GroupCommit();
  GroupCommit(const GroupCommit &) = delete;
  GroupCommit &operator=(const GroupCommit &) = delete;

  // commit waits until the change is on disk, and gives its result.
  KsResult commit(Decide decide);

  // compact gives free pages back while changes go on, and waits for the last of them.
  KsResult compact();
  bool compaction_helps() const { return compaction_helps_.load(std::memory_order_relaxed); }

  // between_groups has `errand` done by the worker while no change is under way, and waits for it. What it throws is
  // thrown here.
  void between_groups(const std::function<void()> &errand);

  const std::string &path() const { return writer_.path(); }
  KsResult write_back(uint64_t &pages);
  Condition condition() const;
  KsResult change_key(std::shared_ptr<const SecretBytes> next);
  KeyChangeProgress key_change() const;
  const VaultId &vault_id() const { return vault_id_; }

  Limits current_limits() const;
  void use_limits(const Limits &limits);

 private:
  // Change is one asked-for change, on the stack of who waits for its answer, or writes it without waiting.
  struct Change {
    Decide decide;
    KsResult result = KS_FAILURE;
    std::optional<std::promise<void>> waited_for = std::nullopt;

    void answer(KsResult with) {
      result = with;
      if (waited_for) waited_for->set_value();
    }
  };

  // Errand is something else that the worker is to do, on the stack of who waits for it.
  struct Errand {
    const std::function<void()> &what;
    std::promise<void> done;
  };

  bool is_idle() const;
  void write_alone(Change &change);
  void work();
  void do_errands() noexcept;
  KsResult begin_key_change(std::shared_ptr<const SecretBytes> next);
  void go_on_changing_key() noexcept;
  void stop_changing_key(const char *why) noexcept;
  std::optional<WriteFailure> change_key_further();
  std::optional<WriteFailure> move_some_rows();
  void tell_progress(KeyChangeProgress::State state) noexcept;
  void take_group();
  void process(std::span<Change *const> changes) noexcept;
  std::optional<KsResult> try_together(std::span<Change *const> changes) noexcept;
  void look_around(const Limits &limits) noexcept;
  void go_on_compacting() noexcept;
  void measure_room() noexcept;
  void log_refusal(const Group &group) noexcept;
  void log_failure(const WriteFailure &failure) noexcept;
  void tell_condition(const char *refusal) noexcept;

  // Of the writer alone.
  Writer writer_;
  const VaultId vault_id_;
  const State &state_;
  Audience &audience_;
  UseWatch use_watch_;
  LogLimiter log_limiter_;
  std::vector<Change *> group_;    // with room for the largest group, as the next
  std::vector<KsResult> results_;  // of decisions, in the order of the group
  bool failing_ = false;
  uint64_t last_version_;
  MasterKey master_;
  bool key_change_runs_ = false;

  mutable std::mutex progress_mutex_;
  KeyChangeProgress progress_;

  mutable std::mutex condition_mutex_;
  Condition condition_;

  mutable std::mutex limits_mutex_;
  Limits limits_;
  std::atomic<bool> compaction_helps_{false};

  std::mutex queue_mutex_;
  std::condition_variable work_to_do_;
  bool is_writing_ = false;  // somebody is the writer
  bool untidy_ = false;      // so that the worker tidies up, for which no client waits
  std::deque<Change *> queue_;
  std::vector<std::promise<KsResult>> compactions_;
  std::deque<Errand *> errands_;
  bool closing_ = false;
  std::thread worker_;
};

}  // namespace ksd::vault

#endif
