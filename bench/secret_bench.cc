// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The secret store through libks and ksd. Look-ups and walks stand beside bare ping-pongs of the same sizes; a store,
// which is answered when it is on disk, beside a ping-pong and a page written over and synced. All gates are shut.
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "beside.h"
#include "host_wire.h"
#include "ks_api.h"
#include "ping_pong.h"
#include "service/service_process.h"
#include "synced_pages.h"

namespace {

constexpr unsigned kEntries = 10000;
constexpr unsigned kFillers = 16;  // side by side, so that their stores reach the disk in groups
constexpr unsigned kLookUps = 1001;

const std::vector<uint8_t> kSecret(32, 's');
const std::vector<uint8_t> kMetadata(64, 'm');

// All names have one length.
std::string name_of(char kind, unsigned number) {
  char name[16];
  std::snprintf(name, sizeof name, "%c %08u", kind, number);
  return name;
}

constexpr size_t kNameSize = KS_NAME_HEADER_SIZE + 10;
const size_t kStoreRequest =
    sizeof(HostWireHeader) + sizeof(KsStoreDescriptor) + kNameSize + kSecret.size() + kMetadata.size();
constexpr size_t kStoreReply = sizeof(HostWireHeader) + 4;
constexpr size_t kExistsRequest = sizeof(HostWireHeader) + sizeof(KsNameDescriptor) + kNameSize;
constexpr size_t kExistsReply = sizeof(HostWireHeader) + 7;
constexpr size_t kIndexRequest = sizeof(HostWireHeader) + sizeof(KsIndexDescriptor);
constexpr size_t kIndexReply = sizeof(HostWireHeader) + 6 + kNameSize;

const bench::PingPongServer *bare;
const ks_test::ServiceProcess *service;

void require(bool holds, const char *what) {
  if (holds) return;
  std::fprintf(stderr, "secret_bench: %s failed\n", what);
  std::exit(1);
}

void store(const std::string &name) {
  require(ks_store_secret_and_metadata(name.c_str(), nullptr, kSecret.data(), static_cast<uint16_t>(kSecret.size()),
                                       kMetadata.data(), static_cast<uint16_t>(kMetadata.size())) == KS_SUCCESS,
          "ks_store_secret_and_metadata");
}

void look_up(const std::string &name) {
  uint32_t exists = 0;
  require(ks_secret_exists(name.c_str(), &exists) == KS_SUCCESS && exists == 1, "ks_secret_exists");
}

// side_by_side does something for each number below `count` on several threads.
template <typename Action>
void side_by_side(unsigned count, const Action &action) {
  std::atomic<unsigned> next{0};
  std::vector<std::jthread> threads;
  for (unsigned i = 0; i < kFillers; ++i) {
    threads.emplace_back([&] {
      for (unsigned number; (number = next++) < count;) action(number);
    });
  }
}

void PingPongOfAStore(benchmark::State &state) {
  bench::PingPong connection(*bare, kStoreRequest, kStoreReply);
  for (auto _ : state) connection.exchange();
}
void WriteAndSync(benchmark::State &state) {
  const bench::SyncedPages pages(service->folder());
  size_t count = 0;
  for (auto _ : state) pages.write(count++);
}
void StoreNew(benchmark::State &state) {
  unsigned count = 0;
  for (auto _ : state) store(name_of('n', count++));
  side_by_side(count,
               [](unsigned i) { require(ks_clear_secret(name_of('n', i).c_str()) == KS_SUCCESS, "ks_clear_secret"); });
}
void StoreReplacement(benchmark::State &state) {
  const std::string name = name_of('e', kEntries / 2);
  for (auto _ : state) store(name);
}
BENCHMARK(PingPongOfAStore)->UseRealTime();
BENCHMARK(WriteAndSync)->UseRealTime();
BENCHMARK(StoreNew)->UseRealTime();
BENCHMARK(StoreReplacement)->UseRealTime();

// One core for both ends, where the floor and what stands on it wake each other alike.
void PingPongOfALookUp(benchmark::State &state) {
  const bench::OneCore placement(bare->pid());
  bench::PingPong connection(*bare, kExistsRequest, kExistsReply);
  for (auto _ : state) connection.exchange();
}
void LookUp(benchmark::State &state) {
  const bench::OneCore placement(service->pid());
  const std::string name = name_of('e', kEntries / 2);
  for (auto _ : state) look_up(name);
}
BENCHMARK(PingPongOfALookUp)->UseRealTime();
BENCHMARK(LookUp)->UseRealTime();

// A walk over the last entries of the table asks once more than there are entries, for the end.
void count_entries(benchmark::State &state) {
  state.counters["per_entry"] = benchmark::Counter(
      static_cast<double>(state.range(0)), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
void PingPongsOfAWalk(benchmark::State &state) {
  const bench::OneCore placement(bare->pid());
  bench::PingPong connection(*bare, kIndexRequest, kIndexReply);
  for (auto _ : state) {
    for (int64_t i = 0; i <= state.range(0); ++i) connection.exchange();
  }
  count_entries(state);
}
void Walk(benchmark::State &state) {
  const bench::OneCore placement(service->pid());
  for (auto _ : state) {
    auto cursor = static_cast<uint16_t>(kEntries - state.range(0));
    int64_t count = 0;
    KsResult result;
    for (char *name; (result = ks_return_secret_handle_by_index(&cursor, &name)) == KS_SUCCESS; ++count) {
      std::free(name);
    }
    require(result == KS_NO_MORE_ENTRIES && count == state.range(0), "ks_return_secret_handle_by_index");
  }
  count_entries(state);
}
BENCHMARK(PingPongsOfAWalk)->UseRealTime()->Arg(1)->Arg(100)->Arg(kEntries);
BENCHMARK(Walk)->UseRealTime()->Arg(1)->Arg(100)->Arg(kEntries);

// StoringClient is another process that stores without pause as long as the object lives.
class StoringClient {
 public:
  StoringClient() {
    int ready[2];
    require(pipe2(ready, O_CLOEXEC) == 0, "pipe2");
    pid_ = fork();
    require(pid_ >= 0, "fork");
    if (pid_ == 0) run(ready[1]);
    char byte;
    close(ready[1]);
    require(read(ready[0], &byte, 1) == 1, "the storing client");
    close(ready[0]);
  }
  ~StoringClient() {
    require(waitpid(pid_, nullptr, WNOHANG) == 0, "the storing client");
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  StoringClient(const StoringClient &) = delete;
  StoringClient &operator=(const StoringClient &) = delete;

 private:
  [[noreturn]] static void run(int ready) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const std::string name = name_of('e', 0);
    store(name);
    require(write(ready, "", 1) == 1, "write");
    for (;;) store(name);
  }

  pid_t pid_;
};

// The median of many look-ups: a pass's mean would tell of the few that met a busy core.
void time_median(benchmark::State &state) {
  const std::string name = name_of('e', kEntries / 2);
  std::vector<double> times(kLookUps);
  for (auto _ : state) {
    for (double &time : times) {
      const auto start = std::chrono::steady_clock::now();
      look_up(name);
      time = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
    const auto middle = times.begin() + kLookUps / 2;
    std::nth_element(times.begin(), middle, times.end());
    state.SetIterationTime(*middle);
  }
}
void LookUpWhileIdle(benchmark::State &state) {
  time_median(state);
}
void LookUpWhileAnotherStores(benchmark::State &state) {
  const StoringClient other;
  time_median(state);
}
BENCHMARK(LookUpWhileIdle)->UseManualTime()->Iterations(5)->Repetitions(9);
BENCHMARK(LookUpWhileAnotherStores)->UseManualTime()->Iterations(5)->Repetitions(9);

}  // namespace

int main(int argc, char **argv) {
  const bench::PingPongServer ping_pong_server;
  ks_test::ServiceSetup setup;
  setup.config += "[trace]\nrecord = []\ndebug = []\n[limits]\nentries_per_user = 65535\n";
  const ks_test::ServiceProcess real_service(setup);
  bare = &ping_pong_server;
  service = &real_service;
  setenv("KS_SOCKET", real_service.socket().c_str(), 1);
  require(ks_init(0, 1, 0) == KS_SUCCESS, "ks_init");
  side_by_side(kEntries, [](unsigned i) { store(name_of('e', i)); });

  return bench::run_beside(argc, argv,
                           {{"StoreNew/real_time", {"PingPongOfAStore/real_time", "WriteAndSync/real_time"}},
                            {"StoreReplacement/real_time", {"PingPongOfAStore/real_time", "WriteAndSync/real_time"}},
                            {"LookUp/real_time", {"PingPongOfALookUp/real_time"}},
                            {"Walk/1/real_time", {"PingPongsOfAWalk/1/real_time"}},
                            {"Walk/100/real_time", {"PingPongsOfAWalk/100/real_time"}},
                            {"Walk/10000/real_time", {"PingPongsOfAWalk/10000/real_time"}},
                            {"LookUpWhileAnotherStores/iterations:5/repeats:9/manual_time",
                             {"LookUpWhileIdle/iterations:5/repeats:9/manual_time"},
                             2.00}});
}
