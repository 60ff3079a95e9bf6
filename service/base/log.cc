// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "base/log.h"

#include <fcntl.h>
#include <poll.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <memory>

#include "base/fd.h"

namespace ksd {
namespace {

struct Level {
  const char *name;
  spdlog::level::level_enum level;
};

constexpr std::array kLevels{Level{"debug", spdlog::level::debug}, Level{"info", spdlog::level::info},
                             Level{"warning", spdlog::level::warn}, Level{"error", spdlog::level::err}};

const Level *find_level(const std::string &name) {
  for (const Level &level : kLevels) {
    if (name == level.name) return &level;
  }
  return nullptr;
}

char priority_of(spdlog::level::level_enum level) {
  if (level <= spdlog::level::debug) return '7';
  if (level == spdlog::level::info) return '6';
  return level == spdlog::level::warn ? '4' : '3';
}

// The journal takes a line's priority from its first characters.
class JournalPriority : public spdlog::custom_flag_formatter {
 public:
  void format(const spdlog::details::log_msg &message, const std::tm &, spdlog::memory_buf_t &out) override {
    const char prefix[] = {'<', priority_of(message.level), '>'};
    out.append(prefix, prefix + sizeof prefix);
  }
  std::unique_ptr<custom_flag_formatter> clone() const override { return std::make_unique<JournalPriority>(); }
};

// StandardError writes each line with one call, and never waits: a reader that has stopped, or a terminal that was
// halted, must not stop the service. Lines that find no room are counted, and the next that finds some says how many.
class StandardError : public spdlog::sinks::base_sink<std::mutex> {
 public:
  StandardError() {
    struct stat status {};
    if (fstat(STDERR_FILENO, &status) < 0) return;
    is_socket_ = S_ISSOCK(status.st_mode);
    // A pipe is opened anew, for a mode of its own: the one that was passed is shared with other processes. Where that
    // isn't allowed, the question for room has to do.
    if (S_ISFIFO(status.st_mode)) own_pipe_ = open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  }
  ~StandardError() override {
    if (own_pipe_ >= 0) close(own_pipe_);
  }
  StandardError(const StandardError &) = delete;
  StandardError &operator=(const StandardError &) = delete;

 protected:
  void sink_it_(const spdlog::details::log_msg &message) override {
    if (dropped_ != 0) {
      const std::string text = fmt::format("{} lines were lost: nobody read the log", dropped_);
      if (put(spdlog::details::log_msg(message.logger_name, spdlog::level::warn, text))) dropped_ = 0;
    }
    if (dropped_ != 0 || !put(message)) ++dropped_;
  }
  void flush_() override {}

 private:
  bool put(const spdlog::details::log_msg &message) {
    spdlog::memory_buf_t line;
    formatter_->format(message, line);
    return write_now(line.data(), line.size()) == static_cast<ssize_t>(line.size());
  }

  ssize_t write_now(const char *line, size_t size) const {
    if (is_socket_) return send(STDERR_FILENO, line, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (own_pipe_ >= 0) return write(own_pipe_, line, size);
    pollfd room{.fd = STDERR_FILENO, .events = POLLOUT, .revents = 0};
    if (poll(&room, 1, 0) <= 0 || (room.revents & POLLOUT) == 0) return -1;
    return write(STDERR_FILENO, line, size);
  }

  bool is_socket_ = false;
  int own_pipe_ = -1;
  uint64_t dropped_ = 0;
};

// Journal takes lines with fields, each as one datagram of its native protocol.
class Journal {
 public:
  void open(const char *path) {
    address_.sun_family = AF_UNIX;
    std::string_view(path).copy(address_.sun_path, sizeof address_.sun_path - 1);
    socket_ = UniqueFd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  }

  // Tells whether the journal took it.
  bool take(const LogEvent &event, std::optional<uid_t> client, std::string_view text) const {
    if (!socket_) return false;
    std::string datagram =
        fmt::format("PRIORITY={}\nSYSLOG_IDENTIFIER=ksd\nMESSAGE_ID={}\n", priority_of(event.level), event.id);
    if (client) datagram += fmt::format("KSD_CLIENT_UID={}\n", *client);
    // By its length, since a text may have lines of its own.
    datagram += "MESSAGE\n";
    for (int shift = 0; shift < 64; shift += 8) datagram += static_cast<char>(uint64_t{text.size()} >> shift);
    datagram.append(text).append("\n");
    const ssize_t sent = sendto(socket_.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr *>(&address_), sizeof address_);
    return sent == static_cast<ssize_t>(datagram.size());
  }

 private:
  UniqueFd socket_;
  sockaddr_un address_{};
};

Journal &the_journal() {
  static Journal journal;
  return journal;
}

constexpr std::chrono::minutes kOneLinePer{1};
constexpr std::chrono::seconds kLookForRoomEvery{1};

}  // namespace

void start_logging(LogFormat format, const std::string &level, const char *journal, const char *name) {
  auto logger = std::make_shared<spdlog::logger>(name, std::make_shared<StandardError>());
  if (format == LogFormat::kAuto && std::getenv("JOURNAL_STREAM") != nullptr) format = LogFormat::kJournal;
  auto formatter = std::make_unique<spdlog::pattern_formatter>();
  if (format == LogFormat::kJournal) {
    formatter->add_flag<JournalPriority>('*').set_pattern("%*%v");
    the_journal().open(journal);
  } else {
    formatter->set_pattern("%Y-%m-%dT%H:%M:%S.%e%z %n[%P] %l: %v");
  }
  logger->set_formatter(std::move(formatter));
  // A line that there is no memory for is lost; the library would write of it to standard error, past the sink.
  logger->set_error_handler([](const std::string &) {});
  spdlog::set_default_logger(std::move(logger));
  set_log_level(level);
}

void log_event(const LogEvent &event, std::optional<uid_t> client, std::string_view text) noexcept {
  try {
    if (!spdlog::should_log(event.level)) return;
    if (!the_journal().take(event, client, text)) spdlog::log(event.level, text);
  } catch (const std::exception &) {
    return;
  }
}

bool is_log_level(const std::string &level) {
  return find_level(level) != nullptr;
}

void set_log_level(const std::string &level) {
  if (const Level *found = find_level(level)) spdlog::set_level(found->level);
}

std::string since_last(uint64_t held_back) {
  return held_back == 0 ? std::string() : fmt::format(" ({} more since the last such line)", held_back);
}

const LogEvent &LogLimiter::event_of(Kind kind) {
  switch (kind) {
    case Kind::kRefused:
      return event::kConnectionRefused;
    case Kind::kNearLimit:
      return event::kNearLimit;
    case Kind::kForeignName:
      return event::kForeignName;
    case Kind::kUnmapped:
      return event::kUnmapped;
    case Kind::kStoreRefused:
      return event::kStoreRefused;
    case Kind::kAdministration:
      return event::kAdministrationFailed;
    case Kind::kBackups:
      return event::kBackupEnded;
    case Kind::kCantAccept:
      return event::kCantAccept;
    case Kind::kSignal:
      return event::kNoMemory;
    default:
      return event::kClientMisbehaved;
  }
}

std::optional<uint64_t> LogLimiter::pass(Kind kind, uid_t uid, Clock::time_point now) {
  const std::lock_guard lock(mutex_);
  const std::pair key(kind, uid);
  if (const auto found = states_.find(key); found != states_.end()) return pass(found->second, now);
  forget_old_ones(now);
  return pass(states_.size() < most_states_ ? states_[key] : of_others_[kind], now);
}

std::optional<uint64_t> LogLimiter::pass(State &state, Clock::time_point now) {
  if (state.last && now - *state.last < kOneLinePer) {
    ++state.held_back;
    return std::nullopt;
  }
  state.last = now;
  return std::exchange(state.held_back, 0);
}

// Whoever has thousands of user ids would otherwise have as many lines.
void LogLimiter::forget_old_ones(Clock::time_point now) {
  if (states_.size() < most_states_ || now - looked_for_room_at_ < kLookForRoomEvery) return;
  looked_for_room_at_ = now;
  std::erase_if(states_, [&](const auto &entry) { return now - *entry.second.last >= kOneLinePer; });
}

}  // namespace ksd
