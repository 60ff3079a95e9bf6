// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// failing_memory.h: takes the place of operator new in a test program, and has it fail at will.
#ifndef TESTS_SUPPORT_FAILING_MEMORY_FAILING_MEMORY_H
#define TESTS_SUPPORT_FAILING_MEMORY_FAILING_MEMORY_H

namespace failing_memory {

// What such a thread allocates is a test's own, and never fails.
extern thread_local bool is_of_test;

// arm has allocations of all other threads fail from the `first`th on, `count` of them.
void arm(long first, long count);

// disarm tells whether one failed.
bool disarm();

}  // namespace failing_memory

#endif
