// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// notes.h: what is noted of a run of real machines. Clients note each operation, a witness each version of the header
// as the store's history has it, and whoever makes the faults what was done to which machine. Times are nanoseconds of
// CLOCK_MONOTONIC, which all processes of one computer share.
//
// Every change has a number that no other one has, and writes it into what it stores: so a row tells by itself which
// change made it.
#ifndef TESTS_SUPPORT_FLEET_RUN_NOTES_H
#define TESTS_SUPPORT_FLEET_RUN_NOTES_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ks_types.h"

namespace fleet_run {

// Keys are the entries of a run. Each client thread changes keys of its own, which it shares with the thread of the
// same number on each other machine. So of one machine's changes that go together, no two are of one key.
inline constexpr int kKeysPerThread = 4;

std::string name_of(uint16_t key);
std::optional<uint16_t> key_of(std::string_view name);

// A number tells machine, thread and which operation of the thread it was, counted from 1.
constexpr uint64_t number_of(uint64_t machine, uint64_t thread, uint64_t count) {
  return machine << 56 | thread << 40 | count;
}
constexpr unsigned machine_of(uint64_t number) {
  return static_cast<unsigned>(number >> 56);
}
constexpr uint64_t client_of(uint64_t number) {  // machine and thread
  return number >> 40;
}

enum class Kind : uint8_t { kPut, kMetadata, kRemove, kRename, kRead, kExists };

constexpr bool is_change(Kind kind) {
  return kind < Kind::kRead;
}

// Operation is one call of the library.
struct Operation {
  uint64_t number = 0;
  int64_t invoked = 0;
  int64_t answered = 0;
  uint64_t content = 0;  // of a read: the number in the entry's metadata; of kExists whether there is one
  KsResult result = 0;
  uint16_t key = 0;
  uint16_t other = 0;  // the new name of a rename
  Kind kind = Kind::kPut;
  bool exchange_failed = false;  // the result isn't the service's

  // Whether it happened is for the history to tell.
  bool is_unknown() const { return exchange_failed || result == KS_TIMEOUT; }
};

// RowNote is a row as a version left it: its names as a key, and the numbers of the changes that brought metadata and
// secret.
struct RowNote {
  uint64_t id = 0;
  uint64_t metadata = 0;
  uint64_t secret = 0;
  uint16_t key = 0;
};

// Version is one change of the store.
struct Version {
  uint64_t version = 0;
  uint64_t entry_count = 0;
  unsigned machine = 0;  // that made it
  std::vector<RowNote> puts;
  std::vector<uint64_t> deletes;
};

// Span is when something was so. `machine` is 0 where it was so for all.
struct Span {
  unsigned machine = 0;
  int64_t from = 0, to = 0;
};

struct Start {
  unsigned machine = 0;
  int64_t when = 0;
};

struct Run {
  std::vector<Operation> operations;  // in no order
  std::vector<Version> versions;      // as they followed each other, from 1
  std::vector<Start> starts;          // of services, each before its process was there
  std::vector<Span> frozen;           // services that were stopped or dead
  std::vector<Span> full;             // the store had no space
  std::vector<Span> trouble;          // there was a fault, or the time to get over it
  int64_t max_age = 0;
  int64_t answered_within = 0;
};

// Files. What a program that was killed left half-written at the end is passed over. Throws std::runtime_error.
void append(std::string &out, const Version &version);
void read_operations(const std::string &path, std::vector<Operation> &operations);
void read_versions(const std::string &path, std::vector<Version> &versions);

// read_journal reads lines of a word and numbers: "start MACHINE TIME", "frozen", "full" and "trouble" with MACHINE,
// FROM and TO, "max_age" and "answered_within" with nanoseconds.
void read_journal(const std::string &path, Run &run);

}  // namespace fleet_run

#endif
