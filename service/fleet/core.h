// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// core.h: how one machine takes part in its fleet. docs/fleet.md tells the protocol.
//
// Nothing in here reads a clock, waits, or knows of threads, files and sockets: what happens is told to it, with the
// time, and what is to be done is fetched from it. So a simulator in the tests can run a fleet through what a network,
// a store and an operator may do to it.
#ifndef SERVICE_FLEET_CORE_H
#define SERVICE_FLEET_CORE_H

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fleet/engine.h"
#include "fleet/key_keeper.h"
#include "fleet/memory.h"
#include "fleet/owners.h"
#include "fleet/restore.h"
#include "vault/decide.h"
#include "vault/limits.h"

namespace ksd::fleet {

// Time is that of a clock which goes on while the machine sleeps, and is never set.
using Time = std::chrono::nanoseconds;

struct CoreOptions {
  std::string machine = {};
  uint64_t session = 0;  // drawn at each start
  KeyPtr master_key = nullptr;
  KeyPtr next_key = nullptr;                    // what the machine holds beside it, if anything
  KeyPtr machine_key = nullptr;                 // its own; without one, nobody can give it the next master key
  KeyKeeper *keeper = nullptr;                  // null: there is no place for another key
  std::optional<FleetId> fleet = std::nullopt;  // nothing: that of the first header
  std::optional<FleetId> make = std::nullopt;   // makes the fleet where there is none at all, under this id
  uint64_t accepted_incarnation = 0;            // a restored fleet is followed up to this one
  vault::Limits limits = {};
  std::chrono::milliseconds write_wait{5000};  // a change is answered within
  std::chrono::milliseconds max_age{900'000};  // reads are answered from memory for
  // All rows in the store are counted so often: what disappears from it behind the watch's back is found by then.
  std::chrono::milliseconds count_interval{300'000};
};

enum class Standing : uint8_t {
  kGood,
  // These pass. Reads are answered as long as memory is young enough.
  kLoading,          // nothing has been loaded yet
  kNoFleet,          // the store is empty
  kNoContact,        // the store hasn't answered for two seconds
  kNoSpace,          // the store's quota is used up
  kDenied,           // the store takes no changes of this machine
  kTooManyMachines,  // the header has no room for another machine
  kKeyNotKept,       // the next master key can't be put where the next start finds it
  // With these, the machine leaves the store alone from now on.
  kTampered,    // what the store gives isn't what the machines made
  kRestored,    // the fleet was restored, and nobody has said here that this was meant
  kNamesake,    // another machine has this one's name
  kOtherKey,    // the fleet has another master key
  kOtherFleet,  // the store holds another fleet
  kOut,         // this machine isn't one of the fleet any more
};

constexpr bool lasts(Standing standing) {
  return standing >= Standing::kTampered;
}

// Readers is who reads memory while the core goes on: memory changes between lock and unlock alone.
class Readers {
 public:
  virtual void lock() = 0;
  virtual void unlock() = 0;

  // shown comes behind each such change: `gone` are the contents that aren't found any more. `changes` are the rows, or
  // null when all of them may be others.
  virtual void shown(const std::vector<uint64_t> &gone, const vault::RowChanges *changes) = 0;

 protected:
  ~Readers() = default;
};

// Ticket stands for a client's change.
using Ticket = uint64_t;

struct Answer {
  Ticket ticket = 0;
  KsResult result = KS_FAILURE;
  std::string words = {};  // of what an administrator asked for: what was done, or stands in the way
};

// MachineSeen is what is known of a machine of the fleet.
struct MachineSeen {
  std::string name;
  bool is_member = false;  // else it has a heartbeat alone
  bool is_this = false;
  PublicKey public_key{};
  std::optional<Heartbeat> beat{};     // the last one that was heard
  std::chrono::milliseconds silent{};  // since then
  bool silent_at_least = false;        // it wasn't heard for as long as this one listens
};

// KeyChangeSeen is how far a change of the master key has come.
struct KeyChangeSeen {
  vault::KeyId key{};                      // the present one
  std::optional<FleetKeyChange> change{};  // nothing: none is under way
  size_t moved = 0, entries = 0;           // rows
  std::vector<std::string> missing{};      // machines that haven't said that they hold the next key
  std::optional<Fingerprint> machines{};   // of the fleet; nothing before it is loaded
};

class Core {
 public:
  Core(CoreOptions options, Owners &owners, Readers &readers);

  // begin comes first, and nothing before it. `kept` is what a mirror had, if it could be believed, and `age` how old
  // that is at least.
  struct Kept {
    Memory::Whole whole;
    std::chrono::milliseconds age{};
  };
  void begin(Time now, std::optional<Kept> kept = std::nullopt);

  // What happens. change is a client's; take is a report of the engine; tick is that time has passed.
  void change(Time now, Ticket ticket, vault::Decide decide);
  void take(Time now, Report report);
  void tick(Time now);

  // What administrators ask for. leave takes a machine out of the fleet; one that was heard of lately only if
  // `even_if_alive`. change_key begins a change of the master key, or gives its next one to machines that haven't got
  // it, if `compared` stands for the fleet's machines as they are.
  void leave(Time now, Ticket ticket, std::string machine, bool even_if_alive);
  void change_key(Time now, Ticket ticket, const Fingerprint &compared);

  // machines gives all that are known, ascending by name.
  std::vector<MachineSeen> machines(Time now) const;
  KeyChangeSeen key_change() const;

  // accept follows a fleet that was restored to just that incarnation, also by a machine that has left the store alone
  // for what it was before.
  void accept(Time now, uint64_t incarnation);

  // restore puts other entries in the place of all that there are, whatever this machine thinks of the store. One at a
  // time; restoring is the last one. Throws std::bad_alloc, and then there is none.
  void restore(Time now, Restore::Wanted wanted);
  void give_up_restore();
  const Restore *restoring() const { return restore_ ? &*restore_ : nullptr; }
  void use_limits(const vault::Limits &limits) { options_.limits = limits; }

  // When one of these was cut short, for lack of memory, nobody knows what was lost in it. break_off forgets all that
  // is under way, the changes that wait included, unanswered; may_have_happened tells beforehand whether the store may
  // have been asked for one.
  bool may_have_happened(Ticket ticket) const noexcept;
  void break_off() noexcept;

  // What is to be done: requests for the engine, answers for clients, and a tick no later than next_tick.
  std::vector<Request> take_requests() { return std::exchange(requests_, {}); }
  std::vector<Answer> take_answers() { return std::exchange(answers_, {}); }
  std::vector<std::string> take_news() { return std::exchange(news_, {}); }  // of the fleet, for the log
  Time next_tick() const;

  // For readers, in their lock.
  const Memory &memory() const { return memory_; }
  Memory &memory() { return memory_; }

  // readable_until is when memory gets too old to be read; nothing while there is none.
  std::optional<Time> readable_until() const;
  bool readable(Time now) const {
    const std::optional<Time> until = readable_until();
    return until && now < *until;
  }

  Standing standing(Time now) const;

  // why gives the particulars of a standing, for a log; may be empty. Of a restored fleet, its incarnation, which
  // restored_to gives as well.
  const std::string &why() const { return lasts(lasting_) ? why_ : key_trouble_; }
  uint64_t restored_to() const { return lasting_ == Standing::kRestored ? restored_to_ : 0; }

  struct Counts {
    uint64_t commits = 0;  // made by this machine
    uint64_t lost = 0;     // that another one came before
    uint64_t unknown = 0;  // whose outcome had to be found out
    uint64_t loads = 0;
  };
  const Counts &counts() const { return counts_; }

 private:
  // Errand is a change of the header that isn't one of the table: of the fleet's machines, or its master key.
  struct Errand {
    enum class Kind : uint8_t { kRegister, kLeave, kChangeKey, kMoveRows } kind = Kind::kRegister;
    std::string machine = {};  // that leaves
    bool even_if_alive = false;
    Fingerprint compared{};
  };
  struct Change {
    Ticket ticket = 0;  // kNobody: an errand of the machine's own
    vault::Decide decide;
    Time deadline{};
    std::optional<Errand> errand = std::nullopt;
  };
  struct Decided {
    Change change{};
    KsResult result = KS_FAILURE;
    bool answered = false;
    std::string words = {};
  };
  static constexpr Ticket kNobody = UINT64_MAX;

  // Attempt is a group of changes, or one errand, decided at one header, that waits for the store's word: a commit when
  // there is something to write, else that the header is still the same.
  struct Attempt {
    std::vector<Decided> changes;
    Commit commit;
    uint64_t incarnation = 0;  // decided at this header
    uint64_t version = 0;
    uint64_t sequence = 0;
    bool writes = false;
    bool in_doubt = false;   // once it was sent, and nobody knows what became of it
    bool under_way = false;  // the last request hasn't been answered
    bool refused = false;    // another header is there; memory will reach it
    std::map<RequestId, Time> sent;
    Time sent_last{};
    Time again_at{};
  };

  struct HeaderRead {
    Time sent{};
    uint64_t incarnation = 0;  // that memory had then
    uint64_t version = 0;
  };

  // Reached is what makes memory young once it has come to `version`.
  struct Reached {
    uint64_t version = 0;
    Time as_of{};
  };

  void take_report(const Committed &report);
  void take_report(const Refused &report);
  void take_report(const Failed &report);
  void take_report(const HeaderIs &report);
  void take_report(LoadedRows &report);
  void take_report(const Loaded &report);
  void take_report(const Changed &report);
  void take_report(const WatchBroken &report);
  void take_report(const BeatsAre &report);
  void take_report(const EngineGone &report);

  RequestId send(Request request);
  void send_header_read();
  void forget_requests() noexcept;
  void send_beat(bool waits);
  void load();
  void load_again_at(Time when);
  void finish_load(const Loaded &report);
  void count();
  void finish_count(const Loaded &report);
  void count_again_soon();
  void make_fleet();
  void watch();
  void note_header(const HeaderRead &read, const std::optional<KeyValue> &header);
  void be_behind(uint64_t version, Time as_of);

  void ask_for_beats();
  void heed_machine(const KeyValue &put, Revision revision, bool is_news);
  void forget_machine(const std::string &key, Revision revision);
  void heed_heartbeat(const std::string &machine, const KeyValue &beat, Revision revision, bool is_news);
  Time silent_since(const std::string &machine) const;
  Heartbeat beat_now() const;
  void look_for_key(const FleetHeader &header);
  std::string keep_next_key(KeyPtr key);
  bool all_hold(const vault::KeyId &key) const;
  std::vector<std::string> who_lacks(const vault::KeyId &key) const;
  void note_news(const OpenedHeader &later);

  void show(Memory::Step step);
  void show(Memory::Whole whole);
  void reach_header();
  void settle();
  void lose();
  void look_for_namesake();
  bool lacks_its_mark() const;
  void stop_for_namesake();
  bool is_out(const FleetHeader &header) const;
  void stop_as_out(const FleetHeader &header);
  void look_whether_out();

  bool accepts(const FleetHeader &restored) const;
  void follow_restore();
  void take_up(Change change);
  void be_in_contact(Time sent);
  void go_on();
  void give_up_late_ones();
  void attempt_more();
  void decide(Attempt &attempt);
  void decide_errand(Attempt &attempt);
  void refuse_too_many();
  KsResult decide_leave(const Errand &errand, FleetHeader next, Commit &commit, std::string &words) const;
  KsResult decide_key_change(const Errand &errand, FleetHeader next, Commit &commit, std::string &words);
  std::optional<Errand> own_errand() const;
  std::optional<Time> next_own_errand() const;
  WriterMark next_mark();
  void send_attempt();
  void fail_attempt(Failure kind);
  void doubt_attempt(const HeaderRead &read, const HeaderIs &report);
  void refuse_attempt(KsResult result);
  void decide_again();
  void drop_attempt_if_answered();
  bool pauses() const;
  bool in_contact() const { return now_ - contact_ < kContactLost; }
  void answer(const Change &change, KsResult result, std::string words = {});
  void stop(Standing standing, std::string why);
  void young_as_of(Time when);

  static constexpr std::chrono::milliseconds kReadInterval{200};
  static constexpr std::chrono::milliseconds kReadLimit{1000};
  static constexpr std::chrono::milliseconds kCommitLimit{1500};
  static constexpr std::chrono::milliseconds kOverdue{300};      // a commit that hasn't happened by then
  static constexpr std::chrono::milliseconds kReportGrace{500};  // an engine that says nothing is given up
  static constexpr std::chrono::milliseconds kContactLost{2000};
  static constexpr std::chrono::milliseconds kLoadLimit{10'000};
  static constexpr std::chrono::milliseconds kCountPause{10'000};  // behind one that failed
  static constexpr std::chrono::milliseconds kRetryPause{50};
  static constexpr std::chrono::milliseconds kNoFleetPause{1000};
  static constexpr std::chrono::milliseconds kBehindLimit{1000};
  static constexpr std::chrono::milliseconds kBeatInterval{10'000};
  static constexpr std::chrono::milliseconds kWaitMarkInterval{100};
  static constexpr std::chrono::milliseconds kPause{200};  // for a machine that waits, at most
  static constexpr unsigned kLostBeforeMark = 3;
  static constexpr std::chrono::milliseconds kHeardLately{60'000};
  static constexpr std::chrono::milliseconds kKeyRetryPause{5000};
  static constexpr std::chrono::milliseconds kErrandPause{1000};
  static constexpr std::chrono::milliseconds kTakeOver{3000};    // from who began a change of the key
  static constexpr std::chrono::milliseconds kNameWait{30'000};  // for another machine of this name to be heard

  CoreOptions options_;
  Owners &owners_;
  Readers &readers_;
  const PublicKey public_key_;
  Memory memory_;
  Time now_{};

  std::vector<Request> requests_;
  std::vector<Answer> answers_;
  std::vector<std::string> news_;
  RequestId last_id_ = 0;

  // What memory was last checked against.
  enum class Phase : uint8_t { kLoading, kFollowing } phase_ = Phase::kLoading;
  std::optional<Memory::Loading> loading_;
  RequestId load_id_ = 0;  // 0: none under way
  Time load_sent_{}, load_at_{};
  std::optional<Memory::Loading> counting_;
  RequestId count_id_ = 0;  // 0: none under way
  HeaderRead count_read_;
  Time count_at_{};
  RequestId make_id_ = 0;
  RequestId watch_id_ = 0;  // 0: none
  Time watch_at_{};
  Revision seen_ = 0;  // by the watch, that included
  std::map<RequestId, HeaderRead> reads_;
  Time next_read_at_{}, next_beat_at_{};
  uint64_t known_version_ = 0;  // of the latest header that is known to be there
  Time behind_since_{};
  std::vector<Reached> ages_;
  std::optional<Time> young_as_of_;  // memory was the latest then
  Time contact_{};

  std::deque<Change> queue_;
  std::optional<Attempt> attempt_;
  uint64_t last_sequence_ = 0;
  bool has_committed_ = false;  // in this session, and this incarnation
  bool one_by_one_ = false;     // a group was too large

  // Heard is what a machine has said of itself, or another one in its name.
  struct Heard {
    Heartbeat beat;
    Revision revision = 0;
    std::optional<Time> at;  // nothing: it was there before this machine listened
    Time pause_until{};
  };
  std::map<std::string, Heard> heard_;
  Time listening_since_{};
  RequestId beats_id_ = 0;  // 0: nothing is asked for
  Time beats_sent_{};
  std::optional<std::vector<uint8_t>> box_;  // for this machine, as it is stored
  Revision box_revision_ = 0;

  bool is_registered_ = false;  // memory had this machine as one of the fleet
  bool was_errand_ = false;     // the attempt before
  Time errand_at_{};            // no own errand before
  Time key_goes_on_since_{};    // with nobody making a step
  Time key_at_{};               // when the next key is looked for again
  KeyPtr drawn_;                // a next key of this machine's own, while nobody may have it
  std::string key_trouble_;
  unsigned lost_in_a_row_ = 0;
  Time marked_at_{};
  uint64_t beats_ = 0;
  RequestId beat_id_ = 0;  // the last one

  Standing lasting_ = Standing::kGood;
  Standing passing_ = Standing::kGood;  // of the last change
  bool no_fleet_ = false;
  uint64_t restored_to_ = 0;  // the incarnation that nobody has accepted
  uint64_t accepted_once_ = 0;
  std::optional<Restore> restore_;
  bool follows_restore_ = true;  // or has yet to
  std::string why_;
  Counts counts_;
};

}  // namespace ksd::fleet

#endif
