// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// config.cc: the service's configuration, looked at without the service.
#include <fmt/format.h>

#include "command.h"
#include "config/layers.h"
#include "config/places.h"

namespace ksctl {
namespace {

void config_check(Session &session, const Arguments &arguments) {
  const std::string file = arguments.text_or("FILE", "/etc/ks/ksd.toml.d");
  const ksd::config::ParsedConfig parsed =
      arguments.has("FILE") ? ksd::config::load_config(file)
                            : ksd::config::load_layers(ksd::config::find_layers(ksd::config::standard_folders()));
  const std::vector<ksd::config::ConfigProblem> found = ksd::config::find_problems(parsed);
  const std::optional<std::string> needed =
      found.empty() ? ksd::config::what_else_it_needs(parsed.config) : std::nullopt;
  List problems;
  for (const ksd::config::ConfigProblem &problem : found) {
    problems.push_back(Object{{"line", problem.line}, {"column", problem.column}, {"text", problem.text}});
  }
  const Object object{{"file", file},
                      {"valid", found.empty()},
                      {"problems", std::move(problems)},
                      {"needed", needed ? Value(*needed) : Value()}};
  if (needed && session.output.format() != Format::kJson) session.output.complain(fmt::format("{}: {}", file, *needed));
  if (found.empty()) return session.output.done(fmt::format("{}: valid", file), object);

  if (session.output.format() == Format::kJson) {
    session.output.done("", object);
  } else {
    for (const ksd::config::ConfigProblem &problem : found) {
      session.output.complain(ksd::config::describe(file, problem));
    }
  }
  throw Failure(Exit::kFailed, fmt::format("{}: {} {}; mend it, a service wouldn't start with it", file, found.size(),
                                           found.size() == 1 ? "problem" : "problems"));
}

}  // namespace

std::span<const Command> config_commands() {
  static constexpr Parameter kParameters[] = {
      {"FILE", Kind::kFile, "The configuration, as the service reads it if not given"},
  };
  static constexpr Command kCommands[] = {
      {"config check", "Say what is wrong with a configuration, as `ksd --check` does", kParameters, config_check,
       "It is looked at as the user who runs this; run it as the service's user to see what the service would meet."},
  };
  return kCommands;
}

}  // namespace ksctl
