// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "failing_memory/failing_memory.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace failing_memory {
namespace {

std::atomic<bool> armed{false};
std::atomic<long> until_failure{0}, failures_left{0};

bool is_to_fail() {
  if (!armed || is_of_test) return false;
  return --until_failure < 0 && failures_left-- > 0;
}

}  // namespace

thread_local bool is_of_test = false;

void arm(long first, long count) {
  until_failure = first;
  failures_left = count;
  armed = true;
}

bool disarm() {
  armed = false;
  return until_failure < 0;
}

}  // namespace failing_memory

void *operator new(size_t size) {
  void *memory = failing_memory::is_to_fail() ? nullptr : std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void *memory) noexcept {
  std::free(memory);
}
void operator delete(void *memory, size_t) noexcept {
  std::free(memory);
}
