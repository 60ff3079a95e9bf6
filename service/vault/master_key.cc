// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/master_key.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "base/refuse.h"
#include "base/trust.h"
#include "vault/files.h"
#include "vault/seal.h"

namespace ksd::vault {
namespace {

// read_content takes what the file holds straight into guarded memory.
std::shared_ptr<const SecretBytes> read_content(int fd, const std::string &path) {
  const std::shared_ptr<SecretBytes> content = SecretBytes::allocate(kMostSealedKeyText);
  const ssize_t got = pread(fd, content->writable().data(), content->size(), 0);
  if (got < 0) refuse("{}: the master key can't be read: {}", path, errno_text(errno));
  return SecretBytes::copy_of(content->bytes().first(static_cast<size_t>(got)));
}

MasterKey key_in(const std::shared_ptr<const SecretBytes> &content, const std::string &path,
                 const SecretBytes *passphrase) {
  const std::string_view text(reinterpret_cast<const char *>(content->bytes().data()), content->size());
  if (!is_sealed_key(text)) {
    if (content->size() != kMasterKeySize) {
      refuse("{}: isn't a master key, which has exactly {} bytes; put the right file there", path, kMasterKeySize);
    }
    if (passphrase != nullptr) refuse("{}: the master key isn't sealed; start without a passphrase", path);
    return {.key = content, .path = path, .seal = std::nullopt};
  }
  if (passphrase == nullptr) {
    refuse("{}: the master key is sealed under a passphrase; give it with --passphrase-fd", path);
  }
  std::optional<OpenedKey> opened = open_key(text, passphrase->bytes());
  if (!opened) refuse("{}: the master key doesn't open: the passphrase is another one, or the file is damaged", path);
  return {.key = opened->key, .path = path, .seal = std::move(opened->seal)};
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

// systemd hands credentials over with an owner and mode of its own, in a folder that only the service can read.
UniqueFd open_key_file(const std::string &path, bool is_credential) {
  return UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | (is_credential ? 0 : O_NOFOLLOW)));
}

std::shared_ptr<const SecretBytes> read_key_file(const UniqueFd &fd, const std::string &path, bool is_credential) {
  if (!is_credential) check_owner_and_mode(fd.get(), path);
  return read_content(fd.get(), path);
}

// write_key_file makes a file with a key, on disk when it is true.
bool write_key_file(const std::string &path, const SecretBytes &key, const std::optional<KeySeal> &seal) {
  const std::string text = seal ? seal_key(key, *seal) : std::string();
  const auto *sealed = reinterpret_cast<const uint8_t *>(text.data());
  const std::span<const uint8_t> content = seal ? std::span(sealed, text.size()) : key.bytes();
  const UniqueFd fd = make_file(path);
  errno = fd ? ENOSPC : errno;  // of a write that is cut short
  return fd && write(fd.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size()) &&
         fsync(fd.get()) == 0;
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

MasterKey read_master_key(const KeySource &source, bool may_create) {
  const bool from_credentials = source.file.empty();
  const std::string path = from_credentials ? path_in_credentials() : source.file;
  const SecretBytes *passphrase = source.passphrase.get();
  if (!from_credentials && may_create && !file_exists(path)) {
    std::optional<KeySeal> seal;
    if (passphrase != nullptr) seal = make_key_seal(passphrase->bytes(), source.cost);
    write_new_key(path, *draw_master_key(), seal);
  }

  const UniqueFd fd = open_key_file(path, from_credentials);
  if (!fd && errno == ENOENT && from_credentials) {
    refuse("{}: the credential isn't there; pass it with LoadCredential=master-key:FILE in the service's unit", path);
  }
  if (!fd && errno == ENOENT) {
    refuse("{}: the master key isn't there, but the vault that it opens is; put the key back", path);
  }
  if (!fd) {
    refuse("{}: the master key can't be opened: {}; make it readable for user {}", path, errno_text(errno), geteuid());
  }
  MasterKey master = key_in(read_key_file(fd, path, from_credentials), path, passphrase);
  master.is_credential = from_credentials;
  return master;
}

std::string path_of_next_key(const MasterKey &present) {
  return present.path + ".next";
}

// A seal of the present key opens the next one, too: it was sealed without anybody giving the passphrase again.
std::shared_ptr<const SecretBytes> read_next_key(const MasterKey &present) {
  const std::string path = path_of_next_key(present);
  if (!file_exists(path)) return nullptr;
  const UniqueFd fd = open_key_file(path, present.is_credential);
  if (!fd) refuse("{}: the next master key can't be opened: {}", path, errno_text(errno));
  const std::shared_ptr<const SecretBytes> content = read_key_file(fd, path, present.is_credential);
  if (!present.seal) return key_in(content, path, nullptr).key;
  const std::string_view text(reinterpret_cast<const char *>(content->bytes().data()), content->size());
  std::shared_ptr<const SecretBytes> key = open_key(text, *present.seal);
  if (key == nullptr) refuse("{}: the next master key doesn't open; move it away to be given it again", path);
  return key;
}

std::shared_ptr<const SecretBytes> draw_master_key() {
  const std::shared_ptr<SecretBytes> key = SecretBytes::allocate(kMasterKeySize);
  randombytes_buf(key->writable().data(), key->size());
  return key;
}

// The key is written under another name and linked to its own, so that there is a whole key or none at any instant, and
// one that is there already is never replaced.
void write_new_key(const std::string &path, const SecretBytes &key, const std::optional<KeySeal> &seal) {
  const std::string draft = path + ".new";
  unlink(draft.c_str());  // of a start that was cut short
  const bool made = write_key_file(draft, key, seal) && link(draft.c_str(), path.c_str()) == 0;
  const int error = errno;
  unlink(draft.c_str());
  if (!made || !sync_folder(folder_of(path))) {
    refuse("{}: the master key can't be made there: {}; make room for it or name another file with --master-key-file",
           path, errno_text(made ? errno : error));
  }
}

void prepare_key_file(const MasterKey &present, const SecretBytes &next) {
  const std::string draft = path_of_next_key(present);
  unlink(draft.c_str());  // of a change that was cut short
  if (write_key_file(draft, next, present.seal) && sync_folder(folder_of(present.path))) return;
  const int error = errno;
  unlink(draft.c_str());
  refuse("{}: the next master key can't be made there: {}; make its folder writable for user {}", draft,
         errno_text(error), geteuid());
}

void drop_prepared_key(const MasterKey &present) {
  if (!present.is_credential) unlink(path_of_next_key(present).c_str());
}

void replace_key_file(const MasterKey &present, const SecretBytes &next) {
  prepare_key_file(present, next);
  const std::string draft = path_of_next_key(present);
  if (rename(draft.c_str(), present.path.c_str()) != 0 || !sync_folder(folder_of(present.path))) {
    refuse("{}: the next master key can't be put there: {}; look after its folder", present.path, errno_text(errno));
  }
}

}  // namespace ksd::vault
