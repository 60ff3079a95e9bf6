// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// layers.h: which files a configuration is made of, in the order that systemd has for its own: the file of the first
// folder that has one, then all drop-ins by name, of which one in an earlier folder hides its namesakes.
#ifndef SERVICE_CONFIG_LAYERS_H
#define SERVICE_CONFIG_LAYERS_H

#include <string>
#include <vector>

namespace ksd::config {

inline constexpr char kFileName[] = "ksd.toml";
inline constexpr char kDropInFolderName[] = "ksd.toml.d";

// standard_folders are the administrator's, the one for until the next boot, and the vendor's.
std::vector<std::string> standard_folders();

// find_layers gives the files of `folders`, of which an earlier one comes before a later one, in the order in which
// they are read: what a later file says counts. A drop-in that is empty or a link to /dev/null is one of them and says
// nothing, which is how a vendor's is switched off.
std::vector<std::string> find_layers(const std::vector<std::string> &folders);

}  // namespace ksd::config

#endif
