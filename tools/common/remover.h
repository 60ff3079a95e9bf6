// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// remover.h: sees that a folder goes, whatever becomes of those who use it.
#ifndef TOOLS_COMMON_REMOVER_H
#define TOOLS_COMMON_REMOVER_H

#include <sys/types.h>

#include <string>

namespace ks_tools {

// Remover is a process that removes a folder once the last holder of its lifeline has ended, however it ended. This
// process holds it, and whoever it is handed to.
class Remover {
 public:
  Remover() = default;
  ~Remover();
  Remover(const Remover &) = delete;
  Remover &operator=(const Remover &) = delete;

  // watch_over begins to. Throws std::runtime_error when there can be no such process.
  void watch_over(const std::string &folder);
  int lifeline() const { return lifeline_; }  // a descriptor that exec closes; -1 when nothing is watched over

 private:
  pid_t pid_ = -1;
  int lifeline_ = -1;
};

}  // namespace ks_tools

#endif
