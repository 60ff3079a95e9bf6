// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// sdb_bench.cc: reads through libsdb beside bare reads of LMDB of the same value, with the same copy; writes; and what
// a purge does.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "bare_lmdb.h"
#include "beside.h"
#include "sdb.h"

namespace {

constexpr size_t kKeySize = 39;  // of a cache key
constexpr unsigned kEntries = 1000;

std::string numbered_key(unsigned number) {
  std::string key = "key " + std::to_string(number);
  key.resize(kKeySize);
  return key;
}

KsSdbDatum datum(const std::string &bytes) {
  return {bytes.data(), static_cast<uint32_t>(bytes.size())};
}

void require(bool holds, const char *what) {
  if (holds) return;
  fprintf(stderr, "sdb_bench: %s failed\n", what);
  exit(1);
}

// Folder goes with everything in it when the benchmark ends.
class Folder {
 public:
  Folder() {
    std::string pattern = std::filesystem::temp_directory_path() / "sdb-bench-XXXXXX";
    path = mkdtemp(pattern.data());
  }
  ~Folder() { std::filesystem::remove_all(path); }
  Folder(const Folder &) = delete;
  Folder &operator=(const Folder &) = delete;

  std::string path;
};

const std::string &uri() {
  static const Folder folder;
  static const std::string text = "lmdb://" + folder.path + "/entries";
  static const uint32_t opened = sdb_open(text.c_str(), 1, 0, 0, 0);
  require(opened == 0, "sdb_open");
  return text;
}

void fill(unsigned count, size_t value_size) {
  const std::string value(value_size, 'v');
  for (unsigned i = 0; i < count; ++i) {
    const std::string key = numbered_key(i);
    const KsSdbDatum k = datum(key);
    const KsSdbDatum v = datum(value);
    require(sdb_write(uri().c_str(), &k, &v) == 0, "sdb_write");
  }
  require(sdb_write_done(uri().c_str()) == 0, "sdb_write_done");
}

void BM_SdbRead(benchmark::State &state) {
  fill(kEntries, static_cast<size_t>(state.range(0)));
  const std::string key = numbered_key(kEntries / 2);
  const KsSdbDatum k = datum(key);
  for (auto _ : state) {
    uint32_t code;
    benchmark::DoNotOptimize(sdb_read(uri().c_str(), &k, &code));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_SdbRead)->Arg(22)->Arg(256)->Arg(1024);

void BM_BareLmdbReadAndCopy(benchmark::State &state) {
  bench::BareLmdb bare(kEntries, static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    benchmark::DoNotOptimize(bare.read());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_BareLmdbReadAndCopy)->Arg(22)->Arg(256)->Arg(1024);

void BM_SdbWrite(benchmark::State &state) {
  fill(kEntries, 256);
  const std::string value(256, 'w');
  const KsSdbDatum v = datum(value);
  unsigned number = 0;
  for (auto _ : state) {
    const std::string key = numbered_key(number++ % kEntries);
    const KsSdbDatum k = datum(key);
    require(sdb_write(uri().c_str(), &k, &v) == 0 && sdb_write_done(uri().c_str()) == 0, "a write");
  }
}
BENCHMARK(BM_SdbWrite)->Unit(benchmark::kMicrosecond)->UseRealTime();

// With the same past as the other's: which pages are free decides how many writes a transaction takes.
bench::BareLmdb &lmdb_alone() {
  static bench::BareLmdb lmdb(1, 256);
  return lmdb;
}

void BM_BareLmdbWrite(benchmark::State &state) {
  lmdb_alone().fill(kEntries, 256);
  const std::string value(256, 'w');
  unsigned number = 0;
  for (auto _ : state) lmdb_alone().write(number++ % kEntries, value);
}
BENCHMARK(BM_BareLmdbWrite)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_BareLmdbDeleteAll(benchmark::State &state) {
  for (auto _ : state) {
    state.PauseTiming();
    const auto count = static_cast<unsigned>(state.range(0));
    lmdb_alone().fill(count, 256);
    state.ResumeTiming();
    for (unsigned i = 0; i < count; ++i) lmdb_alone().remove(i);
  }
}
BENCHMARK(BM_BareLmdbDeleteAll)
    ->Arg(10000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(9);

void BM_SdbDeleteAllByIteration(benchmark::State &state) {
  for (auto _ : state) {
    state.PauseTiming();
    fill(static_cast<unsigned>(state.range(0)), 256);
    state.ResumeTiming();
    const KsSdbDatum *key = nullptr;
    const KsSdbDatum *value = nullptr;
    sdb_iterator_init(uri().c_str(), 1);
    for (uint32_t code = sdb_getkey(uri().c_str(), &key, &value); code == 0;
         code = sdb_getnext(uri().c_str(), &key, &value)) {
      require(sdb_delete(uri().c_str(), key) == 0 && sdb_write_done(uri().c_str()) == 0, "a delete");
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_SdbDeleteAllByIteration)
    ->Arg(10000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(9);

}  // namespace

int main(int argc, char **argv) {
  return bench::run_beside(argc, argv,
                           {{"BM_SdbRead/22", {"BM_BareLmdbReadAndCopy/22"}},
                            {"BM_SdbRead/256", {"BM_BareLmdbReadAndCopy/256"}},
                            {"BM_SdbRead/1024", {"BM_BareLmdbReadAndCopy/1024"}},
                            {"BM_SdbWrite/real_time", {"BM_BareLmdbWrite/real_time"}, 1.3},
                            {"BM_SdbDeleteAllByIteration/10000/iterations:1/repeats:9/real_time",
                             {"BM_BareLmdbDeleteAll/10000/iterations:1/repeats:9/real_time"},
                             0,
                             0.25e9}});
}
