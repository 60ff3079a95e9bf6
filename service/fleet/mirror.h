// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// mirror.h: a sealed copy of a machine's memory on its own disk. By it a start notices that the store was set back, and
// serves reads before, or without, the store.
#ifndef SERVICE_FLEET_MIRROR_H
#define SERVICE_FLEET_MIRROR_H

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "fleet/core.h"
#include "vault/database.h"

namespace ksd::fleet {

// Mirror is a file of the vault's format, with records of the fleet in it. It is written by a thread of its own, some
// time behind memory: each transaction brings it from one state of the fleet to a later one.
class Mirror {
 public:
  // Opens the file if there is one, under one of the keys; `next_key` may be null. Throws std::runtime_error, one line
  // with what to do, when it is another fleet's, another key's or damaged.
  Mirror(std::string path, KeyPtr master_key, const KeyPtr &next_key, const std::optional<FleetId> &fleet);

  // What isn't written yet is written first.
  ~Mirror();
  Mirror(const Mirror &) = delete;
  Mirror &operator=(const Mirror &) = delete;

  const std::string &path() const { return path_; }

  // master_key is the one that the file is sealed under, or will be.
  KeyPtr master_key() const;

  // fleet is whose mirror it is; nothing while there is no file.
  const std::optional<FleetId> &fleet() const { return fleet_; }

  // load gives what the file holds, and how old that is at least; nothing when there is no file. Throws like the
  // constructor. Once, before follow.
  std::optional<Core::Kept> load(Memory &memory);

  // follow has the file follow on memory, which outlives it: `changes` are the rows that have changed since the last
  // call, null when all may have. It waits for nothing. Throws std::bad_alloc; then the next call does it all.
  void follow(const Memory &memory, const vault::RowChanges *changes);

  // incarnation_written is that of the header in the file.
  uint64_t incarnation_written() const { return incarnation_written_; }

  // young has the file know that memory was still the latest at that time.
  void young(Time as_of);

 private:
  // Due is what is to be written.
  struct Due {
    bool all = false;                        // rows that aren't named go
    std::map<uint64_t, vault::RowPtr> rows;  // null: it goes
    std::optional<FleetHeader> header;       // with them; nothing when only time has passed
    HeaderHash hash{};
    KeyPtr key;  // under which all of it is
  };

  void work() noexcept;
  void write(const Due &due, Time as_of);
  std::vector<uint8_t> state_record(const FleetHeader &header, const HeaderHash &hash, Time as_of,
                                    const vault::Sealer &sealer) const;

  const std::string path_;
  std::optional<FleetId> fleet_;
  std::unique_ptr<vault::Database> database_;

  // Of the thread that writes.
  std::optional<vault::Sealer> sealer_;
  FleetHeader header_;
  HeaderHash hash_{};
  bool failing_ = false;

  std::atomic<uint64_t> incarnation_written_{0};

  const Memory *memory_ = nullptr;
  mutable std::mutex mutex_;
  KeyPtr master_key_;    // of the file
  KeyPtr key_followed_;  // of memory, when it was followed last
  std::condition_variable to_do_;
  Due due_;
  bool lost_ = true;       // what was to be written wasn't: all has to be, next time
  HeaderHash followed_{};  // of the header whose rows are in the file, or due
  Time as_of_{};
  bool closing_ = false;
  std::thread worker_;
};

}  // namespace ksd::fleet

#endif
