// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// confirm.h: a last question before something can't be taken back.
#ifndef TOOLS_KSCTL_CONFIRM_H
#define TOOLS_KSCTL_CONFIRM_H

#include <string>

namespace ksctl {

// confirm asks at the terminal; `command` are the words of the command. Failure: kUsage where there is no terminal,
// kFailed when the answer isn't yes.
void confirm(const char *command, const std::string &question);

}  // namespace ksctl

#endif
