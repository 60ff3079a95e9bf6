// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// host_database.h: what libsdb and those who look at its files from outside know of them in common.
//
// A database is never synced, since it may be lost at any time: a process that dies leaves everything to the kernel,
// but a machine that goes down leaves a file of which some pages were written and others not. So the gate's file tells
// in which run of the machine the entries were made, in a mark that is read before anything of LMDB's; what another run
// has left, or another machine, or another version of the format, is thrown away without being looked at.
#ifndef HOST_DATABASE_H
#define HOST_DATABASE_H

#include <cstddef>
#include <cstdint>

namespace host {

// Where libks keeps its PACs.
constexpr char kCacheName[] = "sksd_ks_cache_data";

constexpr char kGateEnding[] = "-gate";

// LMDB's format depends on the width of words, so programs of 32 and 64 bits keep separate files.
struct DatabaseFormat {
  int width;
  const char *ending;
  size_t map_size;        // and that of the file
  size_t page_head_size;  // what stands before LMDB's magic number
};
constexpr DatabaseFormat kDatabase32 = {32, "-32.mdb", size_t{48} << 20, 12};
constexpr DatabaseFormat kDatabase64 = {64, "-64.mdb", size_t{128} << 20, 16};
constexpr DatabaseFormat kOwnDatabase = sizeof(void *) == 8 ? kDatabase64 : kDatabase32;

constexpr uint32_t kLmdbMagic = 0xbeefc0de;

// DatabaseMark is a line: the number of this format, a blank, and the kernel's id of the machine's run.
struct DatabaseMark {
  char text[2 + 36 + 1];
};

// mark_of_this_run gives false and errno when the kernel doesn't tell the id.
bool mark_of_this_run(DatabaseMark *out_mark);

// has_mark tells whether the gate's file begins with the mark.
bool has_mark(int gate_fd, const DatabaseMark &mark);

}  // namespace host

#endif
