// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// own_run.h: an empty /run, for tests of what is found there by default.
#ifndef OWN_RUN_H
#define OWN_RUN_H

#include <sched.h>
#include <sys/mount.h>

// gives_own_run makes /run an empty folder that the calling process alone sees, and that ends with it. Returns false
// where it may not: to do so takes root's rights.
inline bool gives_own_run() {
  return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("none", "/run", "tmpfs", 0, "mode=755") == 0;
}

#endif
