// What handlers stand on: names, requests, replies, and the table that leads to them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>
#include <stdexcept>

#include "handlers/dispatch.h"
#include "handlers/handler.h"
#include "handlers/service.h"

namespace {

using ksd::Bytes;
using ksd::Caller;
using ksd::entry_name;
using ksd::Reply;
using ksd::Request;
using ksd::wire_name;
using testing::ElementsAre;
using testing::SizeIs;

using Wire = std::vector<uint8_t>;

TEST(EntryName, DecodesTagVdcAndName) {
  const auto name = entry_name(Wire{0x31, 0, 0x01, 0x02, 0xff, 0x00});
  ASSERT_TRUE(name);
  EXPECT_EQ(name->tag, 0x31);
  EXPECT_EQ(name->vdc_id, 0x0102);
  EXPECT_EQ(name->name, std::string("\xff\0", 2));
}

TEST(EntryName, TakesOneTo31Bytes) {
  Wire wire{0x30, 0, 0, 7};
  EXPECT_FALSE(entry_name(wire));
  wire.resize(5, 'a');
  EXPECT_TRUE(entry_name(wire));
  wire.resize(35, 'a');
  EXPECT_TRUE(entry_name(wire));
  wire.resize(36, 'a');
  EXPECT_FALSE(entry_name(wire));
  EXPECT_FALSE(entry_name({}));
}

TEST(EntryName, RefusesAnotherTagAndAnotherSecondByte) {
  EXPECT_FALSE(entry_name(Wire{0x32, 0, 0, 7, 'a'}));
  EXPECT_FALSE(entry_name(Wire{0x00, 0, 0, 7, 'a'}));
  EXPECT_FALSE(entry_name(Wire{0x30, 1, 0, 7, 'a'}));
}

TEST(WireName, IsTagZeroBigEndianVdcAndName) {
  EXPECT_THAT(wire_name({0x30, 0x0107, "k1"}), ElementsAre(0x30, 0, 0x01, 0x07, 'k', '1'));
}

TEST(RequestSection, LiesWhollyBehindTheDescriptor) {
  const Wire message{1, 2, 3, 4, 5};
  const Caller caller;
  const Request request{66561, message, 2, caller};
  EXPECT_THAT(*request.section(2, 3), ElementsAre(3, 4, 5));
  EXPECT_THAT(*request.section(5, 0), SizeIs(0));
  EXPECT_FALSE(request.section(1, 1));
  EXPECT_FALSE(request.section(2, 4));
  EXPECT_FALSE(request.section(6, 0));
  EXPECT_FALSE(request.section(5, SIZE_MAX));
  EXPECT_FALSE(request.section(SIZE_MAX, 1));
}

TEST(RequestDescriptor, HasExactlyTheSizeOfItsRecord) {
  const Wire message{1, 2, 3};
  const Caller caller;
  EXPECT_EQ((Request{66561, message, 2, caller}.descriptor<uint16_t>()), 0x0201);
  EXPECT_FALSE((Request{66561, message, 3, caller}.descriptor<uint16_t>()));
  EXPECT_FALSE((Request{66561, message, 1, caller}.descriptor<uint16_t>()));
}

TEST(Reply, IsAResultAlone) {
  Reply reply;
  reply.result(5);
  EXPECT_THAT(reply.payload(), ElementsAre(5, 0, 0, 0));
}

TEST(Reply, IsSuccessLengthAndData) {
  Reply reply;
  reply.data(Wire{0xaa, 0xbb});
  EXPECT_THAT(reply.payload(), ElementsAre(1, 0, 0, 0, 2, 0, 0xaa, 0xbb));
  reply.data({});
  EXPECT_THAT(reply.payload(), ElementsAre(1, 0, 0, 0, 0, 0));
}

TEST(Reply, SaysWhenDataIsTooLongForItsLength) {
  Reply reply;
  reply.data(Wire(65535, 1));
  EXPECT_THAT(reply.payload(), SizeIs(6 + 65535));
  reply.data(Wire(65536, 1));
  EXPECT_THAT(reply.payload(), ElementsAre(25, 0, 0, 0));
}

TEST(Dispatcher, KnowsNoOpcodeOutsideTheCatalogue) {
  const ksd::Dispatcher dispatcher;
  for (const uint32_t opcode : {0u, 1u, 66560u, 66589u, 66590u, 66591u, 66592u, 66595u, 0xffffffffu}) {
    EXPECT_EQ(dispatcher.find(opcode), nullptr) << opcode;
  }
}

TEST(Dispatcher, KnowsTheMessagesOfTheDevice) {
  const ksd::Dispatcher dispatcher;
  for (const uint32_t opcode : {66561u, 66593u, 66594u}) {
    ASSERT_NE(dispatcher.find(opcode), nullptr) << opcode;
    EXPECT_EQ(dispatcher.find(opcode)->opcode, opcode);
  }
}

// A dispatcher of one row, whose handler misbehaves.
Wire answer_of(ksd::Handler handler) {
  const ksd::Row row{66561, "test", handler};
  const ksd::Dispatcher dispatcher(std::span(&row, 1));
  ksd::Service service(std::make_shared<ksd::Config>());
  const Caller caller;
  Reply reply;
  reply.data(Wire{1, 2, 3});  // of an earlier request
  dispatcher.answer(service, Request{66561, {}, 0, caller}, reply);
  EXPECT_EQ(service.counters.failed(66561), 1u);
  return {reply.payload().begin(), reply.payload().end()};
}

TEST(Dispatcher, AnswersForAHandlerThatRanOutOfMemory) {
  EXPECT_THAT(answer_of([](ksd::Service &, const Request &, Reply &) { throw std::bad_alloc(); }),
              ElementsAre(4, 0, 0, 0));
}

TEST(Dispatcher, AnswersForAHandlerThatBrokeOff) {
  EXPECT_THAT(answer_of([](ksd::Service &, const Request &, Reply &reply) {
                reply.data(Wire{9});
                throw std::runtime_error("secret");
              }),
              ElementsAre(2, 0, 0, 0));
}

TEST(Dispatcher, AnswersForAHandlerThatSaidNothing) {
  EXPECT_THAT(answer_of([](ksd::Service &, const Request &, Reply &) {}), ElementsAre(2, 0, 0, 0));
}

}  // namespace
