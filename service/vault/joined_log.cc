// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/joined_log.h"

#include <sqlite3.h>

#include <cstdint>
#include <cstring>
#include <utility>

namespace ksd::vault {
namespace {

constexpr int kMost = 64 << 10;  // of what is joined; what doesn't fit goes by itself

struct File {
  sqlite3_file base;
  sqlite3_file *real;
  uint8_t *joined;  // null: not a log
  sqlite3_int64 begin;
  int size;  // of what is joined, and not written yet
};

File &file_of(sqlite3_file *file) {
  return *reinterpret_cast<File *>(file);
}

const sqlite3_io_methods &methods_of(const File &file) {
  return *file.real->pMethods;
}

// write_joined says what became of the writes since the last time. None of them counts when it fails: a commit is told
// by the sync behind it.
int write_joined(File &file) {
  const int size = std::exchange(file.size, 0);
  return size == 0 ? SQLITE_OK : methods_of(file).xWrite(file.real, file.joined, size, file.begin);
}

// behind_joined does something that the writes of before have to come before.
template <typename Action>
int behind_joined(sqlite3_file *base, Action action) {
  File &file = file_of(base);
  const int error = write_joined(file);
  return error != SQLITE_OK ? error : action(file.real, methods_of(file));
}

int close_file(sqlite3_file *base) {
  File &file = file_of(base);
  const int unwritten = write_joined(file);
  const int error = methods_of(file).xClose(file.real);
  sqlite3_free(file.joined);
  sqlite3_free(file.real);
  return unwritten != SQLITE_OK ? unwritten : error;
}

int read_part(sqlite3_file *base, void *to, int size, sqlite3_int64 offset) {
  return behind_joined(
      base, [=](sqlite3_file *real, const sqlite3_io_methods &with) { return with.xRead(real, to, size, offset); });
}

int write_part(sqlite3_file *base, const void *from, int size, sqlite3_int64 offset) {
  File &file = file_of(base);
  const bool is_next = file.size != 0 && offset == file.begin + file.size && size <= kMost - file.size;
  if (!is_next) {
    if (const int error = write_joined(file); error != SQLITE_OK) return error;
    if (file.joined == nullptr || size > kMost) return methods_of(file).xWrite(file.real, from, size, offset);
    file.begin = offset;
  }
  std::memcpy(file.joined + file.size, from, static_cast<size_t>(size));
  file.size += size;
  return SQLITE_OK;
}

int truncate_file(sqlite3_file *base, sqlite3_int64 size) {
  return behind_joined(base,
                       [=](sqlite3_file *real, const sqlite3_io_methods &with) { return with.xTruncate(real, size); });
}

int sync_file(sqlite3_file *base, int flags) {
  return behind_joined(base,
                       [=](sqlite3_file *real, const sqlite3_io_methods &with) { return with.xSync(real, flags); });
}

int file_size(sqlite3_file *base, sqlite3_int64 *size) {
  return behind_joined(base,
                       [=](sqlite3_file *real, const sqlite3_io_methods &with) { return with.xFileSize(real, size); });
}

int lock_file(sqlite3_file *base, int level) {
  return methods_of(file_of(base)).xLock(file_of(base).real, level);
}

int unlock_file(sqlite3_file *base, int level) {
  return methods_of(file_of(base)).xUnlock(file_of(base).real, level);
}

int check_lock(sqlite3_file *base, int *is_locked) {
  return methods_of(file_of(base)).xCheckReservedLock(file_of(base).real, is_locked);
}

int control_file(sqlite3_file *base, int what, void *argument) {
  return methods_of(file_of(base)).xFileControl(file_of(base).real, what, argument);
}

int sector_size(sqlite3_file *base) {
  return methods_of(file_of(base)).xSectorSize(file_of(base).real);
}

int characteristics(sqlite3_file *base) {
  return methods_of(file_of(base)).xDeviceCharacteristics(file_of(base).real);
}

const sqlite3_io_methods kMethods{.iVersion = 1,
                                  .xClose = close_file,
                                  .xRead = read_part,
                                  .xWrite = write_part,
                                  .xTruncate = truncate_file,
                                  .xSync = sync_file,
                                  .xFileSize = file_size,
                                  .xLock = lock_file,
                                  .xUnlock = unlock_file,
                                  .xCheckReservedLock = check_lock,
                                  .xFileControl = control_file,
                                  .xSectorSize = sector_size,
                                  .xDeviceCharacteristics = characteristics,
                                  .xShmMap = nullptr,
                                  .xShmLock = nullptr,
                                  .xShmBarrier = nullptr,
                                  .xShmUnmap = nullptr,
                                  .xFetch = nullptr,
                                  .xUnfetch = nullptr};

// open_file opens what is the usual at that time, which a test may have put something in front of.
int open_file(sqlite3_vfs *, const char *name, sqlite3_file *base, int flags, int *out_flags) {
  sqlite3_vfs *usual = sqlite3_vfs_find(nullptr);
  File &file = file_of(base);
  file = {};  // without methods, SQLite doesn't close it
  file.real = static_cast<sqlite3_file *>(sqlite3_malloc(usual->szOsFile));
  if ((flags & SQLITE_OPEN_WAL) != 0) file.joined = static_cast<uint8_t *>(sqlite3_malloc(kMost));
  const bool has_memory = file.real != nullptr && (file.joined != nullptr || (flags & SQLITE_OPEN_WAL) == 0);
  int error = SQLITE_NOMEM;
  if (has_memory) {
    file.real->pMethods = nullptr;
    error = usual->xOpen(usual, name, file.real, flags, out_flags);
    if (error == SQLITE_OK) {
      file.base.pMethods = &kMethods;
      return SQLITE_OK;
    }
    if (file.real->pMethods != nullptr) file.real->pMethods->xClose(file.real);
  }
  sqlite3_free(file.joined);
  sqlite3_free(file.real);
  return error;
}

}  // namespace

const char *joined_log() {
  static sqlite3_vfs joining = [] {
    sqlite3_vfs made = *sqlite3_vfs_find(nullptr);
    made.szOsFile = sizeof(File);
    made.pNext = nullptr;
    made.zName = "ksd";
    made.xOpen = open_file;
    return made;
  }();
  static const int error = sqlite3_vfs_register(&joining, 0);
  return error == SQLITE_OK ? joining.zName : nullptr;
}

}  // namespace ksd::vault
