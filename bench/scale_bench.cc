// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What the secret store costs with 10 to 65,535 entries: a start of the service, a look-up, a store, and the service's
// memory; and what becomes of a full table: a walk, and the end of 10,000 PACs, beside bare exchanges. The vault lies
// on a tmpfs, so that the disk of the machine isn't what is measured. Not timed by the benchmark library, since each
// table is filled once.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "beside.h"
#include "host_wire.h"
#include "ks_api.h"
#include "ping_pong.h"
#include "report.h"
#include "service/service_process.h"
#include "synced_pages.h"

namespace {

constexpr unsigned kSizes[] = {10, 100, 1000, 10'000, 65'535};
constexpr unsigned kFull = 65'535;
constexpr unsigned kPacs = 10'000;
constexpr unsigned kFillers = 16;
constexpr unsigned kLookUps = 5001;
constexpr unsigned kStores = 501;
constexpr unsigned kStarts = 5;
constexpr size_t kSecretSize = 32;
constexpr size_t kNameSize = KS_NAME_HEADER_SIZE + 10;

using Clock = std::chrono::steady_clock;

void require(bool holds, const char *what) {
  if (holds) return;
  std::fprintf(stderr, "scale_bench: %s failed\n", what);
  std::exit(1);
}

std::string name_of(unsigned number) {
  char name[16];
  std::snprintf(name, sizeof name, "e %08u", number);
  return name;
}

void store(unsigned number) {
  static const std::vector<uint8_t> secret(kSecretSize, 's');
  require(ks_store_secret_and_metadata(name_of(number).c_str(), nullptr, secret.data(), kSecretSize, nullptr, 0) ==
              KS_SUCCESS,
          "ks_store_secret_and_metadata");
}

// side_by_side does something for each number from `begin` on below `end`, on several threads.
template <typename Action>
void side_by_side(unsigned begin, unsigned end, const Action &action) {
  std::atomic<unsigned> next{begin};
  std::vector<std::jthread> threads;
  for (unsigned i = 0; i < kFillers; ++i) {
    threads.emplace_back([&] {
      for (unsigned number; (number = next++) < end;) action(number);
    });
  }
}

template <typename Action>
double seconds_of(const Action &action) {
  const auto start = Clock::now();
  action();
  return std::chrono::duration<double>(Clock::now() - start).count();
}

template <typename Action>
double median_of(unsigned times, const Action &action) {
  std::vector<double> seconds;
  for (unsigned i = 0; i < times; ++i) seconds.push_back(seconds_of(action));
  std::nth_element(seconds.begin(), seconds.begin() + times / 2, seconds.end());
  return seconds[times / 2];
}

// In KiB, without what the service shares with others.
double memory_of(pid_t process) {
  std::ifstream rollup("/proc/" + std::to_string(process) + "/smaps_rollup");
  for (std::string line; std::getline(rollup, line);) {
    if (line.starts_with("Pss:")) return std::stod(line.substr(4));
  }
  require(false, "reading the service's memory");
  return 0;
}

void put_point(const char *line, unsigned entries, double value, const char *unit) {
  std::printf("  %-28s %8u entries %10.4g %s\n", line, entries, value, unit);
  bench::report_point(line, entries, value, unit);
}

void measure(ks_test::ServiceProcess &service, unsigned size) {
  unsigned number = 0;
  const auto next = [&] { return number = (number + 4099) % size; };
  put_point("look-up", size,
            1e6 * median_of(kLookUps,
                            [&] {
                              uint32_t exists = 0;
                              require(ks_secret_exists(name_of(next()).c_str(), &exists) == KS_SUCCESS && exists == 1,
                                      "ks_secret_exists");
                            }),
            "µs");
  put_point("store", size, 1e6 * median_of(kStores, [&] { store(next()); }), "µs");
  put_point("memory after stores", size, memory_of(service.pid()) / 1024, "MiB");
  std::vector<double> starts;
  for (unsigned i = 0; i < kStarts; ++i) {
    service.stop();
    starts.push_back(seconds_of([&] { service.start(); }));
  }
  std::sort(starts.begin(), starts.end());
  put_point("start", size, 1e3 * starts[kStarts / 2], "ms");
  put_point("memory after a start", size, memory_of(service.pid()) / 1024, "MiB");
}

// What an entry takes beside its secret, with the table full.
void put_memory_of_an_entry(const char *row, double empty, double full) {
  const double kib = (full - empty) / kFull - kSecretSize / 1024.0;
  std::printf("  %-28s %5.3f KiB beside its secret, to stay under 0.4\n", row, kib);
  bench::report_plain(row, kib, "KiB", 0.4);
}

// put_beside runs ours between two runs of the floor, whose mean stands beside it, and gives the pair whose ratio is
// the median. `prepare` comes before each turn.
template <typename Prepare, typename Ours, typename Floor>
void put_beside(const char *row, const Prepare &prepare, const Ours &ours, const char *floor_name, const Floor &floor,
                int turns, double aim) {
  std::vector<std::pair<double, double>> pairs;
  for (int turn = 0; turn < turns; ++turn) {
    prepare();
    const double before = seconds_of(floor);
    const double seconds = seconds_of(ours);
    pairs.emplace_back(seconds, (before + seconds_of(floor)) / 2);
  }
  std::sort(pairs.begin(), pairs.end(),
            [](const auto &a, const auto &b) { return a.first * b.second < b.first * a.second; });
  const auto &[seconds, floor_seconds] = pairs[pairs.size() / 2];
  std::printf("  %-28s %5.2f times %s\n", row, seconds / floor_seconds, floor_name);
  bench::report_ratio(row, seconds * 1e9, floor_name, floor_seconds * 1e9, aim);
}

// All of a full table, on one core.
void measure_walk(const bench::PingPongServer &bare, const ks_test::ServiceProcess &service) {
  bench::PingPong connection(bare, sizeof(HostWireHeader) + sizeof(KsIndexDescriptor),
                             sizeof(HostWireHeader) + 6 + kNameSize);
  const bench::OneCore ours(service.pid());
  const bench::OneCore theirs(bare.pid());
  put_beside(
      "walk of 65,535 entries", [] {},
      [] {
        uint16_t cursor = 0;
        unsigned count = 0;
        for (char *name; ks_return_secret_handle_by_index(&cursor, &name) == KS_SUCCESS; ++count) std::free(name);
        require(count == kFull, "ks_return_secret_handle_by_index");
      },
      "as many ping-pongs",
      [&] {
        for (unsigned i = 0; i <= kFull; ++i) connection.exchange();
      },
      9, 1.08);
}

// Each PAC takes an exchange to find it and one to clear it. That is answered when two pages are on disk: that of the
// entry, and that of the sealed header, which tells how many entries there are.
void measure_end_of_pacs(const bench::PingPongServer &bare) {
  ks_test::ServiceSetup setup;
  setup.config += "[trace]\nrecord = []\ndebug = []\n";
  const ks_test::ServiceProcess service(setup);
  setenv("KS_SOCKET", service.socket().c_str(), 1);
  require(ks_init(0, 1, 0) == KS_SUCCESS, "ks_init");
  const std::vector<uint8_t> key(32, 'k');
  const uint8_t opaque[] = {0, 2, 0, 1, 'o'};
  const uint8_t info[] = {0, 9, 0, 7, 0, 5, 0, 3, 'b', 'o', 'b'};
  const auto store_pac = [&](unsigned number) {
    const std::string aid = name_of(number);
    require(ks_store_pac(reinterpret_cast<const uint8_t *>(aid.data()), static_cast<uint32_t>(aid.size()), key.data(),
                         32, opaque, sizeof opaque, info, sizeof info) == KS_SUCCESS,
            "ks_store_pac");
  };
  bench::PingPong find(bare, sizeof(HostWireHeader) + sizeof(KsIndexDescriptor),
                       sizeof(HostWireHeader) + 6 + kNameSize);
  bench::PingPong clear(bare, sizeof(HostWireHeader) + sizeof(KsNameDescriptor) + kNameSize,
                        sizeof(HostWireHeader) + 4);
  const bench::SyncedPages pages(service.folder());
  const bench::OneCore ours(service.pid());
  const bench::OneCore theirs(bare.pid());
  put_beside(
      "ks_clear_all_pacs of 10,000", [&] { side_by_side(0, kPacs, store_pac); },
      [] { require(ks_clear_all_pacs() == KS_SUCCESS, "ks_clear_all_pacs"); },
      "as many ping-pongs, and two synced pages for each",
      [&] {
        for (unsigned i = 0; i < kPacs; ++i) {
          find.exchange();
          clear.exchange();
          pages.put(2 * i);
          pages.put(2 * i + 1);
          pages.sync();
        }
      },
      5, 1.08);
}

}  // namespace

int main(int argc, char **) {
  if (argc > 1) return 0;  // a filter is for others
  const bench::PingPongServer bare;
  const pid_t child = fork();  // which knows another service
  if (child == 0) {
    measure_end_of_pacs(bare);
    std::fflush(nullptr);
    _exit(0);
  }
  int status = 0;
  require(waitpid(child, &status, 0) == child && status == 0, "ks_clear_all_pacs");
  ks_test::ServiceSetup setup;
  setup.parent = "/dev/shm";
  setup.config += "[trace]\nrecord = []\ndebug = []\n[limits]\nentries_per_user = 65535\n";
  ks_test::ServiceProcess service(setup);
  setenv("KS_SOCKET", service.socket().c_str(), 1);
  require(ks_init(0, 1, 0) == KS_SUCCESS, "ks_init");

  const double empty = memory_of(service.pid());
  unsigned filled = 0;
  double after_stores = 0;
  for (const unsigned size : kSizes) {
    side_by_side(filled, size, store);
    filled = size;
    after_stores = memory_of(service.pid());
    measure(service, size);
  }
  put_memory_of_an_entry("memory of an entry, stored", empty, after_stores);
  put_memory_of_an_entry("memory of an entry, loaded", empty, memory_of(service.pid()));
  measure_walk(bare, service);
}
