// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// fleet_clients: programs of one machine, in threads, that use its keystore through libks. KS_SOCKET names the service.
//
//   fleet_clients load FILE MACHINE THREADS SEED   changes and reads until standard input ends; each goes into FILE
//   fleet_clients walk                             prints all entries in their order
//   fleet_clients fill COUNT THREADS               stores so many entries
//   fleet_clients serve                            does what standard input says, a line each:
//     put KEY COUNT      stores an entry so often, one after the other; prints the microseconds of each
//     store KEY CONTENT  stores an entry; prints when that began and ended, and the result
//     until KEY CONTENT  reads the entry every half a millisecond until it is that; prints when that was
//     change KEY         stores an entry until that succeeds; prints when that began and ended
//     busy THREADS MS    changes from so many threads for so long; prints the microseconds of each change
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "fleet_run/notes.h"
#include "host_mts.h"
#include "ks_api.h"

namespace {

using namespace fleet_run;

int64_t now() {
  return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
}

// A service that hasn't come up yet, or is down, isn't asked without end.
void pause() {
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

bool exchange_failed() {
  char why[512];
  return *mts_last_error_get(why, sizeof why) != '\0';
}

KsResult put(const std::string &name, uint64_t number) {
  uint64_t secret[4];
  std::fill(std::begin(secret), std::end(secret), number);
  return ks_store_secret_and_metadata(name.c_str(), nullptr, reinterpret_cast<const uint8_t *>(secret), sizeof secret,
                                      reinterpret_cast<const uint8_t *>(&number), sizeof number);
}

KsResult read(const std::string &name, uint64_t &content) {
  uint8_t *metadata = nullptr;
  uint16_t size = 0;
  const KsResult result = ks_return_metadata(name.c_str(), &metadata, &size);
  if (result != KS_SUCCESS) return result;
  content = UINT64_MAX;  // which no change has
  if (size == sizeof content) std::memcpy(&content, metadata, sizeof content);
  std::free(metadata);
  return result;
}

void start_library() {
  while (ks_init(0, 1, 0) != KS_SUCCESS) pause();
}

// Notes is the file of all threads.
class Notes {
 public:
  explicit Notes(const char *path) : file_(std::fopen(path, "wb")) {}
  ~Notes() { std::fclose(file_); }

  void add(std::vector<Operation> &operations) {
    const std::lock_guard lock(mutex_);
    const bool written =
        std::fwrite(operations.data(), sizeof(Operation), operations.size(), file_) == operations.size();
    if (!written || std::fflush(file_) != 0) {
      std::perror("fleet_clients: notes");
      std::exit(1);
    }
    operations.clear();
  }

 private:
  std::mutex mutex_;
  std::FILE *file_;
};

// Client is one thread.
class Client {
 public:
  Client(Notes &notes, unsigned machine, unsigned thread, unsigned threads, uint64_t seed)
      : notes_(notes), machine_(machine), thread_(thread), threads_(threads), random_(seed) {}

  void run(const std::atomic<bool> &ends) {
    while (!ends) {
      Operation operation = draw();
      operation.number = number_of(machine_, thread_, ++count_);
      operation.invoked = now();
      operation.result = call(operation);
      operation.answered = now();
      if (operation.result != KS_SUCCESS) operation.exchange_failed = exchange_failed();
      if (is_change(operation.kind)) {
        is_certain_ = !operation.is_unknown() && (is_certain_ || operation.result == KS_SUCCESS);
      }
      noted_.push_back(operation);
      if (noted_.size() == 512) notes_.add(noted_);
      const bool fails = operation.is_unknown() || operation.result == KS_FW_COMM_ERROR ||
                         operation.result == KS_STORE_FULL || operation.result == KS_FW_BAD_CELL;
      if (fails) pause();
    }
    notes_.add(noted_);
  }

 private:
  uint16_t own_key() { return static_cast<uint16_t>(thread_ * kKeysPerThread + random_() % kKeysPerThread); }
  uint16_t any_key() { return static_cast<uint16_t>(random_() % (threads_ * kKeysPerThread)); }

  Operation draw() {
    Operation operation;
    const auto drawn = random_() % 100;
    operation.kind = drawn < 40   ? Kind::kPut
                     : drawn < 55 ? Kind::kMetadata
                     : drawn < 67 ? Kind::kRemove
                     : drawn < 75 ? Kind::kRename
                     : drawn < 95 ? Kind::kRead
                                  : Kind::kExists;
    // The checker couldn't tell others apart, as long as it isn't known what became of the change before.
    if (!is_certain_ && is_change(operation.kind)) operation.kind = Kind::kPut;
    operation.key = is_change(operation.kind) ? own_key() : any_key();
    if (operation.kind == Kind::kRename) {
      do {
        operation.other = own_key();
      } while (operation.other == operation.key);
    }
    return operation;
  }

  static KsResult call(Operation &operation) {
    const std::string name = name_of(operation.key);
    switch (operation.kind) {
      case Kind::kPut:
        return put(name, operation.number);
      case Kind::kMetadata:
        return ks_add_metadata(name.c_str(), reinterpret_cast<const uint8_t *>(&operation.number),
                               sizeof operation.number);
      case Kind::kRemove:
        return ks_clear_secret(name.c_str());
      case Kind::kRename:
        return ks_rename_secret(name.c_str(), name_of(operation.other).c_str(), nullptr);
      case Kind::kRead:
        return read(name, operation.content);
      case Kind::kExists:
        break;
    }
    uint32_t exists = 0;
    const KsResult result = ks_secret_exists(name.c_str(), &exists);
    operation.content = exists;
    return result;
  }

  Notes &notes_;
  const unsigned machine_, thread_, threads_;
  std::mt19937_64 random_;
  uint64_t count_ = 0;
  bool is_certain_ = true;  // what became of all changes is known
  std::vector<Operation> noted_;
};

int load(const char *path, unsigned machine, unsigned threads, uint64_t seed) {
  Notes notes(path);
  std::atomic<bool> ends = false;
  std::vector<std::thread> running;
  for (unsigned thread = 0; thread < threads; ++thread) {
    running.emplace_back(
        [&, thread] { Client(notes, machine, thread, threads, seed * 1'000'003 + machine * 1009 + thread).run(ends); });
  }
  char byte = 0;
  while (::read(STDIN_FILENO, &byte, 1) > 0) {
  }
  ends = true;
  for (std::thread &one : running) one.join();
  return 0;
}

int walk() {
  uint16_t index = 0;
  for (;;) {
    char *name = nullptr;
    const KsResult result = ks_return_secret_handle_by_index(&index, &name);
    if (result == KS_NO_MORE_ENTRIES) return 0;
    if (result != KS_SUCCESS) {
      std::fprintf(stderr, "fleet_clients: a walk ends with %u\n", result);
      return 1;
    }
    uint64_t content = 0;
    const KsResult has_read = read(name, content);
    std::printf("%s %" PRIu64 "\n", name, has_read == KS_SUCCESS ? content : 0);
    std::free(name);
  }
}

int fill(unsigned count, unsigned threads) {
  std::atomic<unsigned> next = 0;
  std::atomic<bool> failed = false;
  std::vector<std::thread> running;
  for (unsigned thread = 0; thread < threads; ++thread) {
    running.emplace_back([&] {
      for (unsigned i = next++; i < count && !failed; i = next++) {
        if (put("filled-" + std::to_string(i), i + 1) != KS_SUCCESS) failed = true;
      }
    });
  }
  for (std::thread &one : running) one.join();
  if (failed) std::fprintf(stderr, "fleet_clients: not all entries could be stored\n");
  return failed ? 1 : 0;
}

// Latencies collects microseconds.
class Latencies {
 public:
  template <typename Call>
  void time(Call call) {
    const int64_t begun = now();
    if (call() != KS_SUCCESS) ++failures_;
    took_.push_back((now() - begun) / 1000);
  }
  void add(const Latencies &other) {
    took_.insert(took_.end(), other.took_.begin(), other.took_.end());
    failures_ += other.failures_;
  }
  void print() const {
    std::cout << failures_;
    for (const int64_t took : took_) std::cout << ' ' << took;
    std::cout << std::endl;
  }

 private:
  std::vector<int64_t> took_;
  uint64_t failures_ = 0;
};

void keep_busy(unsigned threads, std::chrono::milliseconds length) {
  Latencies all;
  std::mutex mutex;
  const int64_t end = now() + length / std::chrono::nanoseconds(1);
  std::vector<std::thread> running;
  for (unsigned thread = 0; thread < threads; ++thread) {
    running.emplace_back([&, thread] {
      Latencies mine;
      const std::string name = "busy-" + std::to_string(thread);
      for (uint64_t i = 1; now() < end; ++i) mine.time([&] { return put(name, i); });
      const std::lock_guard lock(mutex);
      all.add(mine);
    });
  }
  for (std::thread &one : running) one.join();
  all.print();
}

int serve() {
  std::string line;
  uint64_t number = 0;
  while (std::getline(std::cin, line)) {
    std::istringstream words(line);
    std::string what, key;
    words >> what;
    if (what == "busy") {
      unsigned threads = 0, milliseconds = 0;
      words >> threads >> milliseconds;
      keep_busy(threads, std::chrono::milliseconds(milliseconds));
      continue;
    }
    words >> key;
    if (what == "put") {
      unsigned count = 0;
      words >> count;
      Latencies latencies;
      while (count-- > 0) latencies.time([&] { return put(key, ++number); });
      latencies.print();
    } else if (what == "store") {
      words >> number;
      const int64_t begun = now();
      const KsResult result = put(key, number);
      std::cout << begun << ' ' << now() << ' ' << result << std::endl;
    } else if (what == "until") {
      uint64_t wanted = 0, content = 0;
      words >> wanted;
      while (read(key, content) != KS_SUCCESS || content != wanted) {
        std::this_thread::sleep_for(std::chrono::microseconds(500));
      }
      std::cout << now() << std::endl;
    } else if (what == "change") {
      const int64_t begun = now();
      while (put(key, ++number) != KS_SUCCESS) pause();
      std::cout << begun << ' ' << now() << std::endl;
    } else {
      std::cerr << "fleet_clients: what is this? " << line << '\n';
      return 2;
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  const std::string what = argc > 1 ? argv[1] : "";
  const auto number = [&](int at) { return std::strtoull(argv[at], nullptr, 10); };
  start_library();
  if (what == "load" && argc == 6) {
    return load(argv[2], static_cast<unsigned>(number(3)), static_cast<unsigned>(number(4)), number(5));
  }
  if (what == "walk" && argc == 2) return walk();
  if (what == "fill" && argc == 4) return fill(static_cast<unsigned>(number(2)), static_cast<unsigned>(number(3)));
  if (what == "serve" && argc == 2) return serve();
  std::fprintf(stderr, "fleet_clients: load FILE MACHINE THREADS SEED, walk, fill COUNT THREADS or serve\n");
  return 2;
}
