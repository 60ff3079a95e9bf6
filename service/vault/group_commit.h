// group_commit.h: the thread of all writes. What came in while one group was on its way to the disk is the next group.
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

#include "vault/database.h"
#include "vault/group.h"
#include "vault/use_watch.h"

namespace ksd::vault {

class GroupCommit {
 public:
  // Decide puts a change into the group that it fell into, or gives the code of what prevents it.
  using Decide = std::function<KsResult(Group &)>;

  // Show makes readers see a group that is on disk now, with the header that went with it. It doesn't throw.
  using Show = std::function<void(const Group &, const Header &)>;

  // `state` is changed by `show` alone, which is called on the thread of writes; that thread reads it without a lock.
  GroupCommit(Database database, const Sealer &sealer, const State &state, const Limits &limits, Show show);

  // All that has been asked for is committed first.
  ~GroupCommit();
  GroupCommit(const GroupCommit &) = delete;
  GroupCommit &operator=(const GroupCommit &) = delete;

  // commit waits until the change is on disk, and gives its result.
  KsResult commit(Decide decide);

  // compact gives free pages back while changes go on, and waits for the last of them.
  KsResult compact();
  bool compaction_helps() const { return compaction_helps_.load(std::memory_order_relaxed); }

  Limits current_limits() const;
  void use_limits(const Limits &limits);

 private:
  // Change is one asked-for change, on the stack of who waits for its answer.
  struct Change {
    Decide decide;
    std::promise<KsResult> answer;
  };

  void work();
  void process(std::span<Change *const> changes);
  std::optional<KsResult> try_together(std::span<Change *const> changes, std::vector<KsResult> &results);
  std::optional<WriteFailure> write(const RowChanges &changes, const Header &header);
  bool put_row(const EntryRow &row);
  bool put_header(const Header &header);
  void overwrite_failed_write();
  void look_around(const Limits &limits) noexcept;
  void go_on_compacting();
  void measure_room();
  void log_failure(const WriteFailure &failure);

  // Of the thread of writes alone.
  Database database_;
  const Sealer sealer_;
  const State &state_;
  const Show show_;
  UseWatch use_watch_;
  bool failing_ = false;
  uint64_t last_version_;

  mutable std::mutex limits_mutex_;
  Limits limits_;
  std::atomic<bool> compaction_helps_{false};

  std::mutex queue_mutex_;
  std::condition_variable work_to_do_;
  std::deque<Change *> queue_;
  std::vector<std::promise<KsResult>> compactions_;
  bool closing_ = false;
  std::thread worker_;
};

}  // namespace ksd::vault

#endif
