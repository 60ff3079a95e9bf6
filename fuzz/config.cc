// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// config: arbitrary text as the daemon's configuration.
//
//   input     the text
//   property  it is read, or refused with problems that each have a line and a column within the text and one line of
//             explanation; what is read keeps to the bounds that the rest of the service relies on
#include "config/config.h"

#include <string_view>

#include "support/fuzz.h"

namespace {

using fuzz::require;

void check_problem(const ksd::config::ConfigProblem &problem, std::string_view text) {
  const auto lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
  require(problem.line >= 1 && problem.line <= lines, "a problem is in a line of the text");
  require(problem.column >= 1 && problem.column <= text.size() + 1, "a problem is in a column of its line");
  require(!problem.text.empty() && problem.text.find('\n') == std::string::npos, "a problem is told in one line");
}

void check_config(const ksd::config::Config &config) {
  require(config.socket.starts_with('/') && config.socket.size() <= 107, "a socket has a path that an address holds");
  require(config.vault.starts_with('/'), "a vault has an absolute path");
  require(config.limits.connections >= 1 && config.limits.entries <= 65535, "limits are within theirs");
  require(config.receive_limit_ms >= 10 && config.send_limit_ms >= 10, "nobody waits for no time");
  if (const auto &shared = config.shared) {
    require(!shared->endpoints.empty() && shared->prefix.size() > 1 && shared->prefix.ends_with('/'),
            "a store is named");
    require(shared->ca.empty() == shared->key.empty() && shared->ca.empty() == shared->certificate.empty(),
            "both sides show who they are, or neither does");
    require(!shared->machine.empty() && shared->max_age_s > 0, "a machine has a name and its entries an age");
  }
  for (const auto &[uid, vdc] : config.vdc_of_user) {
    require(vdc != HOST_NO_VDC, "no user is in the VDC that stands for none");
    require(config.cache_uri_of(config.identify(uid, 0, 1, {})).size() < 224, "a cache's URI fits into a hello");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string_view text(reinterpret_cast<const char *>(data), size);
  const ksd::config::ParsedConfig parsed = ksd::config::parse_config(text);
  for (const ksd::config::ConfigProblem &problem : parsed.problems) check_problem(problem, text);
  if (parsed.problems.empty()) check_config(parsed.config);
  return 0;
}
