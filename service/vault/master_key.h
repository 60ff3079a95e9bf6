// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// master_key.h: where the master key lives: in a file, as it is or sealed under a passphrase, or in the file that
// systemd hands over as a credential.
#ifndef SERVICE_VAULT_MASTER_KEY_H
#define SERVICE_VAULT_MASTER_KEY_H

#include <memory>
#include <optional>
#include <string>

#include "base/secret_bytes.h"
#include "vault/sealed_key.h"

namespace ksd::vault {

// KeySource says where to look.
struct KeySource {
  std::string file;                               // empty: "master-key" in systemd's credentials directory
  std::shared_ptr<const SecretBytes> passphrase;  // of a key that is sealed; null for one that isn't
  PassphraseCost cost = kModerateCost;            // of the seal, where a key is made
};

// MasterKey is the key and the file it came from, for messages.
struct MasterKey {
  std::shared_ptr<const SecretBytes> key;
  std::string path;
  std::optional<KeySeal> seal = std::nullopt;  // under which the file has it
  bool is_credential = false;                  // the file isn't ours to write
};

// read_master_key reads the key. A key file has mode 0600 or 0400 and belongs to the user the service runs as. When
// there is none yet and `may_create`, one is drawn, and on disk before it is used. When there is none or it is refused:
// throws std::runtime_error, one line with the file's name and what to do.
MasterKey read_master_key(const KeySource &source, bool may_create);

// path_of_next_key is where the next key is, while the key is changed: beside the present one. read_next_key reads it;
// null when there is none. It throws like read_master_key.
std::string path_of_next_key(const MasterKey &present);
std::shared_ptr<const SecretBytes> read_next_key(const MasterKey &present);

// draw_master_key gives a key that stands nowhere yet.
std::shared_ptr<const SecretBytes> draw_master_key();

// write_new_key puts a key into a file that isn't there yet, sealed when there is a seal, and on disk when it returns.
// Throws like read_master_key, also when the file is there already.
void write_new_key(const std::string &path, const SecretBytes &key, const std::optional<KeySeal> &seal);

// replace_key_file puts the next key in the place of the present one, sealed as that is, at once and on disk.
// prepare_key_file finds out before that this can be done; drop_prepared_key takes that back. The others throw like
// read_master_key.
void prepare_key_file(const MasterKey &present, const SecretBytes &next);
void drop_prepared_key(const MasterKey &present);
void replace_key_file(const MasterKey &present, const SecretBytes &next);

}  // namespace ksd::vault

#endif
