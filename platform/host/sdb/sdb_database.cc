#include "sdb_database.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host_fork.h"
#include "sdb_codes.h"
#include "sdb_folder.h"
#include "sdb_layout.h"

namespace sdb {

namespace {

// The format depends on the word size, so processes of the two kinds keep separate files.
constexpr const char *kEnding = sizeof(void *) == 8 ? "-64.mdb" : "-32.mdb";
constexpr char kLockEnding[] = "-lock";  // LMDB's choice
constexpr char kGateEnding[] = "-gate";

// A crash of the machine may undo the newest commit, which a cache can bear, but harms no other: half the waiting.
constexpr unsigned kEnvironmentFlags = MDB_NOSUBDIR | MDB_NOTLS | MDB_NOMETASYNC;

// Writers replace a transaction's head with the second commit after it.
constexpr int kSnapshotAttempts = 100;

constexpr long kTableByte = 0;  // each gate takes two
constexpr long kCommitByte = 2;

// Process is what belongs to one process. A child of fork makes its own and keeps its parent's, to know what was open:
// the parent's environments themselves are left as they are, since closing one would free the parent's reader slots.
struct Process {
  uint32_t generation;
  Process *parent;
  std::atomic<Database *> databases;
  pthread_mutex_t opening;
};

constinit std::atomic<Process *> current_process{nullptr};

Process *this_process() {
  Process *process = current_process.load(std::memory_order_acquire);
  const uint32_t generation = host::fork_generation();
  if (process != nullptr && process->generation == generation) return process;

  auto *own = static_cast<Process *>(calloc(1, sizeof(Process)));
  if (own == nullptr) return nullptr;
  own->generation = generation;
  own->parent = process;
  pthread_mutex_init(&own->opening, nullptr);
  if (current_process.compare_exchange_strong(process, own, std::memory_order_acq_rel)) return own;
  free(own);
  return process;
}

Database *find_in(const Process *process, const char *uri) {
  Database *database = process->databases.load(std::memory_order_acquire);
  while (database != nullptr && strcmp(database->uri, uri) != 0) database = database->next;
  return database;
}

bool was_open_before_fork(const Process *process, const char *uri) {
  for (const Process *before = process->parent; before != nullptr; before = before->parent) {
    if (find_in(before, uri) != nullptr) return true;
  }
  return false;
}

void on_broken_assumption(MDB_env *, const char *) {
  Thread *thread = this_thread();
  if (thread != nullptr && thread->escape_set) __builtin_longjmp(thread->escape, 1);
}

bool is_alias(const Database &database, const Folder &folder, const char *name) {
  return database.folder_device == folder.status.st_dev && database.folder_inode == folder.status.st_ino &&
         strcmp(strrchr(database.uri, '/') + 1, name) == 0;
}

// Opening is one attempt to open a database; it owns what it has opened until that is handed over.
class Opening {
 public:
  Opening(Thread *thread, Process *process, const char *uri, const Location &location)
      : thread_(thread), process_(process), uri_(uri), location_(location) {}

  ~Opening() {
    if (environment_ != nullptr) mdb_env_close(environment_);
    if (in_gate_) database_->table_gate.leave();
    if (data_fd_ >= 0) close(data_fd_);
    if (gate_fd_ >= 0) close(gate_fd_);
    if (folder_.fd >= 0) close(folder_.fd);
    if (database_ != nullptr) free(database_->uri);
    free(database_);
  }

  Opening(const Opening &) = delete;
  Opening &operator=(const Opening &) = delete;

  uint32_t run(const Deadline &deadline) {
    if (const uint32_t code = open_folder(thread_, location_.folder, &folder_); code != kOk) return code;
    if (refuse_alias()) return fail_with(thread_, kBadUri, "the database is open at another URI; use only one");
    if (const uint32_t code = make_record(); code != kOk) return code;
    if (const uint32_t code = enter_gate(deadline); code != kOk) return code;
    if (const uint32_t code = open_files(); code != kOk) return code;
    if (const uint32_t code = open_environment(); code != kOk) return code;
    if (const uint32_t code = first_read(); code != kOk) return code;
    hand_over();
    return kOk;
  }

 private:
  bool refuse_alias() const {
    for (const Database *other = process_->databases.load(std::memory_order_acquire); other; other = other->next) {
      if (is_alias(*other, folder_, location_.name)) return true;
    }
    return false;
  }

  uint32_t make_record() {
    database_ = static_cast<Database *>(calloc(1, sizeof(Database)));
    if (database_ == nullptr) return kNoMemory;
    database_->uri = strdup(uri_);
    if (database_->uri == nullptr) return kNoMemory;
    database_->generation = process_->generation;
    database_->folder_device = folder_.status.st_dev;
    database_->folder_inode = folder_.status.st_ino;
    snprintf(data_name_, sizeof data_name_, "%s%s", location_.name, kEnding);
    snprintf(lock_name_, sizeof lock_name_, "%s%s", data_name_, kLockEnding);
    snprintf(gate_name_, sizeof gate_name_, "%s%s", data_name_, kGateEnding);
    return kOk;
  }

  uint32_t enter_gate(const Deadline &deadline) {
    if (const uint32_t code = open_file(thread_, folder_, location_.folder, gate_name_, &gate_fd_); code != kOk) {
      return code;
    }
    database_->table_gate.init(gate_fd_, kTableByte);
    database_->commit_gate.init(gate_fd_, kCommitByte);
    switch (database_->table_gate.enter(deadline)) {
      case GateResult::kEntered:
        in_gate_ = true;
        return kOk;
      case GateResult::kTimedOut:
        return fail_with(thread_, kRetry, "another process holds %s/%s", location_.folder, gate_name_);
      case GateResult::kFailed:
        break;
    }
    return fail_with(thread_, kSystem, "cannot lock %s/%s: %s", location_.folder, gate_name_, strerrordesc_np(errno));
  }

  // LMDB makes missing files with modes cut by the umask, and takes what it finds for its own.
  uint32_t open_files() {
    int lock_fd = -1;
    if (const uint32_t code = open_file(thread_, folder_, location_.folder, lock_name_, &lock_fd); code != kOk) {
      return code;
    }
    close(lock_fd);
    if (const uint32_t code = open_file(thread_, folder_, location_.folder, data_name_, &data_fd_); code != kOk) {
      return code;
    }
    const char *fault = check_heads(data_fd_);
    if (fault == nullptr) return kOk;
    return fail_with(thread_, kDamaged, "%s/%s: %s; delete it to begin anew", location_.folder, data_name_, fault);
  }

  uint32_t open_environment() {
    char path[PATH_MAX + sizeof data_name_];
    snprintf(path, sizeof path, "%s/%s", location_.folder, data_name_);
    int result = mdb_env_create(&environment_);
    if (result == 0) result = mdb_env_set_mapsize(environment_, kMapSize);
    if (result == 0) result = mdb_env_set_maxreaders(environment_, kReaderSlots);
    if (result == 0) result = mdb_env_set_assert(environment_, on_broken_assumption);
    if (result == 0) result = mdb_env_open(environment_, path, kEnvironmentFlags, folder_.file_mode());
    if (result != 0) return fail_with_lmdb(thread_, path, result);
    return check_same_file(path);
  }

  // The folder might have been exchanged since it was examined, but LMDB takes a path only.
  uint32_t check_same_file(const char *path) {
    struct stat examined;
    if (fstat(data_fd_, &examined) != 0 || ftruncate_to_map(examined) != 0) {
      return fail_with(thread_, errno == ENOSPC ? kFull : kSystem, "%s: %s", path, strerrordesc_np(errno));
    }
    database_->file_device = examined.st_dev;
    database_->file_inode = examined.st_ino;
    database_->environment = environment_;
    return check_file(thread_, *database_);
  }

  int ftruncate_to_map(const struct stat &status) {
    return status.st_size < static_cast<off_t>(kMapSize) ? ftruncate(data_fd_, kMapSize) : 0;
  }

  uint32_t first_read() {
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
        return fail_with(thread_, kDamaged, "%s/%s: %s; delete it to begin anew", location_.folder, data_name_, fault);
      }
      mdb_txn_reset(reader);
      if (const int renewed = mdb_txn_renew(reader); renewed != 0) return fail_with_lmdb(thread_, data_name_, renewed);
    }
    return fail_with(thread_, kRetry, "%s/%s changes too fast to be examined", location_.folder, data_name_);
  }

  void hand_over() {
    database_->table_gate.leave();
    in_gate_ = false;
    database_->next = process_->databases.load(std::memory_order_relaxed);
    process_->databases.store(database_, std::memory_order_release);
    database_ = nullptr;
    environment_ = nullptr;
    gate_fd_ = -1;
  }

  Thread *thread_;
  Process *process_;
  const char *uri_;
  const Location &location_;
  Folder folder_{-1, false, {}};
  Database *database_ = nullptr;
  MDB_env *environment_ = nullptr;
  int gate_fd_ = -1;
  int data_fd_ = -1;
  bool in_gate_ = false;
  char data_name_[NAME_MAX + 1];
  char lock_name_[sizeof data_name_ + sizeof kLockEnding];
  char gate_name_[sizeof data_name_ + sizeof kGateEnding];
};

uint32_t open_in(Thread *thread, Process *process, const char *uri) {
  Location location;
  if (!parse_uri(uri, &location)) return fail_with(thread, kBadUri, "%s", uri == nullptr ? "none given" : uri);
  const NoCancellation no_cancellation;
  const Deadline deadline = Deadline::in_ms(kOpenDeadlineMs);
  if (pthread_mutex_clocklock(&process->opening, CLOCK_MONOTONIC, &deadline.at) != 0) {
    return fail_with(thread, kRetry, "another thread is opening a database");
  }
  uint32_t code = kOk;
  if (find_in(process, uri) == nullptr) code = Opening(thread, process, uri, location).run(deadline);
  pthread_mutex_unlock(&process->opening);
  return code;
}

int claim_slot(MDB_env *environment, MDB_txn **out_reader) {
  const int result = mdb_txn_begin(environment, nullptr, MDB_RDONLY, out_reader);
  if (result != MDB_READERS_FULL) return result;
  int dead = 0;
  if (mdb_reader_check(environment, &dead) != 0 || dead == 0) return result;
  return mdb_txn_begin(environment, nullptr, MDB_RDONLY, out_reader);
}

uint32_t begin_first_read(Thread *thread, Seat *seat) {
  Database &database = *seat->database;
  const NoCancellation no_cancellation;
  if (database.table_gate.enter(Deadline::in_ms(kOpenDeadlineMs)) != GateResult::kEntered) {
    return fail_with(thread, kRetry, "another process holds up the table of readers");
  }
  const int result = claim_slot(database.environment, &seat->reader);
  database.table_gate.leave();
  if (result == MDB_READERS_FULL) return fail_with(thread, kRetry, "all %u reader slots are taken", kReaderSlots);
  return result == 0 ? kOk : fail_with_lmdb(thread, "cannot begin to read", result);
}

}  // namespace

uint32_t open_database(Thread *thread, const char *uri) {
  Process *process = this_process();
  return process == nullptr ? kNoMemory : open_in(thread, process, uri);
}

Database *find_database(Thread *thread, const char *uri, uint32_t *out_code) {
  Process *process = this_process();
  if (process == nullptr || uri == nullptr) {
    *out_code = process == nullptr ? kNoMemory : kBadUri;
    return nullptr;
  }
  if (Database *database = find_in(process, uri)) return database;

  Location location;
  if (!parse_uri(uri, &location)) {
    *out_code = kBadUri;
    return nullptr;
  }
  *out_code = was_open_before_fork(process, uri) ? open_in(thread, process, uri) : kNotOpen;
  return *out_code == kOk ? find_in(process, uri) : nullptr;
}

uint32_t begin_read(Thread *thread, Seat *seat) {
  if (seat->reader == nullptr) return begin_first_read(thread, seat);
  const int result = mdb_txn_renew(seat->reader);
  if (result == 0) return kOk;
  if (result != MDB_BAD_RSLOT) return fail_with_lmdb(thread, "cannot begin to read", result);
  // The slot went to somebody else, who took this process for dead: what belongs to it must not be touched again.
  seat->reader = nullptr;
  return begin_first_read(thread, seat);
}

void end_read(Seat *seat) {
  mdb_txn_reset(seat->reader);
}

uint32_t check_file(Thread *thread, const Database &database) {
  int fd = -1;
  struct stat status;
  if (mdb_env_get_fd(database.environment, &fd) != 0 || fstat(fd, &status) != 0 ||
      status.st_dev != database.file_device || status.st_ino != database.file_inode || status.st_nlink == 0) {
    return fail_with(thread, kUnsafe, "%s: its file was deleted or closed under the process; start it anew",
                     database.uri);
  }
  if (status.st_size >= static_cast<off_t>(kMapSize)) return kOk;
  return fail_with(thread, kDamaged, "%s: its file was truncated; delete it and start its users anew", database.uri);
}

uint32_t fail_with_lmdb(Thread *thread, const char *doing, int result) {
  return fail_with(thread, code_of_lmdb(result), "%s: %s", doing,
                   result < 0 ? mdb_strerror(result) : strerrordesc_np(result));
}

}  // namespace sdb
