// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault_files/vault_files.h"

#include <spdlog/spdlog.h>
#include <sqlite3.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace ksd::vault {
namespace {

// What a test wants to see of the log it looks at itself.
[[maybe_unused]] const bool log_is_quiet = [] {
  spdlog::set_level(spdlog::level::off);
  return true;
}();

}  // namespace

void crash(const Folder &folder, const Folder &copy) {
  for (const char *file : {"vault.db", "vault.db-wal", "vault.db-witness", "master.key"}) {
    const std::string from = folder.path() + "/" + file;
    if (std::filesystem::exists(from)) std::filesystem::copy_file(from, copy.path() + "/" + file);
  }
}

std::vector<uint8_t> bytes_of(std::string_view text) {
  return {text.begin(), text.end()};
}

EntryName secret_name(std::string name, uint16_t vdc_id) {
  return {KS_NAME_TAG_SECRET, vdc_id, std::move(name)};
}

EntryRow example_row(uint64_t id, uint64_t version) {
  EntryRow row;
  row.id = id;
  row.version = version;
  row.owner = 1000;
  row.name = secret_name("wifi");
  row.alias = std::make_shared<const EntryName>(secret_name("home"));
  row.secret = SecretBytes::copy_of(bytes_of("correct horse"));
  row.metadata = std::make_shared<const std::vector<uint8_t>>(bytes_of("channel 11"));
  return row;
}

std::string secret_in(const Store &store, const EntryName &name) {
  const std::optional<Entry> entry = store.find(name);
  if (!entry) return "(none)";
  const Bytes bytes = entry->secret->bytes();
  return {bytes.begin(), bytes.end()};
}

std::string metadata_in(const Store &store, const EntryName &name) {
  const std::optional<Entry> entry = store.find(name);
  return entry ? std::string(entry->metadata->begin(), entry->metadata->end()) : "(none)";
}

std::vector<std::string> names_in(const Store &store) {
  std::vector<std::string> names;
  for (size_t i = 0; i < store.count(); ++i) names.push_back(store.at(static_cast<uint16_t>(i)).value().name);
  return names;
}

KsResult put(Store &store, const std::string &name, std::string_view secret, std::string_view metadata, uid_t owner) {
  return store.put(secret_name(name), std::nullopt, bytes_of(secret), bytes_of(metadata), owner);
}

std::string refusal_of(const std::function<void()> &action) {
  try {
    action();
  } catch (const std::runtime_error &refusal) {
    return refusal.what();
  }
  return "(nothing)";
}

std::string read_file(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void write_file(const std::string &path, std::string_view content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

void run_sql(const std::string &path, const std::string &sql) {
  sqlite3 *db = nullptr;
  sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, "unix");  // past any Disk
  char *error = nullptr;
  sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error);
  const std::string text = error == nullptr ? "" : error;
  sqlite3_free(error);
  sqlite3_close(db);
  if (!text.empty()) throw std::logic_error(text);
}

namespace {

struct DiskState {
  std::atomic<int> write_error{0};
  std::atomic<int> spared_writes{0};
  std::atomic<int> sync_error{0};
  std::atomic<bool> skip{false};
  std::atomic<int64_t> room{INT64_MAX};
  std::mutex mutex;
  std::condition_variable changed;
  bool hold = false;
  bool held = false;
  bool spares_held = false;
  bool lets_one_go = false;
  std::function<void()> after_change = [] {};
};

DiskState *disk = nullptr;
sqlite3_vfs shim, *real_vfs = nullptr;

struct ShimFile {
  sqlite3_file base;
  sqlite3_file *real() { return reinterpret_cast<sqlite3_file *>(this + 1); }
};

sqlite3_file *real(sqlite3_file *file) {
  return reinterpret_cast<ShimFile *>(file)->real();
}

template <typename Change>
int change(Change make) {
  const int result = make();
  disk->after_change();
  return result;
}

int close_file(sqlite3_file *file) {
  return real(file)->pMethods->xClose(real(file));
}
int read_file_part(sqlite3_file *file, void *to, int size, sqlite3_int64 offset) {
  return real(file)->pMethods->xRead(real(file), to, size, offset);
}
int write_file_part(sqlite3_file *file, const void *from, int size, sqlite3_int64 offset) {
  const bool spared = disk->write_error != 0 && disk->spared_writes > 0 && disk->spared_writes-- > 0;
  const int error = offset + size > disk->room ? ENOSPC : spared ? 0 : disk->write_error.load();
  if (error == ENOSPC) return SQLITE_FULL;
  if (error != 0) {
    errno = error;
    return SQLITE_IOERR_WRITE;
  }
  return change([=] { return real(file)->pMethods->xWrite(real(file), from, size, offset); });
}
int truncate_file(sqlite3_file *file, sqlite3_int64 size) {
  return change([=] { return real(file)->pMethods->xTruncate(real(file), size); });
}
int sync_file(sqlite3_file *file, int flags) {
  bool succeeds = false;
  {
    std::unique_lock lock(disk->mutex);
    if (disk->hold) {
      disk->held = true;
      disk->changed.notify_all();
      disk->changed.wait(lock, [] { return !disk->hold || disk->lets_one_go; });
      disk->lets_one_go = false;
      disk->held = false;
      succeeds = disk->spares_held;
    }
  }
  if (disk->sync_error != 0 && !succeeds) return SQLITE_IOERR_FSYNC;
  return change([=] { return disk->skip ? SQLITE_OK : real(file)->pMethods->xSync(real(file), flags); });
}
int file_size(sqlite3_file *file, sqlite3_int64 *size) {
  return real(file)->pMethods->xFileSize(real(file), size);
}
int lock_file(sqlite3_file *file, int level) {
  return real(file)->pMethods->xLock(real(file), level);
}
int unlock_file(sqlite3_file *file, int level) {
  return real(file)->pMethods->xUnlock(real(file), level);
}
int check_lock(sqlite3_file *file, int *out) {
  return real(file)->pMethods->xCheckReservedLock(real(file), out);
}
int control_file(sqlite3_file *file, int op, void *argument) {
  if (const int error = disk->sync_error != 0 ? disk->sync_error.load() : disk->write_error.load();
      op == SQLITE_FCNTL_LAST_ERRNO && error != 0) {
    *static_cast<int *>(argument) = error;
    return SQLITE_OK;
  }
  return real(file)->pMethods->xFileControl(real(file), op, argument);
}
int sector_size(sqlite3_file *file) {
  return real(file)->pMethods->xSectorSize(real(file));
}
int characteristics(sqlite3_file *file) {
  return real(file)->pMethods->xDeviceCharacteristics(real(file));
}

// Version 1: a log without shared memory, as the vault keeps it.
const sqlite3_io_methods kMethods{.iVersion = 1,
                                  .xClose = close_file,
                                  .xRead = read_file_part,
                                  .xWrite = write_file_part,
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

int open_file(sqlite3_vfs *, const char *name, sqlite3_file *file, int flags, int *out_flags) {
  file->pMethods = nullptr;
  const int error = real_vfs->xOpen(real_vfs, name, real(file), flags, out_flags);
  if (real(file)->pMethods != nullptr) file->pMethods = &kMethods;
  return error;
}

}  // namespace

Disk::Disk() {
  disk = new DiskState;
  real_vfs = sqlite3_vfs_find(nullptr);
  shim = *real_vfs;
  shim.zName = "disk of a test";
  shim.pNext = nullptr;
  shim.szOsFile = static_cast<int>(sizeof(ShimFile)) + real_vfs->szOsFile;
  shim.xOpen = open_file;
  sqlite3_vfs_register(&shim, 1);
}

Disk::~Disk() {
  sqlite3_vfs_unregister(&shim);
  sqlite3_vfs_register(real_vfs, 1);
  delete disk;
  disk = nullptr;
}

void Disk::fail_writes(int error) {
  disk->spared_writes = 0;
  disk->write_error = error;
}
void Disk::fail_later_writes(int count, int error) {
  disk->spared_writes = count;
  disk->write_error = error;
}
void Disk::fail_syncs(int error) {
  disk->sync_error = error;
}
void Disk::fail_later_syncs(int error) {
  const std::lock_guard lock(disk->mutex);
  disk->spares_held = true;
  disk->sync_error = error;
}
void Disk::skip_syncs() {
  disk->skip = true;
}
void Disk::after_changes(std::function<void()> action) {
  disk->after_change = std::move(action);
}
void Disk::limit_room(int64_t bytes) {
  disk->room = bytes;
}

void Disk::hold_syncs() {
  const std::lock_guard lock(disk->mutex);
  disk->hold = true;
}

void Disk::let_syncs_go() {
  const std::lock_guard lock(disk->mutex);
  disk->hold = false;
  disk->changed.notify_all();
}

void Disk::let_one_sync_go() {
  const std::lock_guard lock(disk->mutex);
  disk->held = false;  // so that the next one can be waited for
  disk->lets_one_go = true;
  disk->changed.notify_all();
}

void Disk::wait_for_held_sync() {
  std::unique_lock lock(disk->mutex);
  disk->changed.wait(lock, [] { return disk->held; });
}

}  // namespace ksd::vault
