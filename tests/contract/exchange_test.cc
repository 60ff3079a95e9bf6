// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Every operation through what can go wrong with its exchange: result, report, release order, outputs.
#include <algorithm>

#include "operations.h"

namespace contract {
namespace {

using scripted::Bytes;
using testing::Each;

class EveryOperation : public scripted::Test, public testing::WithParamInterface<Operation> {
 protected:
  const Operation &operation = GetParam();

  Flow reported(const std::string &failure) const {
    return operation.entry_reports + (failure.empty() ? Flow() : Flow{failure});
  }

  void expect_left(const Flow &blocks) {
    EXPECT_EQ(heap.left(), blocks);
    expect_leaked(heap.live());
  }
};

INSTANTIATE_TEST_SUITE_P(Catalogue, EveryOperation, testing::ValuesIn(all_operations()),
                         [](const auto &param) { return param.param.name; });

TEST_P(EveryOperation, SendsItsOpcodeOnceAndReleasesInOrder) {
  mts.reply_with(operation.good_reply);
  EXPECT_EQ(operation.call(), KS_SUCCESS);

  EXPECT_EQ(mts.request().op, operation.op);
  EXPECT_EQ(mts.requests.size(), 1u);
  EXPECT_EQ(flow(), operation.success_flow);
  operation.cleanup();
  expect_left(operation.leaked);
}

TEST_P(EveryOperation, AnswersAFailedSendWithItsCodeAndDropsNothing) {
  mts.fail_send(17);
  EXPECT_EQ(operation.call(), operation.send_failure);

  EXPECT_EQ(traces(), reported(operation.send_text));
  EXPECT_EQ(flow(), operation.send_failure_flow);
  EXPECT_THAT(operation.outputs(), Each(0xee));
  expect_left(operation.leaked_on_send_failure);
}

TEST_P(EveryOperation, AnswersAFailedReceiveWithItsCodeAndDropsTheSentMessageOnly) {
  mts.fail_recv(17);
  EXPECT_EQ(operation.call(), operation.recv_failure);

  EXPECT_EQ(traces(), reported(operation.recv_text));
  EXPECT_EQ(flow(), operation.recv_failure_flow);
  EXPECT_THAT(operation.outputs(), Each(0xee));
  expect_left(operation.leaked_on_recv_failure);
}

TEST_P(EveryOperation, AsksForTheErrorNumberOncePerOpenHalf) {
  trace.close();
  mts.fail_send(17);
  operation.call();
  EXPECT_EQ(mts.errno_calls, 0);

  trace.history_open = {{103, true}};
  trace.open_both();
  mts.fail_send(17);
  operation.call();
  EXPECT_EQ(mts.errno_calls, 2);

  const Flow &leaked = operation.leaked_on_send_failure;
  expect_left(leaked + leaked);
}

TEST_P(EveryOperation, SendsOnTheAllOnesQueueBeforeInit) {
  ks_mts_q = 0xffffffff;
  mts.fail_send(9);
  EXPECT_EQ(operation.call(), operation.send_failure);

  EXPECT_EQ(mts.request().queue, 0xffffffffu);
  expect_left(operation.leaked_on_send_failure);
}

TEST_P(EveryOperation, RecordsTheMessageEventsWithEveryGateShut) {
  trace.close();
  mts.fail_recv(17);
  operation.call();

  EXPECT_EQ(events({"hist"}), (Flow{"hist sent", "hist received failed"}));
  expect_left(operation.leaked_on_recv_failure);
}

TEST_P(EveryOperation, PassesOnEveryRefusalWithItsOutputsUntouched) {
  // A code that no operation turns into another.
  mts.reply_with(scripted::result_only(KS_FW_PANIC));
  EXPECT_EQ(operation.call(), KS_FW_PANIC);

  EXPECT_THAT(operation.outputs(), Each(0xee));
  expect_left(operation.leaked);
}

TEST_P(EveryOperation, TellsOfEachAllocationItMakesWhatItsFailureGives) {
  const auto allocates = [](const std::string &event) { return event.find("alloc ") != std::string::npos; };
  const Flow &flow = operation.success_flow;

  EXPECT_EQ(operation.no_memory.size(), static_cast<size_t>(std::count_if(flow.begin(), flow.end(), allocates)));
}

TEST_P(EveryOperation, AnswersReportsAndKeepsForEachFailedAllocationWhatIsPromised) {
  int n = 0;
  for (const NoMemory &expected : operation.no_memory) {
    SCOPED_TRACE("allocation " + std::to_string(++n));
    scripted::platform().log.clear();
    trace.reports.clear();
    heap.fail_nth(n);
    // Whether the call sends anything is seen in its flow.
    mts.script.assign(1, {.payload = operation.good_reply});
    EXPECT_EQ(operation.call(), expected.result);
    mts.script.clear();

    EXPECT_EQ(flow(), expected.flow);
    EXPECT_EQ(traces(), operation.entry_reports + expected.reports);
    EXPECT_EQ(heap.left(), expected.left);
    EXPECT_EQ(mts.undropped(), 0);
    if (expected.outputs.empty()) {
      EXPECT_THAT(operation.outputs(), Each(0xee));
    } else {
      EXPECT_EQ(operation.outputs(), expected.outputs);
    }
    heap.reset();
  }
}

}  // namespace
}  // namespace contract
