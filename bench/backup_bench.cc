// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Backups of a full table: how long a backup, its check and a restore take, and what readers and writers see of it.
// Not timed by the benchmark library, since each is one long run: prints a line for each.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "ks_api.h"
#include "service/service_process.h"

namespace {

constexpr unsigned kEntries = 65000;  // and room for those that are stored meanwhile
constexpr unsigned kFillers = 16;
constexpr unsigned kLookUps = 20000;
constexpr unsigned kWriters = 8;
constexpr std::chrono::milliseconds kBetweenStores(7);  // of each; a little more than 1,000 a second together

using Clock = std::chrono::steady_clock;

void require(bool holds, const char *what) {
  if (holds) return;
  std::fprintf(stderr, "backup_bench: %s failed\n", what);
  std::exit(1);
}

std::string name_of(char kind, unsigned number) {
  char name[16];
  std::snprintf(name, sizeof name, "%c %08u", kind, number);
  return name;
}

void store(const std::string &name) {
  static const std::vector<uint8_t> secret(32, 's'), metadata(64, 'm');
  require(ks_store_secret_and_metadata(name.c_str(), nullptr, secret.data(), 32, metadata.data(), 64) == KS_SUCCESS,
          "ks_store_secret_and_metadata");
}

void fill() {
  std::atomic<unsigned> next{0};
  std::vector<std::jthread> threads;
  for (unsigned i = 0; i < kFillers; ++i) {
    threads.emplace_back([&] {
      for (unsigned number; (number = next++) < kEntries;) store(name_of('e', number));
    });
  }
}

double seconds_of(const std::string &what, const std::string &command) {
  const auto start = Clock::now();
  const ks_test::ProgramRun run = ks_test::run_program(
      {"/bin/bash", "-c", "exec 9<<<'correct horse'; exec " KS_SERVICE_DIR "/ksctl " + command + " --passphrase-fd 9"});
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (run.status != 0) std::fprintf(stderr, "%s", run.errors.c_str());
  require(run.status == 0, what.c_str());
  std::printf("%-44s %8.2f s\n", what.c_str(), seconds);
  return seconds;
}

// median_of gives the median time of a look-up, over as many as are made until `enough` says so.
template <typename Enough>
double median_of(const Enough &enough) {
  std::vector<double> times;
  const std::string name = name_of('e', kEntries / 2);
  while (!enough(times.size())) {
    const auto start = Clock::now();
    uint32_t exists = 0;
    require(ks_secret_exists(name.c_str(), &exists) == KS_SUCCESS && exists == 1, "ks_secret_exists");
    times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  require(!times.empty(), "a look-up");
  std::nth_element(times.begin(), times.begin() + ptrdiff_t(times.size() / 2), times.end());
  return times[times.size() / 2];
}

}  // namespace

int main(int argc, char **) {
  if (argc > 1) return 0;  // a filter is for others
  const std::string users = "users = [" + std::to_string(getuid()) + "]\n";
  ks_test::ServiceSetup setup;
  setup.config = "[limits]\nentries_per_user = 65535\n[administrators]\n" + users + "[[vdc]]\nid = 7\n" + users;
  ks_test::ServiceProcess service(setup);
  setenv("KS_SOCKET", service.socket().c_str(), 1);
  require(ks_init(0, 1, 0) == KS_SUCCESS, "ks_init");
  fill();

  const std::string file = service.folder() + "/backup";
  const double idle = median_of([](size_t count) { return count == kLookUps; });
  std::printf("%-44s %8.2f us\n", "look-up, median, idle", idle);
  std::atomic<bool> done{false};
  double during = 0;
  {
    std::jthread reader([&] { during = median_of([&](size_t) { return done.load(); }); });
    seconds_of("backup, beside a reader", "backup " + file);
    done = true;
  }
  std::printf("%-44s %8.2f us, %.2f of idle\n", "look-up, median, during a backup", during, during / idle);
  std::atomic<unsigned> stored{0};
  done = false;
  {
    const auto begin = Clock::now();
    std::vector<std::jthread> writers;
    for (unsigned i = 0; i < kWriters; ++i) {
      writers.emplace_back([&] {
        for (auto next = Clock::now(); !done; next += kBetweenStores) {
          store(name_of('s', stored++ % 400));
          std::this_thread::sleep_until(next);
        }
      });
    }
    seconds_of("backup, beside stores", "backup " + file + "2");
    done = true;
    std::printf("%-44s %8.0f a second\n", "stores meanwhile",
                stored / std::chrono::duration<double>(Clock::now() - begin).count());
  }
  seconds_of("verify", "restore " + file + " --verify");
  seconds_of("restore", "restore " + file + " --vault " + service.folder() + "/copy.db --master-key-file " +
                            service.folder() + "/copy.key");
  const auto begin = Clock::now();
  require(ks_test::run_program({KS_SERVICE_DIR "/ksctl", "--socket", service.socket(), "vault", "rekey"}).status == 0,
          "vault rekey");
  std::printf("%-44s %8.2f s\n", "vault rekey", std::chrono::duration<double>(Clock::now() - begin).count());
}
