// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The table that leads from an opcode to its handler, and what is answered for a handler that misbehaves.
#include "handlers/dispatch.h"

#include <new>
#include <stdexcept>

#include "keystore.h"

namespace ksd::handlers {
namespace {

using testing::ElementsAre;

using Wire = std::vector<uint8_t>;

TEST(Dispatcher, KnowsNoOpcodeOutsideTheCatalogue) {
  const Dispatcher dispatcher;
  for (const uint32_t opcode : {0u, 1u, 66560u, 66589u, 66590u, 66591u, 66592u, 66595u, 0xffffffffu}) {
    EXPECT_EQ(dispatcher.find(opcode), nullptr) << opcode;
  }
}

TEST(Dispatcher, KnowsTheMessagesOfTheDevice) {
  const Dispatcher dispatcher;
  for (const uint32_t opcode : {66561u, 66593u, 66594u}) {
    ASSERT_NE(dispatcher.find(opcode), nullptr) << opcode;
    EXPECT_EQ(dispatcher.find(opcode)->opcode, opcode);
  }
}

// A dispatcher of one row, whose handler misbehaves.
Wire answer_of(Handler handler) {
  const Row row{66561, "test", handler};
  const Dispatcher dispatcher(std::span(&row, 1));
  Keystore keystore;
  Reply reply;
  reply.data(Wire{1, 2, 3});  // of an earlier request
  dispatcher.answer(keystore.service, Request{66561, {}, 0, keystore.caller}, reply);
  EXPECT_EQ(keystore.service.counters.failed(66561), 1u);
  return {reply.payload().begin(), reply.payload().end()};
}

TEST(Dispatcher, AnswersForAHandlerThatRanOutOfMemory) {
  EXPECT_THAT(answer_of([](Service &, const Request &, Reply &) { throw std::bad_alloc(); }), ElementsAre(4, 0, 0, 0));
}

TEST(Dispatcher, AnswersForAHandlerThatBrokeOff) {
  EXPECT_THAT(answer_of([](Service &, const Request &, Reply &reply) {
                reply.data(Wire{9});
                throw std::runtime_error("secret");
              }),
              ElementsAre(2, 0, 0, 0));
}

// A store that doesn't know must not be taken for one that says no.
TEST(Dispatcher, AnswersWithTheCodeOfAStoreThatCantBeRead) {
  EXPECT_THAT(answer_of([](Service &, const Request &, Reply &) { throw vault::Unavailable(KS_FW_COMM_ERROR); }),
              ElementsAre(12, 0, 0, 0));
}

TEST(Dispatcher, AnswersForAHandlerThatSaidNothing) {
  EXPECT_THAT(answer_of([](Service &, const Request &, Reply &) {}), ElementsAre(2, 0, 0, 0));
}

}  // namespace
}  // namespace ksd::handlers
