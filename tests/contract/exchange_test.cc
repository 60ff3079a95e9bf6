// Every operation through what can go wrong with its exchange: result, report, release order, outputs.
#include "operations.h"

namespace contract {
namespace {

using scripted::Bytes;
using testing::Each;

class EveryOperation : public scripted::Test, public testing::WithParamInterface<Operation> {
 protected:
  const Operation &operation = GetParam();

  Flow reported(const std::string &failure) const {
    Flow all = operation.entry_reports;
    if (!failure.empty()) all.push_back(failure);
    return all;
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
  expect_leaked(operation.leaked);
}

TEST_P(EveryOperation, AnswersAFailedSendWithItsCodeAndDropsNothing) {
  mts.fail_send(17);
  EXPECT_EQ(operation.call(), operation.send_failure);

  EXPECT_EQ(traces(), reported(operation.send_text));
  EXPECT_EQ(flow(), operation.send_failure_flow);
  EXPECT_THAT(operation.outputs(), Each(0xee));
  expect_leaked(operation.leaked_on_send_failure);
}

TEST_P(EveryOperation, AnswersAFailedReceiveWithItsCodeAndDropsTheSentMessageOnly) {
  mts.fail_recv(17);
  EXPECT_EQ(operation.call(), operation.recv_failure);

  EXPECT_EQ(traces(), reported(operation.recv_text));
  EXPECT_EQ(flow(), operation.recv_failure_flow);
  EXPECT_THAT(operation.outputs(), Each(0xee));
  expect_leaked(operation.leaked_on_recv_failure);
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

  std::vector<size_t> leaked = operation.leaked_on_send_failure;
  leaked.insert(leaked.end(), leaked.begin(), leaked.end());
  expect_leaked(leaked);
}

TEST_P(EveryOperation, SendsOnTheAllOnesQueueBeforeInit) {
  ks_mts_q = 0xffffffff;
  mts.fail_send(9);
  EXPECT_EQ(operation.call(), operation.send_failure);

  EXPECT_EQ(mts.request().queue, 0xffffffffu);
  expect_leaked(operation.leaked_on_send_failure);
}

TEST_P(EveryOperation, RecordsTheMessageEventsWithEveryGateShut) {
  trace.close();
  mts.fail_recv(17);
  operation.call();

  EXPECT_EQ(events({"hist"}), (Flow{"hist sent", "hist received failed"}));
  expect_leaked(operation.leaked_on_recv_failure);
}

TEST_P(EveryOperation, PassesOnEveryRefusalWithItsOutputsUntouched) {
  // A code that no operation turns into another.
  mts.reply_with(scripted::result_only(KS_FW_PANIC));
  EXPECT_EQ(operation.call(), KS_FW_PANIC);

  EXPECT_THAT(operation.outputs(), Each(0xee));
  expect_leaked(operation.leaked);
}

TEST_P(EveryOperation, AnswersAFailedAllocationWithItsCode) {
  for (size_t n = 0; n < operation.no_memory.size(); ++n) {
    mts.answer = [this](const auto &) { return scripted::Answer{.payload = operation.good_reply}; };
    heap.fail_nth(static_cast<int>(n) + 1);
    EXPECT_EQ(operation.call(), operation.no_memory[n]) << "allocation " << n + 1;
  }
  operation.cleanup();
  const std::vector<size_t> live = heap.live();
  expect_leaked(live);
}

}  // namespace
}  // namespace contract
