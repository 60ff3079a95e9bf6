// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// tracing.h: gates that this process's environment opens, and where its lines go.
//
// KS_TRACE=family+level[,...] opens gates beside those that the state page opens: family is one of the page's two sets
// of gates, "record" (reports) or "debug" (debug lines), and level the number of a gate or the name of one that the
// library uses, or "all". Reports that it opens are printed too. KS_TRACE_FILE names the file for all lines. Both are
// read once, and not at all by a program that has more rights than its caller.
#ifndef SDWRAP_TRACING_H
#define SDWRAP_TRACING_H

#include <cstddef>

#include "host_wire.h"

namespace sdwrap {

// read_environment reads both, the first time. Returns false while another thread is still at it.
bool read_environment();

// asked_gates are what KS_TRACE opens: null for none, and until the environment has been read.
const HostStatePage *asked_gates();

// write_line writes a line at once to the file of KS_TRACE_FILE, or to standard error, so that lines of many threads
// and processes don't mix. A line that can't be written is lost.
void write_line(const char *line, size_t size);

}  // namespace sdwrap

#endif
