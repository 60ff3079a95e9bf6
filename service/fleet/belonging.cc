// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "fleet/belonging.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

#include "base/refuse.h"
#include "base/trust.h"
#include "vault/files.h"

namespace ksd::fleet {
namespace {

// The id in hexadecimal digits, and the end of the line.
constexpr size_t kTextSize = 2 * sizeof(FleetId) + 1;

}  // namespace

std::optional<FleetId> read_belonging(const std::string &path) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!file && errno == ENOENT) return std::nullopt;
  std::array<char, kTextSize + 1> text{};
  const ssize_t size = file ? read(file.get(), text.data(), text.size()) : -1;
  FleetId fleet{};
  size_t bytes = 0;
  const bool good =
      size == ssize_t{kTextSize} && text[kTextSize - 1] == '\n' &&
      sodium_hex2bin(fleet.data(), fleet.size(), text.data(), kTextSize - 1, nullptr, &bytes, nullptr) == 0 &&
      bytes == fleet.size();
  if (!good) {
    refuse(
        "{}: doesn't say which fleet this machine belongs to; put the file back, or remove it to take the "
        "one that the store holds",
        path);
  }
  return fleet;
}

void write_belonging(const std::string &path, const FleetId &fleet) {
  std::array<char, kTextSize + 1> text{};
  sodium_bin2hex(text.data(), text.size(), fleet.data(), fleet.size());
  text[kTextSize - 1] = '\n';
  const std::string draft = path + ".new";
  unlink(draft.c_str());  // of a start that was cut short
  const UniqueFd file = vault::make_file(draft);
  const bool done = file && write(file.get(), text.data(), kTextSize) == ssize_t{kTextSize} && fsync(file.get()) == 0 &&
                    rename(draft.c_str(), path.c_str()) == 0 && vault::sync_folder(folder_of(path));
  if (done) return;
  const int error = errno;
  unlink(draft.c_str());
  refuse(
      "{}: which fleet this machine belongs to can't be written there: {}; make room, "
      "and the folder writable for user {}",
      path, vault::errno_text(error), geteuid());
}

}  // namespace ksd::fleet
