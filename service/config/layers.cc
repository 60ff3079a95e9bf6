// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "config/layers.h"

#include <filesystem>
#include <map>

namespace ksd::config {

std::vector<std::string> standard_folders() {
  return {"/etc/ks", "/run/ks", KSD_VENDOR_FOLDER};
}

std::vector<std::string> find_layers(const std::vector<std::string> &folders) {
  std::vector<std::string> layers;
  std::map<std::string, std::string> drop_ins;  // by name, which is their order
  std::error_code ignored;
  for (const std::string &folder : folders) {
    if (const std::string file = folder + '/' + kFileName; layers.empty() && std::filesystem::exists(file, ignored)) {
      layers.push_back(file);
    }
    std::filesystem::directory_iterator entries(folder + '/' + kDropInFolderName, ignored);
    for (const std::filesystem::directory_entry &entry : entries) {
      if (entry.path().extension() == ".toml") drop_ins.emplace(entry.path().filename(), entry.path());
    }
  }
  for (const auto &[name, path] : drop_ins) layers.push_back(path);
  return layers;
}

}  // namespace ksd::config
