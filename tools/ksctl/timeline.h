// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// timeline.h: what a history tells of exchanges with the service: each with its request, its reply, and what was
// reported between.
#ifndef TOOLS_KSCTL_TIMELINE_H
#define TOOLS_KSCTL_TIMELINE_H

#include <span>
#include <string>

#include "ring.h"
#include "value.h"

namespace ksctl {

struct Exchange {
  std::string name;  // of the message
  uint32_t thread = 0;
  uint64_t begin_ns = 0;
  uint64_t end_ns = 0;
  bool exact = true;         // else the times are those of the clock's last tick
  const char *outcome = "";  // "answered", "not sent", "no reply", "under way"
  std::vector<Record> parts;
};

// Timeline is a process's, in order of time.
struct Timeline {
  std::string program;
  uint32_t pid = 0;
  bool running = false;
  std::vector<Exchange> exchanges;
  std::vector<Record> reports;  // outside of exchanges
};

// timeline_of puts the records of a ring together. The reports of a thread between a request and its reply belong to
// that exchange. A time that isn't exact is at least that of what the thread recorded before.
Timeline timeline_of(const Ring &ring);

// time_in_words words a time since 1970, to the microsecond.
std::string time_in_words(uint64_t time_ns);

// draw words and draws timelines for a terminal.
std::string draw(std::span<const Timeline> timelines);

// to_value tells them as one object.
Object to_value(std::span<const Timeline> timelines);

// page gives them as one page of HTML that needs nothing but itself.
std::string page(std::span<const Timeline> timelines);

}  // namespace ksctl

#endif
