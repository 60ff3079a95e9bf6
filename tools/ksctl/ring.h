// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ring.h: reads the history rings of processes that run or have ended. What a ring says is another process's word: it
// may be written to at the same time, cut, or filled with anything, and is believed in nothing.
#ifndef TOOLS_KSCTL_RING_H
#define TOOLS_KSCTL_RING_H

#include <cstdint>
#include <string>
#include <vector>

namespace ksctl {

enum class RecordKind { kReport, kSent, kReceived };

// Record is one record of a ring, taken apart.
struct Record {
  RecordKind kind = RecordKind::kReport;
  uint64_t time_ns = 0;  // since 1970
  uint32_t thread = 0;
  bool exact = true;  // else the time is that of the clock's last tick before it

  uint32_t subtype = 0;  // of a report
  std::string function;  // that the report names; empty for none
  uint32_t line = 0;
  std::string text;  // as it stands there, without the end of the line

  uint32_t opcode = 0;  // of a message; 0 for one that wasn't sent
  bool failed = false;
};

struct Ring {
  std::string path;
  std::string program;
  uint32_t pid = 0;
  bool running = false;
  uint64_t overwritten = 0;  // slots that newer records have taken
  uint64_t unreadable = 0;   // of the others: half written when the process ended, or while they were read
  std::vector<Record> records;
};

// level_of names the level of a report as KS_TRACE does: "alert", "normal" or the number.
std::string level_of(uint32_t subtype);

// read_ring reads one ring, of anybody. Throws Failure when it can't be read or isn't one.
Ring read_ring(const std::string &path);

// own_ring_folders gives the folders in which the rings of this user's programs lie that use the service at `socket`.
// Others' folders, and those that others may use, aren't among them.
std::vector<std::string> own_ring_folders(const std::string &socket);

// read_own_rings reads all rings in those folders. A file there that is no ring is passed over.
std::vector<Ring> read_own_rings(const std::string &socket);

}  // namespace ksctl

#endif
