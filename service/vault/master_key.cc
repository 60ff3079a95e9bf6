#include "vault/master_key.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>

#include "vault/files.h"
#include "vault/seal.h"

namespace ksd::vault {
namespace {

template <typename... Args>
[[noreturn]] void refuse(fmt::format_string<Args...> format, Args &&...args) {
  throw std::runtime_error(fmt::format(format, std::forward<Args>(args)...));
}

// read_key takes the key straight into guarded memory.
std::shared_ptr<const SecretBytes> read_key(int fd, const std::string &path) {
  const std::shared_ptr<SecretBytes> key = SecretBytes::allocate(kMasterKeySize + 1);  // one more tells a longer file
  const ssize_t got = pread(fd, key->writable().data(), key->size(), 0);
  if (got < 0) refuse("{}: the master key can't be read: {}", path, errno_text(errno));
  if (static_cast<size_t>(got) != kMasterKeySize) {
    refuse("{}: isn't a master key, which has exactly {} bytes; put the right file there", path, kMasterKeySize);
  }
  return SecretBytes::copy_of(key->bytes().first(kMasterKeySize));
}

void check_owner_and_mode(int fd, const std::string &path) {
  struct stat info;
  if (fstat(fd, &info) != 0) refuse("{}: the master key can't be examined: {}", path, errno_text(errno));
  if (!S_ISREG(info.st_mode)) refuse("{}: isn't a regular file; name the file that holds the master key", path);
  if (info.st_uid != geteuid()) {
    refuse("{}: the master key belongs to user {}, but the service runs as user {}; run: chown {} {}", path,
           info.st_uid, geteuid(), geteuid(), path);
  }
  const mode_t mode = info.st_mode & 07777;
  if (mode != 0600 && mode != 0400) {
    refuse("{}: the master key has mode {:04o}, but must have 0600 so that nobody else reads it; run: chmod 0600 {}",
           path, mode, path);
  }
}

// make_key writes a fresh key under another name and links it to its own, so that there is a whole key or none at any
// instant, and one that is there already is never replaced.
void make_key(const std::string &path) {
  const std::shared_ptr<SecretBytes> key = SecretBytes::allocate(kMasterKeySize);
  randombytes_buf(key->writable().data(), key->size());
  const std::string draft = path + ".new";
  unlink(draft.c_str());  // of a start that was cut short
  const UniqueFd fd = make_file(draft);
  const auto size = static_cast<ssize_t>(key->size());
  const bool made = fd && write(fd.get(), key->bytes().data(), key->size()) == size && fsync(fd.get()) == 0 &&
                    link(draft.c_str(), path.c_str()) == 0;
  const int error = errno;
  unlink(draft.c_str());
  if (!made || !sync_folder(folder_of(path))) {
    refuse("{}: the master key can't be made there: {}; make room for it or name another file with --master-key-file",
           path, errno_text(made ? errno : error));
  }
}

std::string path_in_credentials() {
  const char *folder = std::getenv("CREDENTIALS_DIRECTORY");
  if (folder == nullptr || *folder == '\0') {
    refuse(
        "no master key: name its file with --master-key-file (it is made at first start), or pass the credential "
        "\"master-key\" with LoadCredential= in the service's unit");
  }
  return std::string(folder) + "/master-key";
}

}  // namespace

MasterKey read_master_key(const std::string &file, bool may_create) {
  // systemd hands credentials over with an owner and mode of its own, in a folder that only the service can read.
  const bool from_credentials = file.empty();
  const std::string path = from_credentials ? path_in_credentials() : file;
  if (!from_credentials && may_create && !file_exists(path)) make_key(path);

  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | (from_credentials ? 0 : O_NOFOLLOW)));
  if (!fd && errno == ENOENT && from_credentials) {
    refuse("{}: the credential isn't there; pass it with LoadCredential=master-key:FILE in the service's unit", path);
  }
  if (!fd && errno == ENOENT) {
    refuse("{}: the master key isn't there, but the vault that it opens is; put the key back", path);
  }
  if (!fd) refuse("{}: the master key can't be opened: {}", path, errno_text(errno));
  if (!from_credentials) check_owner_and_mode(fd.get(), path);
  return {read_key(fd.get(), path), path};
}

}  // namespace ksd::vault
