// progress.h: how far a command has come, for a person who waits for it.
#ifndef TOOLS_KSCTL_PROGRESS_H
#define TOOLS_KSCTL_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <string>

namespace ksctl {

// Progress keeps one line on standard error up to date where that is a terminal, and takes it away in the end.
class Progress {
 public:
  explicit Progress(std::string what);
  ~Progress();
  Progress(const Progress &) = delete;
  Progress &operator=(const Progress &) = delete;

  void tell(uint64_t done, uint64_t all);

 private:
  const std::string what_;
  const bool shown_;
  std::chrono::steady_clock::time_point next_{};
};

}  // namespace ksctl

#endif
