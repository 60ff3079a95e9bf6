// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// sdwrap_hooks.h: stands before two calls of the C library, so that no test has to wait.
#ifndef TESTS_HOST_SDWRAP_SDWRAP_HOOKS_H
#define TESTS_HOST_SDWRAP_SDWRAP_HOOKS_H

// Seconds that every clock is ahead.
extern long clock_ahead;

// So many writes to standard error are interrupted from now on.
extern int interrupted_writes;

#endif
