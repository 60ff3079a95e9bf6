// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// backup.h: the file that a backup is: all entries of one instant, sealed under a passphrase, as one stream that is
// written and read in constant memory. docs/vault-format.md shows it byte by byte.
#ifndef SERVICE_VAULT_BACKUP_H
#define SERVICE_VAULT_BACKUP_H

#include <sodium.h>

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/bytes.h"
#include "vault/passphrase.h"
#include "vault/record.h"
#include "vault/seal.h"

namespace ksd::vault {

// BackupOpening is what stands in the clear at the beginning: what the file is, and how its key is made.
inline constexpr size_t kBackupOpeningSize = 8 + 4 + kParametersSize;
using BackupOpening = std::array<uint8_t, kBackupOpeningSize>;
using BackupStreamHeader = std::array<uint8_t, crypto_secretstream_xchacha20poly1305_HEADERBYTES>;

// BackupForm is the version in it. A fleet's tells of each owner by what name the fleet knows it.
enum class BackupForm : uint32_t { kOfVault = 1, kOfFleet = 2 };

BackupOpening encode_opening(const PassphraseParameters &parameters, BackupForm form = BackupForm::kOfVault);

// parameters_in gives how the key of a backup is made. Nothing for what isn't the beginning of one.
std::optional<PassphraseParameters> parameters_in(const BackupOpening &opening);

// Behind it and the stream's header come the parts. All are of this size but the last.
inline constexpr size_t kBackupPartSize = 32768;
inline constexpr size_t kSealedPartSize = kBackupPartSize + crypto_secretstream_xchacha20poly1305_ABYTES;

// Snapshot is a vault at one instant.
struct Snapshot {
  VaultId vault_id{};
  Header header;
  std::vector<RowPtr> rows;                  // in any order
  std::map<uid_t, std::string> owners = {};  // of a fleet's: their names
};

// BackupWriter seals a snapshot part by part, and lets go of each entry as soon as it has been sealed.
class BackupWriter {
 public:
  // `opening` stands in front of what is given out here; the first part tells whether it is the right one. `time` is
  // that of the snapshot, in seconds since 1970.
  BackupWriter(Snapshot snapshot, uint64_t time, const SecretBytes &key, Bytes opening);

  // parts is how many there are.
  size_t parts() const { return parts_; }

  const BackupStreamHeader &stream_header() const { return stream_header_; }

  // next writes the next sealed part to `out`, which has room for kSealedPartSize bytes, and gives its length; 0 when
  // there was one that was the last.
  size_t next(uint8_t *out);

 private:
  enum class Piece { kHead, kOwners, kEntryHead, kEntry, kTrailer, kNone };

  bool begin_piece();
  size_t fill();

  Snapshot snapshot_;
  uint64_t time_;
  std::vector<uint8_t> opening_;
  std::vector<uint8_t> owners_;  // of a fleet's, as they are written
  size_t parts_ = 0;
  BackupStreamHeader stream_header_{};
  std::shared_ptr<SecretBytes> stream_, part_;
  crypto_generichash_state hash_;

  Piece piece_ = Piece::kHead;  // that comes next
  size_t next_row_ = 0;
  std::array<uint8_t, 48> small_{};           // a piece that is no secret
  std::shared_ptr<const SecretBytes> entry_;  // one that is
  Bytes rest_;                                // of the present piece
  bool ended_ = false;
};

// BackupContents is what a backup says of itself, under the seal.
struct BackupContents {
  uint64_t time = 0;
  VaultId vault_id{};
  uint64_t last_id = 0;
  uint64_t last_version = 0;
  uint64_t entry_count = 0;
  std::map<uid_t, std::string> owners = {};  // the names that a fleet knows them by
};

// BackupReader reads a backup entry by entry. Whatever isn't as it was written throws std::runtime_error, one line with
// the file's name: until next has given null, nothing that was read may be relied on as being all.
class BackupReader {
 public:
  // `file` is read from its beginning, and outlives this.
  BackupReader(int file, std::string path, Bytes passphrase);
  // The same for who has the key that was made of the passphrase.
  BackupReader(int file, std::string path, const SecretBytes &key);

  const BackupContents &contents() const { return contents_; }

  // next gives the next entry, or null behind the last, when the backup has proved whole.
  RowPtr next();

  uint64_t bytes_read() const { return bytes_read_; }

 private:
  [[noreturn]] void refuse(const std::string &what) const;
  [[noreturn]] void refuse_damaged() const;
  size_t read(std::span<uint8_t> to);
  PassphraseParameters read_opening();
  void begin(const SecretBytes &key);
  void read_owners();
  void open_part();
  void take(std::span<uint8_t> to, bool hashed = true);
  void check_end(uint64_t count);

  int file_;
  std::string path_;
  BackupOpening opening_{};
  BackupForm form_ = BackupForm::kOfVault;
  std::shared_ptr<SecretBytes> stream_, part_;
  std::vector<uint8_t> sealed_;
  Bytes rest_;  // of the part that is open
  bool is_first_ = true, is_last_ = false;
  crypto_generichash_state hash_;
  uint64_t bytes_read_ = 0;

  BackupContents contents_;
  uint64_t entries_read_ = 0, last_id_read_ = 0;
  bool done_ = false;
};

}  // namespace ksd::vault

#endif
