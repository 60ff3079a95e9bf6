// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What the log says of the counters.
#include "server/counter_lines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using ksd::Counters;
using ksd::Event;
using ksd::server::counter_lines;
using testing::ElementsAre;

TEST(CounterLines, SayThatNothingHasHappenedInOneLine) {
  EXPECT_THAT(counter_lines(Counters{}), ElementsAre("no messages"));
}

TEST(CounterLines, AreOfWhatHasHappenedAlone) {
  Counters counters;
  for (int i = 0; i < 3; ++i) counters.message(66561, true);
  counters.message(66562, false);
  counters.message(66594, true);
  counters.message(66594, false);
  counters.add(Event::kConnected);
  counters.add(Event::kConnected);
  counters.add(Event::kUnread);
  EXPECT_THAT(counter_lines(counters),
              ElementsAre("messages: random 3, store secret 0 and 1 failed, compaction 1 and 1 failed",
                          "events: connections 2, unread replies 1"));
}

}  // namespace
