// log.h: how the daemon logs. Lines go to standard error: with a time when a person or a file reads them, with a
// priority in front when the journal does. Nothing that a client sent is ever part of a line.
#ifndef SERVICE_BASE_LOG_H
#define SERVICE_BASE_LOG_H

#include <spdlog/spdlog.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

namespace ksd {

enum class LogFormat { kAuto, kPlain, kJournal };

// start_logging makes the process's logger. kAuto takes the journal's form when standard error is the journal.
void start_logging(LogFormat format, const std::string &level);

// set_log_level takes "debug", "info", "warning" or "error".
void set_log_level(const std::string &level);
bool is_log_level(const std::string &level);

// since_last words what a LogLimiter held back, for the end of a line: " (7 more since the last such line)" or nothing.
std::string since_last(uint64_t held_back);

// LogLimiter keeps users from filling the log: of the lines of one kind about one user it lets one a minute pass.
class LogLimiter {
 public:
  enum class Kind {
    kMalformed,
    kUnknownOpcode,
    kTooLarge,
    kForeignDatagram,
    kUnread,
    kSilent,
    kRefused,
    kNearLimit,
    kForeignName
  };
  using Clock = std::chrono::steady_clock;

  // pass gives, when a line may be written, how many were held back since the last one.
  std::optional<uint64_t> pass(Kind kind, uid_t uid, Clock::time_point now = Clock::now());

 private:
  struct State {
    Clock::time_point last;
    uint64_t held_back = 0;
  };
  std::mutex mutex_;
  std::map<std::pair<Kind, uid_t>, State> states_;
};

}  // namespace ksd

#endif
