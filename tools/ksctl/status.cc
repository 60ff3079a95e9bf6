// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "status.h"

#include <fmt/format.h>

#include <ctime>

#include "administration.h"

namespace ksctl {

std::string version_text(uint32_t version) {
  return fmt::format("{}.{}", version / 256, version % 256);
}

std::string time_text(uint64_t seconds) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm parts{};
  char text[32] = "";  // for a year that no int holds
  if (localtime_r(&time, &parts) != nullptr) std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
  return text;
}

std::string size_text(uint64_t bytes) {
  constexpr const char *kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  auto amount = static_cast<double>(bytes);
  size_t unit = 0;
  for (; amount >= 1024 && unit + 1 < std::size(kUnits); ++unit) amount /= 1024;
  return unit == 0 ? fmt::format("{} B", bytes) : fmt::format("{:.1f} {}", amount, kUnits[unit]);
}

namespace {

std::string percent_text(uint64_t used, uint64_t limit) {
  return limit == 0 ? "" : fmt::format(" ({:.0f} %)", 100 * static_cast<double>(used) / static_cast<double>(limit));
}

}  // namespace

std::string share_text(uint64_t used, uint64_t limit) {
  return fmt::format("{} of {}{}", used, limit, percent_text(used, limit));
}

std::string size_share_text(uint64_t bytes, uint64_t limit) {
  return fmt::format("{} of {}{}", size_text(bytes), size_text(limit), percent_text(bytes, limit));
}

std::vector<std::string> warnings_of(const HostStatusReply &status) {
  const auto has = [&](uint32_t flag) { return (status.flags & flag) != 0; };
  std::vector<std::string> warnings;
  if (has(HOST_STATUS_CHANGES_REFUSED) && has(HOST_STATUS_SHARED)) {
    warnings.push_back("the fleet: " + text_in(status.refusal));
  } else if (has(HOST_STATUS_CHANGES_REFUSED)) {
    warnings.push_back(fmt::format("changes are refused: {}; {}", text_in(status.refusal),
                                   has(HOST_STATUS_UNTIL_RESTART) ? "look after the disk, then restart the service"
                                                                  : "make room on the vault's disk or look after it"));
  }
  if (has(HOST_STATUS_RESERVE_GIVEN_UP)) {
    warnings.emplace_back("the reserve on the vault's disk is given up: entries can be cleared; make room on the disk");
  }
  if (status.reload_failed_at != 0) {
    warnings.push_back(
        fmt::format("the configuration wasn't reloaded at {}: {}{}; the old one stays in force",
                    time_text(status.reload_failed_at), text_in(status.problem),
                    status.problem_count > 1 ? fmt::format(" and {} more", status.problem_count - 1) : ""));
  }
  if (has(HOST_STATUS_RESTART_NEEDED)) {
    warnings.emplace_back("part of the configuration counts from the next start of the service");
  }
  if (has(HOST_STATUS_STORE_NEARLY_FULL)) {
    warnings.emplace_back("the store is over 90 % full: clear entries, or raise [limits] entries or bytes");
  }
  if (has(HOST_STATUS_MEMORY_UNLOCKED)) {
    warnings.emplace_back("some keys lie in memory that could be swapped; LimitMEMLOCK=infinity in the unit mends it");
  }
  return warnings;
}

}  // namespace ksctl
