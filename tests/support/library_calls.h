// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// library_calls.h: stands between one loaded library and a function that it calls, so that a test sees the calls and
// can answer in the function's place. Nobody else who calls it is concerned.
//
//   const LibraryCalls<calloc> calls("libmts.so", fail_call<void *>(1, nullptr, ENOMEM));
//
// The library must have been linked to be bound when it is loaded and without a procedure linkage table, as all are
// that load into a client: then the address of each function stands in a table of its own, where another is put.
#ifndef TESTS_SUPPORT_LIBRARY_CALLS_H
#define TESTS_SUPPORT_LIBRARY_CALLS_H

#include <elf.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

// Some functions have another name on i386 for programs whose files' sizes and times have 64 bits, as the libraries
// are.
struct Time64 {
  int64_t seconds;
  int64_t nanoseconds;
};
#ifdef __i386__
#define KS_NAME_OF_64_BITS(usual, of_i386) __asm__(of_i386)
#else
#define KS_NAME_OF_64_BITS(usual, of_i386) __asm__(usual)
#endif
extern "C" {
int library_fstat(int file, void *status) noexcept KS_NAME_OF_64_BITS("fstat64", "__fstat64_time64");
int library_fcntl(int file, int command, ...) KS_NAME_OF_64_BITS("fcntl64", "__fcntl_time64");
int library_clock_gettime(int clock, Time64 *out) noexcept KS_NAME_OF_64_BITS("clock_gettime", "__clock_gettime64");
int library_nanosleep(const Time64 *time, Time64 *left) KS_NAME_OF_64_BITS("nanosleep", "__nanosleep64");
int library_mutex_clocklock(void *mutex, int clock, const Time64 *until) noexcept
    KS_NAME_OF_64_BITS("pthread_mutex_clocklock", "__pthread_mutex_clocklock64");
}

namespace ks_test {

// Slots are the places where a library keeps the address of a function.
class Slots {
 public:
  Slots(const char *library, void *function) : library_(library), function_(function) {
    dl_iterate_phdr([](dl_phdr_info *info, size_t, void *self) { return static_cast<Slots *>(self)->look_in(*info); },
                    this);
    if (slots_.empty()) throw std::logic_error(std::string(library) + " doesn't call that function");
  }
  ~Slots() { put(function_); }
  Slots(const Slots &) = delete;
  Slots &operator=(const Slots &) = delete;

  void put(void *function) const {
    const auto page = static_cast<uintptr_t>(getpagesize());
    for (void **slot : slots_) {
      auto *const start = reinterpret_cast<void *>(reinterpret_cast<uintptr_t>(slot) / page * page);
      mprotect(start, page, PROT_READ | PROT_WRITE);
      __atomic_store_n(slot, function, __ATOMIC_SEQ_CST);
      mprotect(start, page, PROT_READ);
    }
  }

 private:
#ifdef __i386__
  using Relocation = ElfW(Rel);
  static constexpr ElfW(Sword) kTable = DT_REL, kTableSize = DT_RELSZ;
#else
  using Relocation = ElfW(Rela);
  static constexpr ElfW(Sxword) kTable = DT_RELA, kTableSize = DT_RELASZ;
#endif
  static constexpr unsigned kAddressOfFunction = 6;  // R_386_GLOB_DAT, and the same of x86-64

  int look_in(const dl_phdr_info &info) {
    if (strstr(info.dlpi_name, library_) == nullptr) return 0;
    const Relocation *table = nullptr;
    size_t size = 0;
    for (int i = 0; i < info.dlpi_phnum; ++i) {
      if (info.dlpi_phdr[i].p_type != PT_DYNAMIC) continue;
      for (auto *row = reinterpret_cast<const ElfW(Dyn) *>(info.dlpi_addr + info.dlpi_phdr[i].p_vaddr);
           row->d_tag != DT_NULL; ++row) {
        if (row->d_tag == kTable) table = reinterpret_cast<const Relocation *>(row->d_un.d_ptr);
        if (row->d_tag == kTableSize) size = row->d_un.d_val;
      }
    }
    for (const Relocation *one = table; one != table + size / sizeof *table; ++one) {
      auto **const slot = reinterpret_cast<void **>(info.dlpi_addr + one->r_offset);
      if ((one->r_info & 0xff) == kAddressOfFunction && *slot == function_) slots_.push_back(slot);
    }
    return 1;
  }

  const char *library_;
  void *function_;
  std::vector<void **> slots_;
};

// StandIn is put in the function's place. `Last` is what a function such as open may have behind the arguments that are
// declared, or nothing: it is called as one with more arguments is, which has them in the same places.
template <auto kFunction, typename Result, typename Declared, typename... Last>
class StandIn;
template <auto kFunction, typename Result, typename... Arguments, typename... Last>
class StandIn<kFunction, Result, void(Arguments...), Last...> {
 public:
  using Answer = std::function<std::optional<Result>(Arguments...)>;

  StandIn(const char *library, Answer answer) : slots_(library, reinterpret_cast<void *>(kFunction)) {
    active() = std::move(answer);
    slots_.put(reinterpret_cast<void *>(call));
  }

 private:
  static Answer &active() {
    static Answer answer;
    return answer;
  }

  static Result call(Arguments... arguments, Last... last) {
    const std::optional<Result> answer = active()(arguments...);
    return answer ? *answer : kFunction(arguments..., last...);
  }

  Slots slots_;
};

template <auto kFunction, typename Result, typename... Arguments>
StandIn<kFunction, Result, void(Arguments...)> stand_in_for(Result (*)(Arguments...));
template <auto kFunction, typename Result, typename... Arguments>
StandIn<kFunction, Result, void(Arguments...), long> stand_in_for(Result (*)(Arguments..., ...));

// For as long as it lives, `answer` gets each call. What it gives is the result, and errno as it left it; without a
// result the call goes on.
template <auto kFunction>
using LibraryCalls = decltype(stand_in_for<kFunction>(kFunction));

// fail_call is an answer: the call of that number, counted from 1, gives `result` and `error`. All others go on.
template <typename Result>
auto fail_call(int number, Result result, int error) {
  return [=](auto &&...) mutable -> std::optional<Result> {
    if (--number != 0) return std::nullopt;
    errno = error;
    return result;
  };
}

// see_calls is an answer: `see` has a look at each, and it goes on.
template <typename Result>
auto see_calls(auto see) {
  return [=](auto &&...arguments) mutable -> std::optional<Result> {
    see(arguments...);
    return std::nullopt;
  };
}

}  // namespace ks_test

#endif
