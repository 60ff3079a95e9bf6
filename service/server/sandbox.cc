// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "server/sandbox.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/landlock.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include "base/fd.h"
#include "base/log.h"
#include "base/refuse.h"

namespace ksd::server {
namespace {

#ifdef KSD_UNCONFINED
constexpr bool kIsConfined = false;
#else
constexpr bool kIsConfined = true;
#endif

// What headers of Debian 12 don't know yet.
constexpr uint64_t kTruncate = uint64_t{1} << 14;     // from version 3 on
constexpr uint64_t kDeviceIoctl = uint64_t{1} << 15;  // 5
constexpr int kGuardExecution = 65;                   // PR_SET_MDWE
constexpr unsigned long kRefuseExecGain = 1;

constexpr uint64_t kRead = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR;
constexpr uint64_t kChange = kRead | LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_REMOVE_FILE |
                             LANDLOCK_ACCESS_FS_REMOVE_DIR | LANDLOCK_ACCESS_FS_MAKE_REG | LANDLOCK_ACCESS_FS_MAKE_DIR |
                             LANDLOCK_ACCESS_FS_MAKE_SOCK | LANDLOCK_ACCESS_FS_REFER | kTruncate;
constexpr uint64_t kKnownToTheFirst = (LANDLOCK_ACCESS_FS_MAKE_SYM << 1) - 1;

// The kernel's ruleset in its newest form that is used here; older kernels are told a shorter one.
struct Ruleset {
  uint64_t files = 0;
  uint64_t network = 0;  // from version 4 on: binding and connecting TCP
};

// why_not words what keeps a part of the sandbox from being there, empty when it is.
using WhyNot = std::string;

WhyNot failed(const char *what) {
  return fmt::format("{}: {}", what, std::strerror(errno));
}

uint64_t files_known_to(long version) {
  uint64_t known = kKnownToTheFirst;
  if (version >= 2) known |= LANDLOCK_ACCESS_FS_REFER;
  if (version >= 3) known |= kTruncate;
  if (version >= 5) known |= kDeviceIoctl;
  return known;
}

// allow lets what lies below `path` be used. A folder that isn't there isn't needed, or whoever opens it says so.
bool allow(int rules, const std::string &path, uint64_t access) {
  const UniqueFd folder(open(path.c_str(), O_PATH | O_CLOEXEC));
  if (!folder) return true;
  landlock_path_beneath_attr rule{};
  rule.allowed_access = access;
  rule.parent_fd = folder.get();
  return syscall(SYS_landlock_add_rule, rules, LANDLOCK_RULE_PATH_BENEATH, &rule, 0) == 0;
}

WhyNot confine_files(const FileNeeds &needs) {
  const long version = syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
  if (version < 1) return failed("Landlock");
  const uint64_t known = files_known_to(version);
  constexpr uint64_t kTcp = 3;
  const Ruleset ruleset{.files = known, .network = version >= 4 ? kTcp : 0};
  const size_t size = version >= 4 ? sizeof ruleset : sizeof ruleset.files;
  const UniqueFd rules(static_cast<int>(syscall(SYS_landlock_create_ruleset, &ruleset, size, 0)));
  if (!rules) return failed("Landlock");
  for (const std::string &folder : needs.changed) {
    if (!allow(rules.get(), folder, kChange & known)) return failed(folder.c_str());
  }
  for (const std::string &folder : needs.read) {
    if (!allow(rules.get(), folder, kRead)) return failed(folder.c_str());
  }
  constexpr uint64_t kUseFile = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_WRITE_FILE;
  for (const char *device : {"/dev/null", "/dev/urandom"}) {
    if (!allow(rules.get(), device, kUseFile)) return failed(device);
  }
  return syscall(SYS_landlock_restrict_self, rules.get(), 0) == 0 ? WhyNot() : failed("Landlock");
}

// All that a service on a Unix socket calls: files, memory, time, threads, waiting. Sorted by what for.
constexpr std::array kCalls{
    // files
    SCMP_SYS(access), SCMP_SYS(chmod), SCMP_SYS(chown), SCMP_SYS(close), SCMP_SYS(close_range),
    SCMP_SYS(copy_file_range), SCMP_SYS(dup), SCMP_SYS(dup2), SCMP_SYS(dup3), SCMP_SYS(faccessat), SCMP_SYS(faccessat2),
    SCMP_SYS(fadvise64), SCMP_SYS(fallocate), SCMP_SYS(fchmod), SCMP_SYS(fchmodat), SCMP_SYS(fchown),
    SCMP_SYS(fchownat), SCMP_SYS(fcntl), SCMP_SYS(fdatasync), SCMP_SYS(flock), SCMP_SYS(fstat), SCMP_SYS(fstatfs),
    SCMP_SYS(fsync), SCMP_SYS(ftruncate), SCMP_SYS(getcwd), SCMP_SYS(getdents), SCMP_SYS(getdents64), SCMP_SYS(ioctl),
    SCMP_SYS(link), SCMP_SYS(linkat), SCMP_SYS(lseek), SCMP_SYS(lstat), SCMP_SYS(memfd_create), SCMP_SYS(mkdir),
    SCMP_SYS(mkdirat), SCMP_SYS(newfstatat), SCMP_SYS(open), SCMP_SYS(openat), SCMP_SYS(openat2), SCMP_SYS(pipe),
    SCMP_SYS(pipe2), SCMP_SYS(pread64), SCMP_SYS(preadv), SCMP_SYS(preadv2), SCMP_SYS(pwrite64), SCMP_SYS(pwritev),
    SCMP_SYS(pwritev2), SCMP_SYS(read), SCMP_SYS(readlink), SCMP_SYS(readlinkat), SCMP_SYS(readv), SCMP_SYS(rename),
    SCMP_SYS(renameat), SCMP_SYS(renameat2), SCMP_SYS(rmdir), SCMP_SYS(sendfile), SCMP_SYS(stat), SCMP_SYS(statfs),
    SCMP_SYS(statx), SCMP_SYS(sync_file_range), SCMP_SYS(truncate), SCMP_SYS(umask), SCMP_SYS(unlink),
    SCMP_SYS(unlinkat), SCMP_SYS(utimensat), SCMP_SYS(write), SCMP_SYS(writev),
    // memory; of mmap and mprotect, what isn't executed is added below
    SCMP_SYS(brk), SCMP_SYS(madvise), SCMP_SYS(membarrier), SCMP_SYS(mlock), SCMP_SYS(mlock2), SCMP_SYS(mlockall),
    SCMP_SYS(mremap), SCMP_SYS(msync), SCMP_SYS(munlock), SCMP_SYS(munlockall), SCMP_SYS(munmap),
    // sockets; a new one only of the Unix family, below
    SCMP_SYS(accept), SCMP_SYS(accept4), SCMP_SYS(bind), SCMP_SYS(connect), SCMP_SYS(getpeername),
    SCMP_SYS(getsockname), SCMP_SYS(getsockopt), SCMP_SYS(listen), SCMP_SYS(recvfrom), SCMP_SYS(recvmmsg),
    SCMP_SYS(recvmsg), SCMP_SYS(sendmmsg), SCMP_SYS(sendmsg), SCMP_SYS(sendto), SCMP_SYS(setsockopt),
    SCMP_SYS(shutdown), SCMP_SYS(socketpair),
    // threads and waiting
    SCMP_SYS(clock_getres), SCMP_SYS(clock_gettime), SCMP_SYS(clock_nanosleep), SCMP_SYS(epoll_create1),
    SCMP_SYS(epoll_ctl), SCMP_SYS(epoll_pwait), SCMP_SYS(epoll_wait), SCMP_SYS(eventfd2), SCMP_SYS(exit),
    SCMP_SYS(exit_group), SCMP_SYS(futex), SCMP_SYS(get_robust_list), SCMP_SYS(gettid), SCMP_SYS(gettimeofday),
    SCMP_SYS(nanosleep), SCMP_SYS(poll), SCMP_SYS(ppoll), SCMP_SYS(pselect6), SCMP_SYS(restart_syscall), SCMP_SYS(rseq),
    SCMP_SYS(rt_sigaction), SCMP_SYS(rt_sigpending), SCMP_SYS(rt_sigprocmask), SCMP_SYS(rt_sigreturn),
    SCMP_SYS(rt_sigtimedwait), SCMP_SYS(sched_getaffinity), SCMP_SYS(sched_yield), SCMP_SYS(select),
    SCMP_SYS(set_robust_list), SCMP_SYS(set_tid_address), SCMP_SYS(sigaltstack), SCMP_SYS(signalfd4), SCMP_SYS(tgkill),
    SCMP_SYS(time), SCMP_SYS(timerfd_create), SCMP_SYS(timerfd_gettime), SCMP_SYS(timerfd_settime),
    // about itself and the machine
    SCMP_SYS(arch_prctl), SCMP_SYS(getegid), SCMP_SYS(geteuid), SCMP_SYS(getgid), SCMP_SYS(getgroups), SCMP_SYS(getpid),
    SCMP_SYS(getppid), SCMP_SYS(getrandom), SCMP_SYS(getresgid), SCMP_SYS(getresuid), SCMP_SYS(getrlimit),
    SCMP_SYS(getrusage), SCMP_SYS(getuid), SCMP_SYS(prctl), SCMP_SYS(prlimit64), SCMP_SYS(sysinfo), SCMP_SYS(uname)};

struct ReleaseFilter {
  void operator()(void *filter) const { seccomp_release(filter); }
};

// only_if is a condition on a call's argument. The library's own macro is C that Clang doesn't take for C++.
scmp_arg_cmp only_if(unsigned argument, scmp_compare compare, scmp_datum_t value, scmp_datum_t masked = 0) {
  return {argument, compare, value, masked};
}

int add_calls(void *filter) {
  for (const int call : kCalls) {
    if (const int error = seccomp_rule_add_array(filter, SCMP_ACT_ALLOW, call, 0, nullptr); error != 0) return error;
  }
  // Threads, but no processes. Where the kernel is asked by a structure the filter can't look into it, and the C
  // library asks in the older way once it is told that the newer isn't there.
  constexpr unsigned kFlags = 0;
  constexpr unsigned kProtection = 2;
  const struct {
    uint32_t action;
    int call;
    scmp_arg_cmp condition;
  } kRules[] = {
      {SCMP_ACT_ALLOW, SCMP_SYS(clone), only_if(kFlags, SCMP_CMP_MASKED_EQ, CLONE_THREAD, CLONE_THREAD)},
      {SCMP_ACT_ERRNO(ENOSYS), SCMP_SYS(clone3), only_if(0, SCMP_CMP_NE, 0)},
      {SCMP_ACT_ALLOW, SCMP_SYS(socket), only_if(0, SCMP_CMP_EQ, AF_UNIX)},
      // A module that looks users up is mapped to be read and executed, never to be written and executed.
      {SCMP_ACT_ALLOW, SCMP_SYS(mmap), only_if(kProtection, SCMP_CMP_MASKED_EQ, PROT_WRITE, 0)},
      {SCMP_ACT_ALLOW, SCMP_SYS(mmap), only_if(kProtection, SCMP_CMP_MASKED_EQ, PROT_EXEC, 0)},
      {SCMP_ACT_ALLOW, SCMP_SYS(mprotect), only_if(kProtection, SCMP_CMP_MASKED_EQ, PROT_EXEC, 0)},
  };
  for (const auto &rule : kRules) {
    const int error = seccomp_rule_add_array(filter, rule.action, rule.call, 1, &rule.condition);
    if (error != 0) return error;
  }
  return 0;
}

WhyNot confine_calls() {
  const std::unique_ptr<void, ReleaseFilter> filter(seccomp_init(SCMP_ACT_ERRNO(EPERM)));
  if (filter == nullptr) return "seccomp: there is no memory for it";
  // A tree instead of a list: each call passes the filter.
  seccomp_attr_set(filter.get(), SCMP_FLTATR_CTL_OPTIMIZE, 2);
  int error = add_calls(filter.get());
  if (error == 0) error = seccomp_load(filter.get());
  if (error == 0) return {};
  errno = -error;
  return failed("seccomp");
}

}  // namespace

void confine(config::Sandbox sandbox, const FileNeeds &needs) {
  if (!kIsConfined && sandbox == config::Sandbox::kRequired) {
    refuse("this build, for tests, has no sandbox");
  }
  if (!kIsConfined || sandbox == config::Sandbox::kOff) return;
  // A kernel that has no guard of execution is served by the filter alone.
  prctl(kGuardExecution, kRefuseExecGain, 0, 0, 0);
  const bool may_narrow = prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0;
  for (const WhyNot &why : {may_narrow ? WhyNot() : failed("no_new_privs"), confine_files(needs), confine_calls()}) {
    if (why.empty()) continue;
    if (sandbox == config::Sandbox::kRequired) {
      refuse("the sandbox is required, but {}", why);
    }
    tell(event::kSandboxIncomplete, "a part of the sandbox isn't there: {}", why);
  }
}

}  // namespace ksd::server
