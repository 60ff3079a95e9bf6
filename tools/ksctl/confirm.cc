// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "confirm.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>

#include "failure.h"

namespace ksctl {

void confirm(const char *command, const std::string &question) {
  if (isatty(STDIN_FILENO) == 0) {
    throw Failure(Exit::kUsage, fmt::format("{}: there is no terminal to ask at; --yes goes without asking", command));
  }
  std::fprintf(stderr, "%s Type yes: ", question.c_str());
  std::string answer;
  std::getline(std::cin, answer);
  if (answer != "yes")
    throw Failure(Exit::kFailed, fmt::format("{}: it wasn't confirmed; nothing was changed", command));
}

}  // namespace ksctl
