// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault_files/backup_files.h"

#include <sys/mman.h>

#include <stdexcept>

namespace ksd::vault {

std::string backup_of(Vault &vault, uint64_t time) {
  const PassphraseParameters parameters = draw_parameters(kLeastCost);
  const BackupOpening opening = encode_opening(parameters);
  BackupWriter writer(vault.snapshot(), time, *key_of_passphrase(bytes_of(kPassphrase), parameters), opening);
  std::string backup(opening.begin(), opening.end());
  backup.append(writer.stream_header().begin(), writer.stream_header().end());
  std::vector<uint8_t> part(kSealedPartSize);
  size_t parts = 0;
  for (; const size_t size = writer.next(part.data()); ++parts) {
    backup.append(part.begin(), part.begin() + ptrdiff_t(size));
  }
  if (parts != writer.parts()) throw std::logic_error("it has another number of parts than was told");
  return backup;
}

UniqueFd file_of(const std::string &content) {
  UniqueFd file(memfd_create("backup", MFD_CLOEXEC));
  if (pwrite(file.get(), content.data(), content.size(), 0) != static_cast<ssize_t>(content.size())) {
    throw std::logic_error("no memory for a file");
  }
  return file;
}

RestoreOptions restore_options(const Folder &folder) {
  return {.vault = folder.vault(),
          .master_key = {.file = folder.key(), .passphrase = nullptr, .cost = kLeastCost},
          .witness = {}};
}

Restored restore(const std::string &backup, const Folder &folder, std::string_view passphrase) {
  const UniqueFd file = file_of(backup);
  return restore_backup(file.get(), "b", bytes_of(passphrase), restore_options(folder), kNoProgress);
}

}  // namespace ksd::vault
