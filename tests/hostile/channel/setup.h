// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// setup.h: a service whose administrator is the test's own user, and which has room for its files in memory.
#ifndef TESTS_HOSTILE_CHANNEL_SETUP_H
#define TESTS_HOSTILE_CHANNEL_SETUP_H

#include <unistd.h>

#include <string>

#include "service/service_process.h"

// setup_with sets limits: lines of the configuration.
inline ks_test::ServiceSetup setup_with(const std::string &limits) {
  const std::string uid = std::to_string(getuid());
  return {.config = "[service]\ncache_uri = \"lmdb://@dir@/cache\"\n[limits]\n" + limits +
                    "[administrators]\nusers = [" + uid + "]\n[[vdc]]\nid = 7\nusers = [" + uid + "]\n",
          .parent = "/dev/shm"};
}

#endif
