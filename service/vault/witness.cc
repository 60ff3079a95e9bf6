// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/witness.h"

#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "base/little_endian.h"
#include "base/trust.h"
#include "vault/files.h"

namespace ksd::vault {
namespace {

constexpr size_t kSlotSize = 8 + sizeof(Digest);  // version, its mark
constexpr off_t kSlotDistance = 512;              // a sector each, so that a torn write harms one alone
constexpr size_t kFileSize = 2 * kSlotDistance;

using Slot = std::array<uint8_t, kSlotSize>;

Slot slot_of(uint64_t version, const Sealer &sealer) {
  Slot slot;
  put_little_endian(slot.data(), version);
  const Digest mark = sealer.witness_mark(version);
  std::copy(mark.begin(), mark.end(), slot.begin() + 8);
  return slot;
}

}  // namespace

Witness::Witness(std::string path, const Keys &keys) : path_(std::move(path)), sealer_(keys.of_table()) {
  file_is_there_ = file_exists(path_);
  read(keys.of_table());
  if (version_ || !keys.changing()) return;
  read(keys.present());
  file_ = UniqueFd();
}

void Witness::read(const Sealer &sealer) {
  UniqueFd file(open(path_.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat info {};
  if (!file || fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) return;
  for (int number : {0, 1}) {
    Slot slot;
    if (pread(file.get(), slot.data(), slot.size(), number * kSlotDistance) != static_cast<ssize_t>(slot.size())) {
      continue;
    }
    const auto version = get_little_endian<uint64_t>(slot.data());
    const Slot right = slot_of(version, sealer);
    if (sodium_memcmp(slot.data(), right.data(), slot.size()) != 0 || (version_ && *version_ > version)) continue;
    version_ = version;
    next_slot_ = 1 - number;
  }
  // One of another size was cut or isn't ours; writing to it could need room.
  if (version_ && info.st_size == static_cast<off_t>(kFileSize)) file_ = std::move(file);
}

int Witness::set_up(uint64_t version) {
  if (!file_) return make(version);
  if (*version_ < version && !store(version)) return errno;
  return 0;
}

// make puts a whole file in the place of whatever is there.
int Witness::make(uint64_t version) {
  const std::string draft = path_ + ".new";
  unlink(draft.c_str());  // of a start that was cut short
  UniqueFd file = make_file(draft);
  if (!file) return errno;
  std::array<uint8_t, kFileSize> content{};
  const Slot slot = slot_of(version, sealer_);
  std::copy(slot.begin(), slot.end(), content.begin());
  errno = ENOSPC;  // of a write that was cut short
  const bool made = write(file.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size()) &&
                    fsync(file.get()) == 0 && rename(draft.c_str(), path_.c_str()) == 0 &&
                    sync_folder(folder_of(path_));
  if (!made) {
    const int error = errno;
    unlink(draft.c_str());
    return error;
  }
  file_ = std::move(file);
  file_is_there_ = true;
  version_ = version;
  next_slot_ = 1;
  return 0;
}

int Witness::renew(const Sealer &sealer, uint64_t version) {
  sealer_ = sealer;
  return make(version);
}

bool Witness::store(uint64_t version) noexcept {
  const Slot slot = slot_of(version, sealer_);
  const ssize_t size = pwrite(file_.get(), slot.data(), slot.size(), next_slot_ * kSlotDistance);
  if (size != static_cast<ssize_t>(slot.size())) return false;
  version_ = version;
  next_slot_ = 1 - next_slot_;
  return true;
}

bool Witness::sync() noexcept {
  return file_ && fdatasync(file_.get()) == 0;
}

}  // namespace ksd::vault
