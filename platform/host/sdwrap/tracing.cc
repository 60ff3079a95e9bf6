// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "tracing.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <pthread.h>
#include <signal.h>
#include <sys/auxv.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace sdwrap {

namespace {

enum class Reading { kNotYet, kNow, kDone };

constinit std::atomic<Reading> reading{Reading::kNotYet};
constinit HostStatePage asked{};
constinit std::atomic<bool> any_asked{false};
constinit std::atomic<const char *> file_path{nullptr};

// Whether the program may do what its caller mightn't: then the environment isn't to be trusted. Root's is root's own;
// others have capabilities only by the file they were executed from, or because somebody gave them on.
bool has_more_rights() {
  if (getauxval(AT_SECURE) != 0) return true;
  if (geteuid() == 0) return false;
  __user_cap_header_struct header = {.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
  return syscall(SYS_capget, &header, sets) != 0 || (sets[0].permitted | sets[1].permitted) != 0;
}

// ---- KS_TRACE.

constexpr int kShown = 40;  // bytes of what is wrong

struct Word {
  const char *text;
  size_t size;

  bool is(const char *name) const { return strlen(name) == size && memcmp(text, name, size) == 0; }
};

bool open_gate(uint32_t (&gates)[8], const Word &level) {
  if (level.is("all")) {
    memset(gates, 0xff, sizeof gates);
    return true;
  }
  uint32_t number = 0;
  if (level.is("alert")) {
    number = 100;
  } else if (level.is("normal")) {
    number = 103;
  } else {
    if (level.size == 0 || level.size > 3) return false;
    for (size_t i = 0; i < level.size; i++) {
      if (level.text[i] < '0' || level.text[i] > '9') return false;
      number = number * 10 + static_cast<uint32_t>(level.text[i] - '0');
    }
    if (number > 255) return false;
  }
  gates[number / 32] |= UINT32_C(1) << number % 32;
  return true;
}

bool open_gates(const Word &item, HostStatePage *page) {
  const auto *plus = static_cast<const char *>(memchr(item.text, '+', item.size));
  if (plus == nullptr) return false;
  const Word family = {.text = item.text, .size = static_cast<size_t>(plus - item.text)};
  const Word level = {.text = plus + 1, .size = item.size - family.size - 1};
  if (family.is("record")) return open_gate(page->history_open, level);
  return family.is("debug") && open_gate(page->debug_open, level);
}

void write_to(int file, const char *line, size_t size);

void complain_about(const Word &item) {
  char shown[kShown + 1] = {};
  for (size_t i = 0; i < item.size && i < kShown; i++) {
    shown[i] = item.text[i] < ' ' || item.text[i] == 0x7f ? '?' : item.text[i];
  }
  char line[400];
  const int size = snprintf(line, sizeof line,
                            "ks[%d]: KS_TRACE: \"%s\" isn't known, and nothing is traced. It takes family+level[,...]: "
                            "the families are record and debug, the levels alert (100), normal (103), all and numbers "
                            "from 0 to 255\n",
                            getpid(), shown);
  write_to(STDERR_FILENO, line, static_cast<size_t>(size));
}

// Opens what the text asks for, all or nothing.
void read_gates(const char *text) {
  HostStatePage page = {};
  while (true) {
    const Word item = {.text = text, .size = strcspn(text, ",")};
    if (!open_gates(item, &page)) return complain_about(item);
    text += item.size;
    if (*text == '\0') break;
    text++;
  }
  asked = page;
  any_asked.store(true, std::memory_order_release);
}

// ---- The file.

// Output is the file that lines go to. A program that closes what it doesn't know may get another under its number, so
// each line looks first. Those that were lost stay, small as they are: another thread may look at one.
struct Output {
  int file;
  dev_t device;
  ino_t inode;
};

constexpr Output kStandardError = {.file = STDERR_FILENO, .device = 0, .inode = 0};
constinit std::atomic<const Output *> output{nullptr};

bool is_there(const Output *known) {
  struct stat status;
  return known == &kStandardError ||
         (fstat(known->file, &status) == 0 && status.st_dev == known->device && status.st_ino == known->inode);
}

// Returns null, having said why, when the file can't be one for lines.
const Output *open_output(const char *path) {
  const int file =
      open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, S_IRUSR | S_IWUSR);
  const char *why = file < 0 ? strerrordesc_np(errno) : nullptr;
  struct stat status = {};
  if (file >= 0 && (fstat(file, &status) != 0 || !S_ISREG(status.st_mode))) why = "isn't a regular file";
  if (why == nullptr && status.st_uid != geteuid()) why = "belongs to another user";
  if (why == nullptr && status.st_nlink != 1) why = "has other names too";
  auto *opened = why == nullptr ? static_cast<Output *>(malloc(sizeof(Output))) : nullptr;
  if (opened != nullptr) {
    *opened = {.file = file, .device = status.st_dev, .inode = status.st_ino};
    return opened;
  }
  if (file >= 0) close(file);
  char line[256];
  const int size = snprintf(line, sizeof line, "ks[%d]: KS_TRACE_FILE: %.100s: %s; lines go to standard error\n",
                            getpid(), path, why == nullptr ? "there is no memory" : why);
  write_to(STDERR_FILENO, line, static_cast<size_t>(size));
  return nullptr;
}

const Output *output_for_a_line() {
  const char *path = file_path.load(std::memory_order_acquire);
  if (path == nullptr) return &kStandardError;
  const Output *known = output.load(std::memory_order_acquire);
  if (known != nullptr && is_there(known)) return known;
  const Output *fresh = open_output(path);
  if (fresh == nullptr) fresh = &kStandardError;
  if (output.compare_exchange_strong(known, fresh, std::memory_order_acq_rel)) return fresh;
  if (fresh != &kStandardError) {  // another thread's came first
    close(fresh->file);
    free(const_cast<Output *>(fresh));
  }
  return known;
}

// When nobody reads the other end any more, or the file may not grow, the signal that says so is taken back: a line is
// no reason to die.
void write_to(int file, const char *line, size_t size) {
  sigset_t fatal;
  sigset_t before;
  sigset_t pending;
  sigemptyset(&fatal);
  sigaddset(&fatal, SIGPIPE);
  sigaddset(&fatal, SIGXFSZ);
  sigpending(&pending);
  pthread_sigmask(SIG_BLOCK, &fatal, &before);
  ssize_t written;
  do {
    written = write(file, line, size);
  } while (written < 0 && errno == EINTR);
  const int signal = written >= 0 ? 0 : errno == EPIPE ? SIGPIPE : errno == EFBIG ? SIGXFSZ : 0;
  if (signal != 0 && sigismember(&pending, signal) == 0) {
    sigset_t raised;
    sigemptyset(&raised);
    sigaddset(&raised, signal);
    const timespec at_once = {};
    while (sigtimedwait(&raised, nullptr, &at_once) < 0 && errno == EINTR) {
    }
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace

bool read_environment() {
  Reading state = reading.load(std::memory_order_acquire);
  if (state == Reading::kDone) return true;
  if (state == Reading::kNow || !reading.compare_exchange_strong(state, Reading::kNow)) return false;
  const char *gates = secure_getenv("KS_TRACE");
  const char *path = secure_getenv("KS_TRACE_FILE");
  const bool names_file = path != nullptr && path[0] != '\0';
  const bool names_gates = gates != nullptr && gates[0] != '\0';
  if ((names_file || names_gates) && !has_more_rights()) {
    if (names_file) file_path.store(strdup(path), std::memory_order_release);
    if (names_gates) read_gates(gates);
  }
  reading.store(Reading::kDone, std::memory_order_release);
  return true;
}

const HostStatePage *asked_gates() {
  return any_asked.load(std::memory_order_acquire) ? &asked : nullptr;
}

void write_line(const char *line, size_t size) {
  write_to(output_for_a_line()->file, line, size);
}

}  // namespace sdwrap
