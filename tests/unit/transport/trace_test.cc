// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "transport/trace.h"

#include "scripted.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Trace : public scripted::Test {};

TEST_F(Trace, PassesTheUsedPartOfTheRecordToTheHistory) {
  KS_TRACE(KS_SUBTYPE_NORMAL, "code %d, %s", 12, "text");

  EXPECT_THAT(traces(true), ElementsAre("103:code 12, text"));
  EXPECT_THAT(trace.lengths, ElementsAre(4 + 13 + 1));
}

TEST_F(Trace, TakesAnEmptyMessageAsFiveBytes) {
  KS_TRACE(KS_SUBTYPE_NORMAL, "%s", "");

  EXPECT_THAT(trace.lengths, ElementsAre(5));
}

TEST_F(Trace, Keeps511CharactersWhole) {
  const std::string longest(511, 'x');
  KS_TRACE(KS_SUBTYPE_CACHE_ALERT, "%s", longest.c_str());

  EXPECT_THAT(traces(true), ElementsAre("100:" + longest));
  EXPECT_THAT(trace.lengths, ElementsAre(516));
}

TEST_F(Trace, CutsLongerMessagesInTheHistoryOnly) {
  trace.open_both();
  const std::string longer(600, 'x');
  KS_TRACE(KS_SUBTYPE_NORMAL, "%s", longer.c_str());

  EXPECT_THAT(traces(), ElementsAre(std::string(511, 'x')));
  EXPECT_THAT(trace.lengths, ElementsAre(516));
  EXPECT_THAT(trace.debug_lines, ElementsAre(longer));
}

TEST_F(Trace, EvaluatesArgumentsOnceForEachOpenHalf) {
  int evaluated = 0;
  trace.open_both();
  KS_TRACE(KS_SUBTYPE_NORMAL, "%d", ++evaluated);
  EXPECT_THAT(traces(), ElementsAre("1"));
  EXPECT_THAT(trace.debug_lines, ElementsAre("2"));

  trace.history_open = {};
  KS_TRACE(KS_SUBTYPE_NORMAL, "%d", ++evaluated);
  EXPECT_THAT(trace.debug_lines, ElementsAre("2", "3"));
  EXPECT_EQ(evaluated, 3);
}

TEST_F(Trace, AsksBothGatesAndEvaluatesNothingWhenTheyAreShut) {
  int evaluated = 0;
  trace.close();
  KS_TRACE(KS_SUBTYPE_NORMAL, "%d", ++evaluated);

  EXPECT_EQ(evaluated, 0);
  EXPECT_THAT(scripted::platform().log, IsEmpty());
  EXPECT_EQ(trace.history_checks, 1);
  EXPECT_EQ(trace.debug_checks, 1);
}

TEST_F(Trace, HasAGateOfItsOwnForEachSubtype) {
  trace.history_open = {{100, true}, {103, false}};
  trace.debug_open = {{100, false}, {103, true}};
  KS_TRACE(KS_SUBTYPE_NORMAL, "normal");
  KS_TRACE(KS_SUBTYPE_CACHE_ALERT, "alert");

  EXPECT_THAT(traces(), ElementsAre(scripted::alert("alert")));
  EXPECT_THAT(trace.debug_lines, ElementsAre("normal"));
}

}  // namespace
