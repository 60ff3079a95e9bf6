// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// quietly.h: for commands that do by themselves what else a service does.
#ifndef TOOLS_KSCTL_QUIETLY_H
#define TOOLS_KSCTL_QUIETLY_H

#include <spdlog/spdlog.h>

#include "command.h"
#include "vault/seal.h"

namespace ksctl {

// quietly keeps what the vault's code logs for a service off the terminal.
template <void (*kRun)(Session &, const Arguments &)>
void quietly(Session &session, const Arguments &arguments) {
  spdlog::set_level(spdlog::level::off);
  ksd::vault::start_sodium();
  kRun(session, arguments);
}

}  // namespace ksctl

#endif
