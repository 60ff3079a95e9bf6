// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// sandbox.h: the process gives up what it won't need, so that whoever finds a way to misuse it has little to misuse: of
// the file system, all but a few folders (Landlock); of the kernel, all calls but those of a service on a Unix socket
// that starts threads and no programs (seccomp); and memory that is both written and executed.
#ifndef SERVICE_SERVER_SANDBOX_H
#define SERVICE_SERVER_SANDBOX_H

#include <string>
#include <vector>

#include "config/config.h"

namespace ksd::server {

// FileNeeds are folders, with all below them. One that isn't there is left out.
struct FileNeeds {
  std::vector<std::string> changed;  // and read
  std::vector<std::string> read;
};

// confine gives it up for the calling thread and those that it starts. What the kernel can't do is left out and logged,
// unless the sandbox is required: then std::runtime_error is thrown.
void confine(config::Sandbox sandbox, const FileNeeds &needs);

}  // namespace ksd::server

#endif
