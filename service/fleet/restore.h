// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// restore.h: how a machine puts the entries of a backup in the place of all that its fleet has. Like the core it does
// nothing by itself: it is told what happens, and asks for what is to be done.
//
// A restore claims the key "r", writes its rows into a folder of their own, and puts a header that names the folder, in
// the place of the one that is there. So a fleet has all of the backup or nothing of it, wherever a restore is cut
// short. Each of its changes holds only as long as the claim is its own: of two restores, the one that began later goes
// on.
#ifndef SERVICE_FLEET_RESTORE_H
#define SERVICE_FLEET_RESTORE_H

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "fleet/engine.h"
#include "fleet/memory.h"
#include "fleet/owners.h"

namespace ksd::fleet {

class Restore {
 public:
  using Time = std::chrono::nanoseconds;

  // Wanted is what is to be restored.
  struct Wanted {
    std::vector<vault::RowPtr> rows;  // ascending by id, with the fleet's owners
    uint64_t last_id = 0;
    uint64_t last_version = 0;
    FleetId fleet{};           // for a machine that belongs to none yet, over a store that is empty
    uint64_t folder = 0;       // drawn for this restore
    uint64_t incarnation = 0;  // at least that
  };

  // As is who restores.
  struct As {
    WriterMark writer;
    std::shared_ptr<const SecretBytes> master_key;
  };

  struct Progress {
    uint64_t folder = 0;  // by which one restore is told from another
    enum class State : uint8_t {
      kGoesOn,
      kSwitched,  // the fleet is the backup's now; what it was before is being removed
      kDone,
      kStopped,
    } state = State::kGoesOn;
    uint64_t done = 0;
    uint64_t all = 0;  // rows
    uint64_t incarnation = 0;
    KsResult result = KS_SUCCESS;  // that stopped it
    std::string why = {};
  };

  // `memory` is what the machine knows of its fleet; `send` hands a request over and gives it an id. It begins with the
  // next tick.
  Restore(Time now, Wanted wanted, As as, const Memory &memory, Owners &owners, std::function<RequestId(Request)> send);

  // take gives whether the report was about a request of the restore.
  bool take(Time now, const Report &report);
  void tick(Time now);
  Time next_tick() const;

  // give_up ends it, unless the fleet may be the backup's already.
  void give_up();

  // made tells whether a header is this restore's, or came after it.
  bool made(const FleetHeader &header) const { return header.folder == wanted_.folder; }

  bool has_sent(const std::vector<uint8_t> &header) const { return !header.empty() && header == header_; }

  const Progress &progress() const { return progress_; }
  bool is_over() const { return step_ == Step::kOver; }

 private:
  enum class Step : uint8_t { kClaim, kLook, kClear, kDraft, kSwitch, kLookAgain, kTidy, kRelease, kOver };

  void go_on();
  Time given_up_at() const;
  void send(Request request);
  Commit change() const;
  void take_change(bool happened, const std::optional<KeyValue> &header);
  void take_failure(Failure kind);
  void look_at(const std::optional<KeyValue> &header);
  void switched();
  void stop(KsResult result, std::string why);
  std::vector<uint8_t> claim() const;
  void take_next_rows();

  static constexpr std::chrono::milliseconds kChangeLimit{1500};
  static constexpr std::chrono::milliseconds kLookLimit{10'000};
  static constexpr std::chrono::milliseconds kGrace{500};
  static constexpr std::chrono::milliseconds kPause{100};
  static constexpr std::chrono::milliseconds kPatience{30'000};  // without a step that succeeds

  Wanted wanted_;
  const As as_;
  const vault::KeyId key_id_;
  const Memory &memory_;
  Owners &owners_;
  const std::function<RequestId(Request)> send_;
  std::vector<WriterMark> departed_;  // who has left the fleet
  vault::Sealer sealer_;

  Step step_ = Step::kClaim;
  Progress progress_;
  Time now_, again_at_, sent_at_{}, succeeded_at_;
  RequestId under_way_ = 0;  // 0: nothing

  Revision claim_ = 0;               // at which "r" was put
  Revision header_revision_ = 0;     // of the header that is to be replaced; 0: there is none
  uint64_t version_ = 0;             // of the new one
  std::vector<std::string> strays_;  // rows in others
  std::vector<KeyValue> rows_;       // that are written next
  size_t next_row_ = 0;              // behind them
  vault::Header table_;
  std::vector<uint8_t> header_;  // as it was sent
  bool in_doubt_ = false;        // whether it came to be
};

}  // namespace ksd::fleet

#endif
