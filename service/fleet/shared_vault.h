// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// shared_vault.h: the store of a machine that shares its entries with a fleet. Reads are answered from memory; a thread
// of its own keeps that up to date and brings changes to the engine.
#ifndef SERVICE_FLEET_SHARED_VAULT_H
#define SERVICE_FLEET_SHARED_VAULT_H

#include <atomic>
#include <condition_variable>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/fd.h"
#include "fleet/core.h"
#include "fleet/import.h"
#include "fleet/mirror.h"
#include "vault/read_mostly_lock.h"
#include "vault/use_watch.h"
#include "vault/vault.h"

namespace ksd::fleet {

struct SharedOptions {
  std::string machine;
  KeyPtr master_key;
  KeyPtr next_key = nullptr;                    // held beside it since a change of the key began
  KeyPtr machine_key = nullptr;                 // null: the machine has none of its own
  std::shared_ptr<KeyKeeper> keeper = nullptr;  // null: there is no place for another master key
  std::optional<FleetId> fleet = std::nullopt;  // nothing: that of the mirror, or of the first header
  bool create = false;                          // make the fleet where the store is empty
  uint64_t accepted_incarnation = 0;
  vault::Limits limits = {};
  std::chrono::milliseconds write_wait{5000};
  std::chrono::milliseconds max_age{900'000};
  std::map<uid_t, std::string> owners = {};  // by their numbers on this machine
  std::string mirror = {};                   // a file; empty: none
  std::string belonging = {};                // another, which tells the fleet's id; empty: none
};

struct SharedStatus {
  Standing standing = Standing::kLoading;
  std::string words;                               // what that means, in one line; empty when all is well
  std::optional<std::chrono::milliseconds> age{};  // of memory; nothing before it is loaded
  bool readable = false;
  bool has_engine = true;
  uint64_t version = 0;
  uint64_t incarnation = 0;
  uint64_t restored_to = 0;  // the later incarnation that nobody has accepted here; 0: there is none
  std::optional<FleetId> fleet{};
  Core::Counts counts{};
};

// Told is the answer to what an administrator asked for.
struct Told {
  KsResult result = KS_FAILURE;
  std::string words = {};  // what stands in the way, if there is more to say than the result
};

class SharedVault final : public vault::Vault, private Readers {
 public:
  // The constructor returns at once: memory is loaded on the thread. Throws std::runtime_error, one line with what to
  // do, for a mirror that can't be used.
  SharedVault(SharedOptions options, std::unique_ptr<Engine> engine);

  // Changes that wait are answered first, within write_wait.
  ~SharedVault() override;

  // wait_until_loaded gives whether entries can be read.
  bool wait_until_loaded(std::chrono::milliseconds at_most) const;
  SharedStatus status() const;
  const std::string &machine() const { return options_.machine; }
  const std::string &mirror() const { return options_.mirror; }
  const Owners &owner_names() const { return owners_; }

  // accept_incarnation follows a fleet that was restored to just that incarnation, and gives what came of it:
  // KS_SUCCESS when the machine is at it, and will be after a restart, too; KS_INVALID_ARGS when the store is at
  // another one; KS_NOT_FOUND when the machine hasn't left the store alone for that; KS_TIMEOUT when nothing came of it
  // in time.
  KsResult accept_incarnation(uint64_t incarnation);

  // begin_restore puts the entries of a backup in the place of all that the fleet has, on the thread. KS_INVALID_ARGS:
  // another one is under way, or the machine is none of the fleet's. wait_for_restore gives how far it has come, when
  // that has changed or after a while; give_up_restore ends it unless the fleet may be the backup's already.
  KsResult begin_restore(Restore::Wanted wanted);
  Restore::Progress wait_for_restore();
  void give_up_restore();

  // owner_of gives the number of an owner by the name in a backup, or of a user of this machine.
  uid_t owner_of(const std::string &name) { return owners_.number_of(name); }
  uid_t owner_of_user(uid_t user) { return owners_.of_user(user); }

  // of_fleet gives rows of a vault of this machine the owners that they have in the fleet, and how many of those users
  // have no name there.
  std::vector<vault::RowPtr> of_fleet(const std::vector<vault::RowPtr> &rows, size_t &unnamed);

  // plan_import tells what taking in such rows would come to. Throws vault::Unavailable.
  ImportPlan plan_import(const std::vector<vault::RowPtr> &rows, vault::Taken taken) const;

  // import takes rows in, in their order, and counts them; some 100 at a time. The code is that of the first that
  // wasn't taken in, behind which there may be others that were: asked for again, they are there already.
  KsResult import(std::span<const vault::RowPtr> rows, vault::Taken taken, ImportCounts &counts);

  // As of Core. They wait for the answer, for write_wait at most.
  Told leave(const std::string &machine, bool even_if_alive);
  Told begin_key_change(const Fingerprint &compared);
  std::vector<MachineSeen> machines();
  KeyChangeSeen fleet_key_change();

  // Reads throw vault::Unavailable when memory is too old, or not there yet.
  std::optional<vault::Entry> find(const EntryName &name) const override;
  bool exists(const EntryName &name) const override;
  std::optional<EntryName> at(uint16_t position) const override;
  size_t count() const override;
  KsResult put(const EntryName &name, const std::optional<EntryName> &alias, Bytes secret, Bytes metadata,
               uid_t owner) override;
  KsResult set_metadata(const EntryName &name, Bytes metadata) override;
  KsResult remove(const EntryName &name) override;
  KsResult rename(const EntryName &from, const EntryName &to) override;
  void on_retired(std::function<void(uint64_t generation)> retired) override;
  KsResult compact() override { return KS_SUCCESS; }  // the engine sees to its own space
  Usage usage() const override;

  void use_limits(const vault::Limits &limits) override;
  const std::string &path() const override { return path_; }
  vault::Condition condition() const override;
  std::vector<vault::Owner> owners(uid_t from, size_t most) const override;
  KsResult write_back(uint64_t &pages) override;
  vault::Snapshot snapshot() override;
  KsResult change_key(std::shared_ptr<const SecretBytes>) override { return KS_INVALID_ARGS; }
  vault::KeyChangeProgress key_change() const override { return {}; }

 private:
  // Asked is a change, or a question, on the stack of who waits for its answer. `begin` runs on the thread, and gives
  // false when it is the answer.
  struct Asked {
    std::function<bool(Ticket ticket)> begin;
    std::promise<Told> answer;
    KsResult given_up = KS_FAILURE;
  };

  void lock() override;
  void unlock() override { state_lock_.unlock(); }
  void shown(const std::vector<uint64_t> &gone, const vault::RowChanges *changes) override;

  Told ask(std::function<bool(Ticket ticket)> begin);
  Asked asked_of(vault::Decide decide);
  KsResult change(vault::Decide decide);
  void ask(std::span<Asked> asked);
  void look(std::function<void()> look);
  void put_key_in_place();
  void require_young() const;
  vault::Limits current_limits() const;
  void work() noexcept;
  void begin();
  bool step();
  void begin_restore_now(Restore::Wanted wanted);
  void flush();
  void hand_out_answers() noexcept;
  void break_off(KsResult why) noexcept;
  void note_trouble(const Report &report);
  void tell_status();
  void tell_restore();
  void remember_fleet();
  void wait(Time until);
  void wake() const;

  const SharedOptions options_;
  const std::string path_ = "the fleet";  // how the log names what other vaults name by their file
  Owners owners_;
  std::unique_ptr<Engine> engine_;
  std::unique_ptr<Mirror> mirror_;

  // Of the thread alone, but for what readers look at in the lock.
  mutable vault::ReadMostlyLock state_lock_;
  Core core_;
  std::mutex retired_mutex_;  // the thread runs already when it is set
  std::function<void(uint64_t)> retired_;
  std::vector<Report> reports_;
  std::vector<Asked *> beginning_;  // in the inbox until this step; null: begun
  std::map<Ticket, Asked *> asked_;
  Ticket last_ticket_ = 0;
  vault::UseWatch use_watch_;
  KeyPtr key_in_place_;  // of the next start
  Time key_tried_{};
  Standing told_ = Standing::kLoading;
  bool was_readable_ = false;
  bool has_engine_ = true;
  std::string trouble_;  // what the engine last said, or what keeps it away; empty when it reached the store
  bool fleet_is_remembered_ = false;

  // When reads end, in nanoseconds of the clock.
  std::atomic<int64_t> readable_until_{INT64_MIN};

  mutable std::mutex status_mutex_;
  mutable std::condition_variable loaded_;
  SharedStatus status_;  // without the age
  std::optional<Time> as_of_;
  vault::Limits limits_;
  Restore::Progress restore_progress_;
  mutable std::condition_variable restore_goes_on_;

  std::mutex inbox_mutex_;
  std::vector<Asked *> inbox_;
  std::optional<vault::Limits> new_limits_;
  uint64_t accepted_incarnation_ = 0;
  std::optional<Restore::Wanted> wanted_restore_;
  bool restore_given_up_ = false;
  bool closing_ = false;
  const UniqueFd wake_;
  std::thread worker_;
};

}  // namespace ksd::fleet

#endif
