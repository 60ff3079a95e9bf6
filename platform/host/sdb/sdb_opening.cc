// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "sdb_opening.h"

#include <fcntl.h>
#include <lmdb.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "sdb_codes.h"
#include "sdb_layout.h"
#include "sdb_reading.h"

namespace sdb {

namespace {

constexpr char kLockEnding[] = "-lock";  // LMDB's choice

// Nothing is synced: what this run of the machine leaves, no other reads. A process may die at any instant all the
// same, since pages reach the kernel in LMDB's order. That would hold of MDB_WRITEMAP too, which writes them where they
// are mapped; but there a full disk ends the program that writes, and so may any stray pointer end the database.
constexpr unsigned kEnvironmentFlags = MDB_NOSUBDIR | MDB_NOTLS | MDB_NOSYNC;

// Writers replace a transaction's head with the second commit after it.
constexpr int kSnapshotAttempts = 100;

void on_broken_assumption(MDB_env *, const char *) {
  Thread *thread = this_thread();
  if (thread != nullptr && thread->escape_set) longjmp(thread->escape, 1);
}

// Returns where this process has mapped the file, which LMDB doesn't tell, or null where the kernel doesn't either.
const uint8_t *find_mapping(ino_t inode, const char *name) {
  FILE *maps = fopen("/proc/self/maps", "re");
  if (maps == nullptr) return nullptr;
  const uint8_t *found = nullptr;
  char line[PATH_MAX + 128];
  while (found == nullptr && fgets(line, sizeof line, maps) != nullptr) {
    unsigned long start = 0;
    unsigned long end = 0;
    unsigned long long offset = 0;
    unsigned long long number = 0;
    line[strcspn(line, "\n")] = '\0';
    if (sscanf(line, "%lx-%lx %*s %llx %*s %llu", &start, &end, &offset, &number) != 4) continue;
    const char *slash = strrchr(line, '/');
    const bool same = offset == 0 && number == inode && end - start >= kMapSize;
    if (same && slash != nullptr && strcmp(slash + 1, name) == 0) found = reinterpret_cast<const uint8_t *>(start);
  }
  fclose(maps);
  return found;
}

// Opening is one attempt to open a database; it owns what it has opened until that is handed over.
class Opening {
 public:
  Opening(Thread *thread, const char *uri, const Location &location)
      : thread_(thread), uri_(uri), location_(location) {}

  ~Opening() {
    if (environment_ != nullptr) mdb_env_close(environment_);
    if (map_ != MAP_FAILED) munmap(map_, kMapSize);
    if (gate_page_ != MAP_FAILED) munmap(gate_page_, kGatePageSize);
    if (in_gate_) database_->table_gate.leave();
    if (data_fd_ >= 0) close(data_fd_);
    if (gate_fd_ >= 0) close(gate_fd_);
    if (folder_.fd >= 0) close(folder_.fd);
    if (database_ != nullptr) free(database_->uri);
    free(database_);
  }

  Opening(const Opening &) = delete;
  Opening &operator=(const Opening &) = delete;

  uint32_t run(const Database *others, const Deadline &deadline) {
    if (const uint32_t code = open_folder(thread_, location_.folder, &folder_); code != kOk) return code;
    if (const uint32_t code = refuse_alias(others); code != kOk) return code;
    if (const uint32_t code = make_record(); code != kOk) return code;
    if (const uint32_t code = enter_gate(deadline); code != kOk) return code;
    if (const uint32_t code = open_files(); code != kOk) return code;
    if (const uint32_t code = open_environment(); code != kOk) return code;
    if (const uint32_t code = extend_file(); code != kOk) return code;
    if (const uint32_t code = map_files(); code != kOk) return code;
    if (const uint32_t code = check_same_file(); code != kOk) return code;
    if (const uint32_t code = take_seat(); code != kOk) return code;
    database_->gate_page->mark = mark_;  // from now on the files are of this run
    return kOk;
  }

  // hand_over gives away what was opened, after run has succeeded.
  Database *hand_over() {
    database_->table_gate.leave();
    in_gate_ = false;
    environment_ = nullptr;
    map_ = gate_page_ = MAP_FAILED;
    gate_fd_ = -1;
    Database *opened = database_;
    database_ = nullptr;
    return opened;
  }

 private:
  // The same folder and name under another URI are the same database, which LMDB must not open twice.
  uint32_t refuse_alias(const Database *others) {
    for (const Database *other = others; other != nullptr; other = other->next) {
      const bool same_folder =
          other->folder_device == folder_.status.st_dev && other->folder_inode == folder_.status.st_ino;
      if (same_folder && strcmp(strrchr(other->uri, '/') + 1, location_.name) == 0) {
        return fail_with(thread_, kBadUri, "the database is open at another URI; use only one");
      }
    }
    return kOk;
  }

  uint32_t make_record() {
    database_ = static_cast<Database *>(calloc(1, sizeof(Database)));
    if (database_ == nullptr) return kNoMemory;
    database_->uri = strdup(uri_);
    if (database_->uri == nullptr) return kNoMemory;
    database_->folder_device = folder_.status.st_dev;
    database_->folder_inode = folder_.status.st_ino;
    snprintf(data_name_, sizeof data_name_, "%s%s", location_.name, host::kOwnDatabase.ending);
    snprintf(lock_name_, sizeof lock_name_, "%s%s", data_name_, kLockEnding);
    snprintf(gate_name_, sizeof gate_name_, "%s%s", data_name_, host::kGateEnding);
    snprintf(data_path_, sizeof data_path_, "%s/%s", location_.folder, data_name_);
    return kOk;
  }

  uint32_t enter_gate(const Deadline &deadline) {
    if (const uint32_t code = open_file(thread_, folder_, location_.folder, gate_name_, &gate_fd_); code != kOk) {
      return code;
    }
    database_->table_gate.init(gate_fd_);
    switch (database_->table_gate.enter(deadline)) {
      case GateResult::kEntered:
        in_gate_ = true;
        return kOk;
      case GateResult::kTimedOut:
        return fail_with(thread_, kRetry, "another process holds %s/%s", location_.folder, gate_name_);
      case GateResult::kFailed:
      case GateResult::kGone:
        break;
    }
    return fail_with(thread_, kSystem, "cannot lock %s/%s: %s", location_.folder, gate_name_, strerrordesc_np(errno));
  }

  // Files that aren't of this run of the machine are thrown away as they are, and LMDB's table of readers with them:
  // whoever still has them open, as a program of another version may have, goes on with what it has. Nothing is lost by
  // ending on the way: as long as the mark is missing, the next one to open begins here.
  uint32_t open_files() {
    if (!host::mark_of_this_run(&mark_)) {
      return fail_with(thread_, kSystem, "cannot read which run of the machine this is: %s", strerrordesc_np(errno));
    }
    marked_ = host::has_mark(gate_fd_, mark_);
    if (const uint32_t code = open_both(); code != kOk) return code;
    if (!marked_) {
      close(std::exchange(data_fd_, -1));
      const char *const names[] = {lock_name_, data_name_};
      for (const char *name : names) {
        if (unlinkat(folder_.fd, name, 0) != 0 && errno != ENOENT) {
          return fail_with(thread_, kSystem, "cannot remove %s/%s, which is of another run of the machine: %s",
                           location_.folder, name, strerrordesc_np(errno));
        }
      }
      if (const uint32_t code = open_both(); code != kOk) return code;
    }
    const char *fault = check_heads(data_fd_);
    return fault == nullptr ? kOk : fail_with(thread_, kDamaged, "%s: %s; delete it to begin anew", data_path_, fault);
  }

  // LMDB makes missing files with modes cut by the umask, and takes what it finds for its own.
  uint32_t open_both() {
    int lock_fd = -1;
    if (const uint32_t code = open_file(thread_, folder_, location_.folder, lock_name_, &lock_fd); code != kOk) {
      return code;
    }
    close(lock_fd);
    return open_file(thread_, folder_, location_.folder, data_name_, &data_fd_);
  }

  uint32_t open_environment() {
    int result = mdb_env_create(&environment_);
    if (result == 0) result = mdb_env_set_mapsize(environment_, kMapSize);
    if (result == 0) result = mdb_env_set_maxreaders(environment_, kReaderSlots);
    if (result == 0) result = mdb_env_set_assert(environment_, on_broken_assumption);
    if (result == 0) result = mdb_env_open(environment_, data_path_, kEnvironmentFlags, folder_.file_mode());
    return result == 0 ? kOk : fail_with_lmdb(thread_, data_path_, result);
  }

  // The file has the map's size from the start; sdb_database.h says why.
  uint32_t extend_file() {
    struct stat status;
    int result = fstat(data_fd_, &status);
    if (result == 0 && status.st_size < static_cast<off_t>(kMapSize)) result = ftruncate(data_fd_, kMapSize);
    if (result == 0) {
      database_->file_device = status.st_dev;
      database_->file_inode = status.st_ino;
      return kOk;
    }
    return fail_with(thread_, errno == ENOSPC ? kFull : kSystem, "%s: %s", data_path_, strerrordesc_np(errno));
  }

  // Mapped once for all: a database stays open for the life of the process. The gate's page is allocated now, since
  // storing into a mapped file whose file system is full would end the program.
  uint32_t map_files() {
    if (const int error = posix_fallocate(gate_fd_, 0, kGatePageSize); error != 0) {
      return fail_with(thread_, error == ENOSPC ? kFull : kSystem, "%s: %s", gate_name_, strerrordesc_np(error));
    }
    // A process of 32 bits has no room for the file twice.
    const bool narrow = sizeof(void *) < 8;
    const uint8_t *lmdbs_map = narrow ? find_mapping(database_->file_inode, data_name_) : nullptr;
    if (lmdbs_map == nullptr) map_ = mmap(nullptr, kMapSize, PROT_READ, MAP_SHARED, data_fd_, 0);
    gate_page_ = mmap(nullptr, kGatePageSize, PROT_READ | PROT_WRITE, MAP_SHARED, gate_fd_, 0);
    if ((lmdbs_map == nullptr && map_ == MAP_FAILED) || gate_page_ == MAP_FAILED) {
      return fail_with(thread_, errno == ENOMEM ? kNoMemory : kSystem, "%s: %s", data_path_, strerrordesc_np(errno));
    }
    database_->map = lmdbs_map != nullptr ? lmdbs_map : static_cast<const uint8_t *>(map_);
    database_->gate_page = static_cast<GatePage *>(gate_page_);
    database_->gate_fd = gate_fd_;
    struct stat status;
    if (fstat(gate_fd_, &status) != 0) return kSystem;
    database_->gate_inode = status.st_ino;
    if (marked_) return kOk;
    const int error = database_->gate_page->commit_gate.make();
    return error == 0 ? kOk : fail_with(thread_, kSystem, "%s: %s", gate_name_, strerrordesc_np(error));
  }

  // The folder might have been exchanged since it was examined, but LMDB takes a path only.
  uint32_t check_same_file() {
    database_->environment = environment_;
    return check_file_in_place(thread_, *database_);
  }

  // take_seat begins the thread's first read, so that its snapshot can be examined, and leaves it the reader.
  uint32_t take_seat() {
    int dead = 0;
    mdb_reader_check(environment_, &dead);
    MDB_txn *reader = nullptr;
    int result = mdb_txn_begin(environment_, nullptr, MDB_RDONLY, &reader);
    if (result == 0) result = mdb_dbi_open(reader, nullptr, 0, &database_->entries);
    if (result != 0) {
      if (reader != nullptr) mdb_txn_abort(reader);
      return fail_with_lmdb(thread_, data_name_, result);
    }
    const uint32_t code = check_snapshot(reader);
    Seat *seat = code == kOk ? seat_at(thread_, database_) : nullptr;
    if (seat == nullptr) {
      mdb_txn_abort(reader);
      return code == kOk ? kNoMemory : code;
    }
    mdb_txn_reset(reader);
    seat->reader = reader;
    return kOk;
  }

  uint32_t check_snapshot(MDB_txn *reader) {
    const char *fault = nullptr;
    for (int attempt = 0; attempt < kSnapshotAttempts; ++attempt) {
      const PagesResult result = check_pages(data_fd_, mdb_txn_id(reader), &fault);
      if (result == PagesResult::kGood) return kOk;
      if (result == PagesResult::kBad) {
        return fail_with(thread_, kDamaged, "%s: %s; delete it to begin anew", data_path_, fault);
      }
      mdb_txn_reset(reader);
      if (const int renewed = mdb_txn_renew(reader); renewed != 0) return fail_with_lmdb(thread_, data_name_, renewed);
    }
    return fail_with(thread_, kRetry, "%s changes too fast to be examined", data_path_);
  }

  Thread *thread_;
  const char *uri_;
  const Location &location_;
  Folder folder_{-1, false, {}};
  Database *database_ = nullptr;
  MDB_env *environment_ = nullptr;
  void *map_ = MAP_FAILED;
  void *gate_page_ = MAP_FAILED;
  int gate_fd_ = -1;
  int data_fd_ = -1;
  bool in_gate_ = false;
  host::DatabaseMark mark_;
  bool marked_ = false;
  char data_name_[NAME_MAX + 1];
  char lock_name_[sizeof data_name_ + sizeof kLockEnding];
  char gate_name_[sizeof data_name_ + sizeof host::kGateEnding];
  char data_path_[PATH_MAX + sizeof data_name_];
};

}  // namespace

uint32_t open_at(Thread *thread, const char *uri, const Location &location, const Database *others,
                 const Deadline &deadline, Database **out_database) {
  Opening opening(thread, uri, location);
  const uint32_t code = opening.run(others, deadline);
  if (code == kOk) *out_database = opening.hand_over();
  return code;
}

}  // namespace sdb
