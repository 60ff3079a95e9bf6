// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// places.h: whether the files and folders that a configuration names can be what it takes them for.
#ifndef SERVICE_CONFIG_PLACES_H
#define SERVICE_CONFIG_PLACES_H

#include <optional>
#include <string>
#include <vector>

#include "config/config.h"

namespace ksd::config {

// find_obstacles gives what would keep a service that this user starts now with the configuration from serving, each in
// a line with what to do. What the service makes itself isn't missed: the folder of its socket, and at a first start,
// when there is no master key either, those of vault and key.
std::vector<std::string> find_obstacles(const Config &config);

// find_problems gives all that is wrong with a configuration that was read: what the file says, or else the obstacles,
// which have no line.
std::vector<ConfigProblem> find_problems(const ParsedConfig &parsed);

// what_else_it_needs tells what a start would need that this process hasn't got, though nothing is wrong.
std::optional<std::string> what_else_it_needs(const Config &config);

}  // namespace ksd::config

#endif
