// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// operations.h: the operations that run one exchange, each with what its callers are promised about failures, spelt out
// literally a second time beside the library's own catalogue.
#ifndef TESTS_CONTRACT_OPERATIONS_H
#define TESTS_CONTRACT_OPERATIONS_H

#include "scripted.h"

namespace contract {

using Flow = std::vector<std::string>;

inline Flow operator+(Flow left, const Flow &right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

// NoMemory is what comes of one call whose n-th allocation fails.
struct NoMemory {
  KsResult result;
  Flow flow;          // every allocation, the failing one among them, and what is released of them; messages, too
  Flow reports = {};  // behind those that every call makes
  Flow left = {};     // what stays allocated, by kind and size: "calloc 35"
  scripted::Bytes outputs = {};  // empty: all untouched
};

struct Operation {
  std::string name;
  uint32_t op;

  // call runs the operation with good arguments on outputs filled with 0xee; outputs gives all output bytes (pointers
  // handed out count as bytes too). cleanup, if set, releases what a successful call handed out.
  std::function<KsResult()> call;
  std::function<scripted::Bytes()> outputs = [] { return scripted::Bytes(); };
  std::function<void()> cleanup = [] {};

  scripted::Bytes good_reply;

  KsResult send_failure;
  KsResult recv_failure;
  std::string send_text;  // what is reported with error number 17; empty: nothing
  std::string recv_text;

  // Allocations, messages, releases and drops in their order, as scripted::Test::flow gives them.
  Flow success_flow;
  Flow send_failure_flow;
  Flow recv_failure_flow;

  // What comes of each allocation's failure, in the order of the allocations.
  std::vector<NoMemory> no_memory = {};
  // Reports that every call makes in front of all others.
  Flow entry_reports = {};

  // Blocks that stay allocated, where that is promised, as NoMemory::left tells of them.
  Flow leaked = {};
  Flow leaked_on_send_failure = {};
  Flow leaked_on_recv_failure = {};
};

// A file for each family.
std::vector<Operation> device_operations();
std::vector<Operation> crypto_operations();
std::vector<Operation> pac_operations();
std::vector<Operation> secret_operations();

std::vector<Operation> all_operations();

inline void PrintTo(const Operation &operation, std::ostream *out) {
  *out << operation.name;
}

}  // namespace contract

#endif
