#include "base/log.h"

#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <array>
#include <cstdlib>
#include <memory>

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

// The journal takes a line's priority from its first characters.
class JournalPriority : public spdlog::custom_flag_formatter {
 public:
  void format(const spdlog::details::log_msg &message, const std::tm &, spdlog::memory_buf_t &out) override {
    const char *prefix = "<6>";
    if (message.level <= spdlog::level::debug) prefix = "<7>";
    if (message.level == spdlog::level::warn) prefix = "<4>";
    if (message.level >= spdlog::level::err) prefix = "<3>";
    out.append(prefix, prefix + 3);
  }
  std::unique_ptr<custom_flag_formatter> clone() const override { return std::make_unique<JournalPriority>(); }
};

constexpr std::chrono::minutes kOneLinePer{1};
constexpr size_t kMostStates = 4096;  // then all are forgotten, which costs some lines too many

}  // namespace

void start_logging(LogFormat format, const std::string &level) {
  // With a mutex, unlike with the journal's own datagrams: a line is never torn.
  auto logger = std::make_shared<spdlog::logger>("ksd", std::make_shared<spdlog::sinks::stderr_sink_mt>());
  if (format == LogFormat::kAuto && std::getenv("JOURNAL_STREAM") != nullptr) format = LogFormat::kJournal;
  auto formatter = std::make_unique<spdlog::pattern_formatter>();
  if (format == LogFormat::kJournal) {
    formatter->add_flag<JournalPriority>('*').set_pattern("%*%v");
  } else {
    formatter->set_pattern("%Y-%m-%dT%H:%M:%S.%e%z ksd[%P] %l: %v");
  }
  logger->set_formatter(std::move(formatter));
  logger->flush_on(spdlog::level::trace);
  spdlog::set_default_logger(std::move(logger));
  set_log_level(level);
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

std::optional<uint64_t> LogLimiter::pass(Kind kind, uid_t uid, Clock::time_point now) {
  const std::lock_guard lock(mutex_);
  if (states_.size() >= kMostStates) states_.clear();
  const auto [found, is_new] = states_.try_emplace({kind, uid}, State{now, 0});
  if (is_new) return 0;
  State &state = found->second;
  if (now - state.last < kOneLinePer) {
    ++state.held_back;
    return std::nullopt;
  }
  return std::exchange(state, State{now, 0}).held_back;
}

}  // namespace ksd
