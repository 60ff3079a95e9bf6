// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// libsdwrap: the two halves of a report, and the message events.
#include <stdarg.h>

#include <cctype>

#include "scripted.h"

namespace scripted {

std::string alert(const std::string &text) {
  return "100:" + text;
}

std::string Report::marked() const {
  constexpr uint32_t kNormal = 103;
  return subtype == kNormal ? text : std::to_string(subtype) + ":" + text;
}

// The line number of "name(123)" at a text's beginning is not promised.
static std::string normalised(const std::string &text) {
  const auto end_of = [&text](size_t at, auto belongs) {
    while (at < text.size() && belongs(static_cast<unsigned char>(text[at]))) ++at;
    return at;
  };
  const size_t open = end_of(0, [](int c) { return isalnum(c) || c == '_'; });
  if (open == 0 || open == text.size() || text[open] != '(') return text;
  const size_t close = end_of(open + 1, [](int c) { return isdigit(c); });
  if (close == open + 1 || close == text.size() || text[close] != ')') return text;
  return text.substr(0, open + 1) + "#" + text.substr(close);
}

}  // namespace scripted

using namespace scripted;

char sdwrap_dbg_modname[] = "ks";

int sdwrap_hist_event_subtype_check(uint32_t event, uint32_t subtype) {
  EXPECT_EQ(event, 0x730000u);
  ++platform().trace.history_checks;
  platform().trace.asked = subtype;
  return platform().trace.history_open[subtype] ? 0 : 1;
}

int sdwrap_hist_event(uint32_t event, uint32_t length, const void *record) {
  EXPECT_EQ(event, 0x730000u);
  KsHistRecord copy = {};
  std::memcpy(&copy, record, length);
  EXPECT_EQ(copy.text[length - 5], '\0') << "the text is not terminated at its length";
  platform().trace.lengths.push_back(length);
  EXPECT_EQ(copy.subtype, platform().trace.asked) << "recorded behind another subtype's gate";
  platform().trace.reports.push_back({copy.subtype, normalised(copy.text)});
  note("report " + platform().trace.reports.back().marked());
  return -1;  // ignored
}

int sdwrap_chk_int(uint32_t flag, uint32_t zero1, uint32_t zero2, uint32_t one) {
  EXPECT_EQ(zero1, 0u);
  EXPECT_EQ(zero2, 0u);
  EXPECT_EQ(one, 1u);
  EXPECT_EQ(flag, platform().trace.asked) << "the halves of one report ask for different subtypes";
  ++platform().trace.debug_checks;
  return platform().trace.debug_open[flag] ? 4 : 0;
}

int buginf(uint32_t one, const void *modname, uint32_t zero, const char *format, ...) {
  EXPECT_EQ(one, 1u);
  EXPECT_EQ(modname, static_cast<const void *>(&sdwrap_dbg_modname));
  EXPECT_EQ(zero, 0u);
  va_list arguments;
  va_start(arguments, format);
  char *line = nullptr;
  EXPECT_GE(vasprintf(&line, format, arguments), 0);
  va_end(arguments);
  platform().trace.debug_lines.push_back(normalised(line));
  note("debug " + platform().trace.debug_lines.back());
  ::free(line);
  return -1;  // ignored
}

int sdwrap_hist_mts_event(uint32_t direction, const KsMtsMessage *message, uint32_t result, uint32_t zero) {
  EXPECT_EQ(zero, 0u);
  EXPECT_TRUE(direction == 3 || direction == 4);
  const bool sent = direction == 4;
  if (result != MTS_FAILED) {
    EXPECT_STREQ(kind_of(message_id(message)), sent ? "sent" : "received");
  }
  note(std::string(sent ? "hist sent" : "hist received") + (result == MTS_FAILED ? " failed" : ""));
  return -1;  // ignored
}
