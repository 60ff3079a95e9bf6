// operations.h: the operations that run one exchange, each with what its callers are promised about failures, spelt out
// literally a second time beside the library's own catalogue.
#ifndef TESTS_CONTRACT_OPERATIONS_H
#define TESTS_CONTRACT_OPERATIONS_H

#include "scripted.h"

namespace contract {

using Flow = std::vector<std::string>;

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

  // What the operation answers when its n-th allocation fails, for each allocation it makes.
  std::vector<KsResult> no_memory = {};
  // Reports that every call makes besides, in front of and behind those of a failed exchange.
  Flow entry_reports = {};
  Flow exit_reports = {};

  // Sizes of the blocks that stay allocated, where that is promised.
  std::vector<size_t> leaked = {};
  std::vector<size_t> leaked_on_send_failure = {};
  std::vector<size_t> leaked_on_recv_failure = {};
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
