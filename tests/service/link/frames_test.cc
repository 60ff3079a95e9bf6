// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What daemon and engine say to each other, byte by byte, and what neither believes.
#include "link/frames.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

namespace {

using ksd::Bytes;
using ksd::fleet::KeyValue;
using ksd::link::FromEngine;
using ksd::link::Incoming;
using ksd::link::ToEngine;
using testing::ElementsAre;

using Octets = std::vector<uint8_t>;

Octets octets(std::string_view text) {
  return {text.begin(), text.end()};
}

template <typename Message>
Octets frame_of(const Message &message) {
  Octets frame;
  EXPECT_TRUE(append(message, frame));
  return frame;
}

// Without its size.
Bytes body(const Octets &frame) {
  return Bytes(frame).subspan(4);
}

void arrive(Incoming &incoming, Bytes bytes) {
  while (!bytes.empty()) {
    const auto room = incoming.room();
    const size_t size = std::min(room.size(), bytes.size());
    std::memcpy(room.data(), bytes.data(), size);
    incoming.added(size);
    bytes = bytes.subspan(size);
  }
}

TEST(Frames, HaveTheirSizeTheirKindAndTheirFields) {
  const ksd::fleet::Commit commit{7, 0x0102, {{"h", {0xaa, 0xbb}, 0}}, {"e/1"}, std::chrono::milliseconds(5000)};
  EXPECT_THAT(frame_of(ToEngine(commit)),
              ElementsAre(61, 0, 0, 0, 1,                                       // of Commit
                          7, 0, 0, 0, 0, 0, 0, 0, 1, 2, 1, 0, 0, 0, 0, 0, 0,    // id, header's revision
                          1, 0, 0, 0, 1, 0, 0, 0, 'h', 2, 0, 0, 0, 0xaa, 0xbb,  // puts
                          0, 0, 0, 0, 0, 0, 0, 0,                               // revision, without meaning
                          1, 0, 0, 0, 3, 0, 0, 0, 'e', '/', '1',                // deletes
                          0x88, 0x13, 0, 0, 0, 0, 0, 0, 0));                    // limit, no restore's revision
  EXPECT_THAT(frame_of(FromEngine(ksd::fleet::Failed{9, ksd::fleet::Failure::kNoSpace, "no"})),
              ElementsAre(16, 0, 0, 0, 0x83, 9, 0, 0, 0, 0, 0, 0, 0, 3, 2, 0, 0, 0, 'n', 'o'));
  EXPECT_THAT(frame_of(FromEngine(ksd::fleet::HeaderIs{9, std::nullopt, 5})),
              ElementsAre(18, 0, 0, 0, 0x84, 9, 0, 0, 0, 0, 0, 0, 0, 0, 5, 0, 0, 0, 0, 0, 0, 0));
}

TEST(Frames, AreReadAsTheyWereWritten) {
  const KeyValue row{"e/0000000000000001", octets("sealed"), 44};
  const FromEngine reports[] = {
      ksd::link::Started{},
      ksd::fleet::Committed{1, 2},
      ksd::fleet::Refused{1, row, 3},
      ksd::fleet::Failed{1, ksd::fleet::Failure::kDenied, "why"},
      ksd::fleet::HeaderIs{1, row, 3},
      ksd::fleet::LoadedRows{1, {row, row}},
      ksd::fleet::Loaded{1, std::nullopt, 3},
      ksd::fleet::Changed{1, 4, {row}, {"e/1", "e/2"}},
      ksd::fleet::WatchBroken{1, 5},
      ksd::fleet::BeatsAre{1, {row}, 6},
      ksd::link::Stopped{"why"},
  };
  static_assert(std::size(reports) == std::variant_size_v<FromEngine>);
  for (const FromEngine &report : reports) {
    const Octets frame = frame_of(report);
    const auto read = ksd::link::read_from_engine(body(frame));
    ASSERT_TRUE(read) << "kind " << report.index();
    EXPECT_EQ(read->index(), report.index());
    EXPECT_EQ(frame_of(*read), frame);
  }
  const ToEngine requests[] = {
      ksd::link::Start{
          .version = 1, .endpoints = {"a:1", "b:2"}, .prefix = "p/", .ca = "c", .certificate = "d", .key = "k"},
      ksd::fleet::Commit{1, 2, {row}, {"e/1"}, std::chrono::milliseconds(9)},
      ksd::fleet::Commit{1, std::nullopt, {row}, {}, std::chrono::milliseconds(9), 3},
      ksd::fleet::ReadHeader{1, std::chrono::milliseconds(9)},
      ksd::fleet::Load{1},
      ksd::fleet::Watch{1, 2},
      ksd::fleet::Beat{1, "m", octets("v"), std::chrono::milliseconds(9)},
      ksd::fleet::ReadBeats{1, std::chrono::milliseconds(9)},
  };
  static_assert(std::size(requests) == std::variant_size_v<ToEngine> + 1);
  for (const ToEngine &request : requests) {
    const Octets frame = frame_of(request);
    const auto read = ksd::link::read_to_engine(body(frame));
    ASSERT_TRUE(read) << "kind " << request.index();
    EXPECT_EQ(frame_of(*read), frame);
  }
}

TEST(Frames, AreRefusedWhenAnyByteIsMissingOrTooMany) {
  const Octets frame = frame_of(FromEngine(ksd::fleet::Changed{1, 4, {{"e/1", octets("v"), 4}}, {"e/2"}}));
  for (size_t size = 0; size < frame.size() - 4; ++size) {
    EXPECT_FALSE(ksd::link::read_from_engine(body(frame).first(size))) << size;
  }
  Octets longer = frame;
  longer.push_back(0);
  EXPECT_FALSE(ksd::link::read_from_engine(body(longer)));
}

TEST(Frames, AreRefusedOfAKindThatTheOtherSideDoesNotSay) {
  const Octets request = frame_of(ToEngine(ksd::fleet::Load{1}));
  const Octets report = frame_of(FromEngine(ksd::fleet::WatchBroken{1, 5}));
  EXPECT_FALSE(ksd::link::read_from_engine(body(request)));
  EXPECT_FALSE(ksd::link::read_to_engine(body(report)));
  // With fields that are right for the kind, but the bit of the other direction.
  Octets turned = report;
  turned[4] &= 0x7f;
  EXPECT_FALSE(ksd::link::read_from_engine(body(turned)));
  turned = request;
  turned[4] |= 0x80;
  EXPECT_FALSE(ksd::link::read_to_engine(body(turned)));
  for (const int kind : {0x8b, 0xff, 0x7f}) {
    Octets other = report;
    other[4] = static_cast<uint8_t>(kind);
    EXPECT_FALSE(ksd::link::read_from_engine(body(other))) << kind;
  }
}

TEST(Frames, AreRefusedWithNumbersThatMeanNothing) {
  Octets failed = frame_of(FromEngine(ksd::fleet::Failed{1, ksd::fleet::Failure::kDenied, "why"}));
  failed[4 + 1 + 8] = 5;  // behind the last kind of failure
  EXPECT_FALSE(ksd::link::read_from_engine(body(failed)));
  Octets header = frame_of(FromEngine(ksd::fleet::HeaderIs{1, std::nullopt, 1}));
  header[4 + 1 + 8] = 2;  // neither there nor not there
  EXPECT_FALSE(ksd::link::read_from_engine(body(header)));
  const Octets beat = frame_of(ToEngine(ksd::fleet::ReadBeats{1, std::chrono::hours(2)}));
  EXPECT_FALSE(ksd::link::read_to_engine(body(beat)));
}

TEST(Frames, AreRefusedWithMoreElementsThanAListHas) {
  ksd::fleet::Changed changed{1, 4, {}, std::vector<std::string>(ksd::link::kMostItems)};
  EXPECT_TRUE(ksd::link::read_from_engine(body(frame_of(FromEngine(changed)))));
  changed.deletes.emplace_back();
  EXPECT_FALSE(ksd::link::read_from_engine(body(frame_of(FromEngine(changed)))));
}

TEST(Frames, AreRefusedWithAReasonThatTheLogIsNotToHave) {
  for (const std::string &why : {std::string("two\nlines"), std::string("\x1b[31m"), std::string(201, 'x')}) {
    EXPECT_FALSE(ksd::link::read_from_engine(body(frame_of(FromEngine(ksd::fleet::Failed{1, {}, why})))));
    EXPECT_TRUE(
        ksd::link::read_from_engine(body(frame_of(FromEngine(ksd::fleet::Failed{1, {}, ksd::link::one_line(why)})))));
  }
}

TEST(Frames, HaveReasonsOfWhatCanBePrintedAlone) {
  EXPECT_EQ(ksd::link::one_line("a \x1f\x7f\x80\xff~"), "a ????~");
  EXPECT_EQ(ksd::link::one_line(std::string(201, 'x')), std::string(200, 'x'));
}

TEST(Frames, AreNotWrittenLargerThanAnybodyReadsThem) {
  Octets out = octets("before");
  EXPECT_FALSE(append(FromEngine(ksd::fleet::HeaderIs{1, KeyValue{"h", Octets(ksd::link::kMostFrame), 1}, 1}), out));
  EXPECT_FALSE(
      append(FromEngine(ksd::fleet::HeaderIs{1, KeyValue{"h", Octets(ksd::link::kMostFrame - 38), 1}, 1}), out));
  EXPECT_EQ(out, octets("before"));
  Octets largest;
  ASSERT_TRUE(
      append(FromEngine(ksd::fleet::HeaderIs{1, KeyValue{"h", Octets(ksd::link::kMostFrame - 39), 1}, 1}), largest));
  ASSERT_EQ(largest.size(), ksd::link::kMostFrame);
  Incoming incoming;
  arrive(incoming, largest);
  EXPECT_TRUE(incoming.next());
}

TEST(Frames, AreCutOutOfWhatArrivesByteByByte) {
  Octets stream;
  for (uint64_t id = 1; id <= 3; ++id) append(FromEngine(ksd::fleet::Committed{id, id}), stream);
  Incoming incoming;
  std::vector<uint64_t> ids;
  for (const uint8_t &byte : stream) {
    arrive(incoming, Bytes(&byte, 1));
    while (const auto frame = incoming.next()) {
      const auto report = ksd::link::read_from_engine(*frame);
      ASSERT_TRUE(report);
      ids.push_back(std::get<ksd::fleet::Committed>(*report).id);
    }
  }
  EXPECT_THAT(ids, ElementsAre(1, 2, 3));
  EXPECT_FALSE(incoming.broken());
}

TEST(Frames, AnnouncedLargerThanAnyEndTheStream) {
  Incoming incoming;
  const uint32_t size = ksd::link::kMostFrame - 4 + 1;
  arrive(incoming, Bytes(reinterpret_cast<const uint8_t *>(&size), sizeof size));
  EXPECT_FALSE(incoming.next());
  EXPECT_TRUE(incoming.broken());
}

}  // namespace
