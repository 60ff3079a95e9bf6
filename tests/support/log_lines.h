// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// log_lines.h: what the service's log says, for as long as one of these lives. It is quiet again behind it.
#ifndef TESTS_SUPPORT_LOG_LINES_H
#define TESTS_SUPPORT_LOG_LINES_H

#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include <memory>
#include <sstream>
#include <string>

class LogLines {
 public:
  explicit LogLines(spdlog::level::level_enum level = spdlog::level::info) {
    auto logger = std::make_shared<spdlog::logger>("t", std::make_shared<spdlog::sinks::ostream_sink_mt>(lines_));
    logger->set_pattern("%v");
    spdlog::set_default_logger(std::move(logger));
    spdlog::set_level(level);
  }
  LogLines(const LogLines &) = delete;
  LogLines &operator=(const LogLines &) = delete;
  ~LogLines() {
    spdlog::set_default_logger(before_);
    spdlog::set_level(spdlog::level::off);
  }

  // text is all of it; whoever writes has ended, or waits.
  std::string text() const { return lines_.str(); }

 private:
  const std::shared_ptr<spdlog::logger> before_ = spdlog::default_logger();
  std::ostringstream lines_;
};

#endif
