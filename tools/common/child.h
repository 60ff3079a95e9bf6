// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// child.h: a process that a tool has started, known by a descriptor so that its end can be waited for beside other
// things.
#ifndef TOOLS_COMMON_CHILD_H
#define TOOLS_COMMON_CHILD_H

#include <sys/types.h>

#include <csignal>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace ks_tools {

class Child {
 public:
  Child() = default;
  Child(Child &&other) noexcept;
  Child &operator=(Child &&other) noexcept;
  ~Child();

  // Starts `arguments`, the program looked up in PATH unless it names a folder, with the signal mask `mask`, after
  // `prepare` has run in the new process. When the program can't be run, error() says why.
  Child(const std::vector<std::string> &arguments, const sigset_t &mask, const std::function<void()> &prepare);

  int error() const { return error_; }  // an errno
  pid_t pid() const { return pid_; }
  int fd() const { return fd_; }  // readable once the process has ended
  void signal(int number) const;

  // end waits for the process and gives its wait status.
  int end();

  // end_within is end with a limit; nothing when the process is still there then.
  std::optional<int> end_within(int milliseconds);

 private:
  pid_t pid_ = -1;
  int fd_ = -1;
  int error_ = 0;
};

}  // namespace ks_tools

#endif
