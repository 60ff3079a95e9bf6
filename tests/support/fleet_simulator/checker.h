// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// checker.h: what must hold of a fleet, whatever happens to it. The versions of the header witness the order of all
// changes, so that nothing has to be searched: each commit is replayed on a plain model of the table, by rules of its
// own, and each answer and each read is compared with that.
#ifndef TESTS_SUPPORT_FLEET_SIMULATOR_CHECKER_H
#define TESTS_SUPPORT_FLEET_SIMULATOR_CHECKER_H

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fleet/core.h"
#include "fleet_simulator/engine_model.h"

namespace ksd::fleet {

// Operation is one change that a client asks for.
struct Operation {
  enum class Kind : uint8_t { kPut, kMetadata, kRemove, kRename } kind = Kind::kPut;
  std::string name, other;  // other: the alias of a put, if any; the new name of a rename
  std::string value;
  uid_t owner = 0;

  size_t machine = 0;
  uint64_t life = 0;  // of the machine
  Time invoked{}, answered{};
  uint64_t version_when_invoked = 0;  // that the store had
  bool is_answered = false;
  KsResult result = 0;
  uint64_t happened_at = 0;  // the version that it became part of
  KsResult decided = 0;      // there

  // A rename to the name that an entry has already.
  bool changes_nothing() const { return kind == Kind::kRename && name == other; }
};

// PlainRow and PlainTable are the model: rows in the order of their ids.
struct PlainRow {
  uint64_t id;
  std::string name, alias, value, metadata;
  uid_t owner;
  friend bool operator==(const PlainRow &, const PlainRow &) = default;
};

struct PlainTable {
  std::vector<PlainRow> rows;
  uint64_t last_id = 0;

  PlainRow *find(const std::string &name);

  // make makes the change, or gives why it can't be made.
  KsResult make(const Operation &operation, const vault::Limits &limits);
};

class Checker {
 public:
  // Each change is answered within `write_wait` and what it takes to notice.
  Checker(const vault::Limits &limits, Time write_wait, Events &events)
      : limits_(limits), answered_within_(write_wait + 100ms), events_(events) {
    versions_.push_back({std::make_shared<PlainTable>(), {}, Time{}});
  }

  const std::string &violation() const { return violation_; }
  void fail(const std::string &what);

  // Tickets are positions in the list of operations.
  std::vector<Operation> operations;

  uint64_t version() const { return versions_.size() - 1; }
  const PlainTable &table() const { return *versions_.back().table; }
  const PlainTable &table_at(uint64_t version) const { return *versions_[version].table; }
  uint64_t folder() const { return folder_; }

  // happened is told of each commit that the store has made, with the changes in it; `header` is opened by the
  // checker's own key.
  void happened(const Commit &commit, const FleetHeader &header, const std::vector<PlainRow> &rows,
                const std::vector<Ticket> &tickets);
  // restored is told when a backup took the place of all that there was. Its rows stand in the store by then.
  void restored(const FleetHeader &header, const HeaderHash &hash, const PlainTable &backup,
                const std::vector<PlainRow> &rows);

  // answered is told of each answer; `group` are the changes that it was decided with last, if they wrote nothing.
  void answered(Ticket ticket, KsResult result, const Core &core, const std::vector<Ticket> &group);

  // read compares all that a machine has in memory, and how old it says that it is. `last` is the version that was read
  // there before.
  void read(const Core &core, Time max_age, uint64_t &last);

  // ended looks at what can only be known at the end.
  void ended();

  bool was_refused_for_space = false;

 private:
  struct Version {
    std::shared_ptr<const PlainTable> table;
    HeaderHash hash;
    Time since;
  };
  bool could_have_given(const Operation &operation, KsResult result) const;
  bool came_to_nothing(const std::vector<Ticket> &group, uint64_t since) const;

  const vault::Limits limits_;
  const Time answered_within_;
  Events &events_;
  std::vector<Version> versions_;  // by version; 0: before the first header
  uint64_t incarnation_ = 1, folder_ = 0;
  std::string violation_;
};

}  // namespace ksd::fleet

#endif
