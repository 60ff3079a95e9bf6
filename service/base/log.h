// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

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
#include <string_view>
#include <utility>

#include "base/event.h"

namespace ksd {

enum class LogFormat { kAuto, kPlain, kJournal };

inline constexpr char kJournalSocket[] = "/run/systemd/journal/socket";

// start_logging makes the process's logger, with lines of the program `name`. kAuto takes the journal's form when
// standard error is the journal. Then events go to `journal`, with their fields.
void start_logging(LogFormat format, const std::string &level, const char *journal = kJournalSocket,
                   const char *name = "ksd");

// log_event writes the line of an event, about a client if there is one. A line that there is no memory for is lost.
void log_event(const LogEvent &event, std::optional<uid_t> client, std::string_view text) noexcept;

// tell words an event.
template <typename... Arguments>
void tell(const LogEvent &event, fmt::format_string<Arguments...> format, Arguments &&...arguments) noexcept {
  try {
    log_event(event, std::nullopt, fmt::format(format, std::forward<Arguments>(arguments)...));
  } catch (const std::exception &) {
    return;
  }
}

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
    kForeignName,
    kUnmapped,
    kStoreRefused,
    kCantAccept,
    kSignal,
    kAdministration,
    kBackups
  };
  using Clock = std::chrono::steady_clock;

  // So many users have a line of each kind a minute, and all others together one.
  explicit LogLimiter(size_t most_users = 512) : most_states_(most_users) {}

  // pass gives, when a line may be written, how many were held back since the last one. Of so many users at a time that
  // their lines would fill the log, one line a minute passes for all that come in addition. Throws std::bad_alloc.
  std::optional<uint64_t> pass(Kind kind, uid_t uid, Clock::time_point now = Clock::now());

  // warn writes a warning, if it may pass. One that there is no memory for is left out.
  template <typename... Arguments>
  void warn(Kind kind, uid_t uid, fmt::format_string<Arguments...> format, Arguments &&...arguments) noexcept {
    try {
      const std::optional<uint64_t> held_back = pass(kind, uid);
      if (!held_back) return;
      log_event(event_of(kind), uid,
                fmt::format(format, std::forward<Arguments>(arguments)...) + since_last(*held_back));
    } catch (const std::exception &) {
      return;
    }
  }

 private:
  static const LogEvent &event_of(Kind kind);

  struct State {
    std::optional<Clock::time_point> last;
    uint64_t held_back = 0;
  };
  static std::optional<uint64_t> pass(State &state, Clock::time_point now);
  void forget_old_ones(Clock::time_point now);

  const size_t most_states_;
  std::mutex mutex_;
  std::map<std::pair<Kind, uid_t>, State> states_;
  std::map<Kind, State> of_others_;  // when there is no room above
  Clock::time_point looked_for_room_at_{};
};

}  // namespace ksd

#endif
