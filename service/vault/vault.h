// vault.h: the store that keeps entries sealed in one file and answers all reads from memory.
#ifndef SERVICE_VAULT_VAULT_H
#define SERVICE_VAULT_VAULT_H

#include <memory>
#include <string>

#include "base/secret_bytes.h"
#include "vault/limits.h"
#include "vault/store.h"

namespace ksd::vault {

// Condition tells whether the vault takes changes.
struct Condition {
  std::string refusal;         // why it takes none since the last one failed; empty while it does
  bool until_restart = false;  // and won't for as long as the service runs
  bool reserve_kept = true;
};

// Owner is a user whose entries the vault holds, with the VDC of the one that was stored last.
struct Owner {
  uid_t uid = 0;
  uint16_t vdc_id = 0;
  uint64_t entries = 0;
  uint64_t bytes = 0;
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
};

struct VaultOptions {
  std::string path;
  std::string master_key_file;  // empty: systemd's credentials directory
  std::string witness;          // empty: beside the vault
  bool accept_loss = false;     // go on with what is whole when acknowledged changes are missing, after a copy
  Limits limits;
};

// make_folders makes, at a first start, the folders of vault and key, as far as those above are there; what can't be made
// is missed by open_vault, with what to do. When there is a key, there was a vault, and where its folder is missing a
// disk may be that isn't mounted. open_vault does it too: this is for who gives up the right to before.
void make_folders(const VaultOptions &options);

// open_vault opens the vault, or makes an empty one with its key where there is none at all. Whatever stands in the way
// is thrown as std::runtime_error, one line with the file's name and what to do: a vault that can't be opened is never
// replaced by an empty one, and one that lacks what was acknowledged is not opened. Closing it commits what has been
// asked for.
std::unique_ptr<Vault> open_vault(const VaultOptions &options);

}  // namespace ksd::vault

#endif
