#include "progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>

namespace ksctl {

constexpr std::chrono::milliseconds kPause(100);

Progress::Progress(std::string what) : what_(std::move(what)), shown_(isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
  if (shown_) std::fputs("\r\033[K", stderr);
}

void Progress::tell(uint64_t done, uint64_t all) {
  if (!shown_) return;
  const auto now = std::chrono::steady_clock::now();
  if (now < next_) return;
  next_ = now + kPause;
  std::fputs(fmt::format("\r\033[K{}: {} of {}", what_, done, all).c_str(), stderr);
  std::fflush(stderr);
}

}  // namespace ksctl
