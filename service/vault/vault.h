// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// vault.h: the store that keeps entries sealed in one file and answers all reads from memory.
#ifndef SERVICE_VAULT_VAULT_H
#define SERVICE_VAULT_VAULT_H

#include <memory>
#include <string>

#include "base/secret_bytes.h"
#include "vault/backup.h"
#include "vault/ledger.h"
#include "vault/limits.h"
#include "vault/passphrase.h"
#include "vault/store.h"

namespace ksd::vault {

// Condition tells whether the vault takes changes.
struct Condition {
  std::string refusal;         // why it takes none since the last one failed; empty while it does
  bool until_restart = false;  // and won't for as long as the service runs
  bool reserve_kept = true;
};

// KeyChangeProgress tells how far a change of the master key has come.
struct KeyChangeProgress {
  enum class State : uint8_t {
    kNone,     // the vault has one key
    kMoving,   // entries are sealed under the next key, one batch after the other
    kStopped,  // a failure stopped it, which the log tells; asked for again, or after a restart, it goes on
    kWaiting,  // all have moved, and the next start is to bring the next key; the present one serves until then
  };
  State state = State::kNone;
  uint64_t moved = 0;
  uint64_t entries = 0;
};

class Vault : public Store {
 public:
  // use_limits puts others in force. What is there stays, also when it is more.
  virtual void use_limits(const Limits &limits) = 0;

  virtual const std::string &path() const = 0;
  virtual Condition condition() const = 0;

  // owners gives up to `most` owners, ascending, from user `from` on. Others wait no longer than for so many.
  virtual std::vector<Owner> owners(uid_t from, size_t most) const = 0;

  // write_back writes the log back into the vault's file between two changes, and tells how many pages it held.
  virtual KsResult write_back(uint64_t &pages) = 0;

  // snapshot gives the vault as it is between two commits: all that was answered is in it. Changes wait for the copying
  // of as many pointers as there are entries, reads for nothing. Throws std::bad_alloc.
  virtual Snapshot snapshot() = 0;

  // change_key begins a change of the master key, or has one go on that was stopped, and returns while it goes on. The
  // daemon draws the next key itself where it can put it in the place of the present one; where the key is a
  // credential, `next` is what the next start will bring. KS_INVALID_ARGS: it is given where it isn't needed, or isn't
  // where it is. Other codes as of a change; the log has the reason.
  virtual KsResult change_key(std::shared_ptr<const SecretBytes> next) = 0;
  virtual KeyChangeProgress key_change() const = 0;
};

struct VaultOptions {
  std::string path;
  std::string master_key_file;  // empty: systemd's credentials directory
  std::string witness;          // empty: beside the vault
  bool accept_loss = false;     // go on with what is whole when acknowledged changes are missing, after a copy
  Limits limits;
  std::shared_ptr<const SecretBytes> passphrase = nullptr;  // that the master key is sealed under, if it is
  PassphraseCost passphrase_cost = kModerateCost;           // of a key that is made
};

// make_folders makes, at a first start, the folders of vault and key, as far as those above are there; what can't be
// made is missed by open_vault, with what to do. When there is a key, there was a vault, and where its folder is
// missing a disk may be that isn't mounted. open_vault does it too: this is for who gives up the right to before.
void make_folders(const VaultOptions &options);

// Examined is what an examination of a vault has found.
struct Examined {
  uint64_t entries = 0;
  uint64_t version = 0;  // of the last change
  int schema_version = 0;
  bool in_use = false;  // it wasn't closed in order, and needs its log
  bool key_changes = false;
};

// examine_vault opens every record of a vault that no service has open, and looks after count, digest and positions, by
// all that open_vault looks at, and changes nothing. Throws like open_vault for what that would refuse, or what it
// would do wrong by.
Examined examine_vault(const VaultOptions &options);

// read_vault gives all entries of a vault that no service has open, in their order, after the same looks at it; it
// changes nothing either.
std::vector<RowPtr> read_vault(const VaultOptions &options);

// migrate_vault brings the schema of a vault up to date that no service has open, and gives the version that it had.
int migrate_vault(const VaultOptions &options);

// open_vault opens the vault, or makes an empty one with its key where there is none at all. Whatever stands in the way
// is thrown as std::runtime_error, one line with the file's name and what to do: a vault that can't be opened is never
// replaced by an empty one, and one that lacks what was acknowledged is not opened. Closing it commits what has been
// asked for.
std::unique_ptr<Vault> open_vault(const VaultOptions &options);

}  // namespace ksd::vault

#endif
