// master_key.h: where the master key comes from.
#ifndef SERVICE_VAULT_MASTER_KEY_H
#define SERVICE_VAULT_MASTER_KEY_H

#include <memory>
#include <string>

#include "base/secret_bytes.h"

namespace ksd::vault {

// MasterKey is the key and the file it came from, for messages.
struct MasterKey {
  std::shared_ptr<const SecretBytes> key;
  std::string path;
};

// read_master_key reads the key, 32 bytes, from `file`, or from "master-key" in systemd's credentials directory when
// `file` is empty. A key file has mode 0600 or 0400 and belongs to the user the service runs as. When there is none yet
// and `may_create`, one is drawn, and on disk before it is used. When there is none or it is refused: throws
// std::runtime_error, one line with the file's name and what to do.
MasterKey read_master_key(const std::string &file, bool may_create);

}  // namespace ksd::vault

#endif
