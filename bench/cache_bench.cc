// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The cache's own functions: a cached read beside the sum of what its contract makes unavoidable; a write, and the
// purge of 10,000 entries, beside LMDB's own unsynced transactions. All gates are shut.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bare_lmdb.h"
#include "beside.h"
#include "ks_api.h"
#include "sdwrap.h"
#include "service/service_process.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr unsigned kEntries = 1000;
constexpr unsigned kPurged = 10'000;
// What a read reports, entry and exit included: each report asks two gates.
constexpr int kReadPacReports = 44;
constexpr int kReadTPrfReports = 47;

// Under a tag and a VDC that the purge of the caller's VDC spares, so that the benchmarks may run in any order.
const Bytes kName = {0x51, 0, 0, 9, 'p', 'a', 'c'};
const Bytes kMeta(200, 'm');
const Bytes kLabel(31, 'l');
const Bytes kRandom(64, 'r');
const Bytes kOutput(48, 'o');
const std::string kLmdbValue(sizeof(KsCacheEntry) + kMeta.size(), 'v');
const size_t kEntrySize = sizeof(KsCacheEntry) + kMeta.size() + kLabel.size() + kRandom.size() + kOutput.size();

void require(KsResult result, const char *what) {
  if (result == KS_SUCCESS) return;
  std::fprintf(stderr, "cache_bench: %s: %s\n", what, kserr2str(result));
  std::exit(1);
}

uint32_t size(const Bytes &bytes) {
  return static_cast<uint32_t>(bytes.size());
}
uint16_t size16(const Bytes &bytes) {
  return static_cast<uint16_t>(bytes.size());
}

void write(const Bytes &name) {
  require(ks_cache_pac_write(name.data(), size(name), kMeta.data(), size16(kMeta)), "ks_cache_pac_write");
}

Bytes numbered_name(uint8_t tag, uint8_t vdc, unsigned number) {
  return {tag, 0, 0, vdc, static_cast<uint8_t>(number >> 8), static_cast<uint8_t>(number)};
}

// --- what a read can't do without

void LmdbReadAndCopy(benchmark::State &state) {
  bench::BareLmdb lmdb(kEntries, kEntrySize);
  for (auto _ : state) benchmark::DoNotOptimize(lmdb.read());
}

void allocate(benchmark::State &state, size_t block) {
  for (auto _ : state) {
    void *volatile allocated = std::calloc(1, block);
    std::free(allocated);
  }
}
void AllocationOfMeta(benchmark::State &state) {
  allocate(state, kMeta.size());
}
void AllocationOfOutput(benchmark::State &state) {
  allocate(state, kOutput.size());
}

void ask_gates(benchmark::State &state, int reports) {
  for (auto _ : state) {
    for (int i = 0; i < reports; ++i) {
      benchmark::DoNotOptimize(sdwrap_hist_event_subtype_check(0x730000, 103));
      benchmark::DoNotOptimize(sdwrap_chk_int(103, 0, 0, 1));
    }
  }
}
void GatesOfReadPac(benchmark::State &state) {
  ask_gates(state, kReadPacReports);
}
void GatesOfReadTPrf(benchmark::State &state) {
  ask_gates(state, kReadTPrfReports);
}

// --- the reads

void ReadPac(benchmark::State &state) {
  for (auto _ : state) {
    uint8_t *meta;
    uint16_t len;
    require(ks_cache_read_pac(kName.data(), size(kName), &meta, &len), "ks_cache_read_pac");
    std::free(meta);
  }
}

void ReadTPrf(benchmark::State &state) {
  for (auto _ : state) {
    uint8_t *output;
    uint16_t len;
    require(ks_cache_read_tprf(kName.data(), size(kName), kLabel.data(), size16(kLabel), kRandom.data(),
                               size16(kRandom), &output, &len),
            "ks_cache_read_tprf");
    std::free(output);
  }
}

BENCHMARK(LmdbReadAndCopy)->UseRealTime();
BENCHMARK(AllocationOfMeta)->UseRealTime();
BENCHMARK(AllocationOfOutput)->UseRealTime();
BENCHMARK(GatesOfReadPac)->UseRealTime();
BENCHMARK(GatesOfReadTPrf)->UseRealTime();
BENCHMARK(ReadPac)->UseRealTime();
BENCHMARK(ReadTPrf)->UseRealTime();

// --- changes

// What the library changes and purges, LMDB does in a database of its own: which pages are free decides how many writes
// a transaction takes, so both have the same past.
bench::BareLmdb &lmdb_alone() {
  static bench::BareLmdb lmdb(1, kEntrySize);
  static const bool filled = [] {
    for (unsigned i = 0; i < kEntries; ++i) lmdb.write(i, kLmdbValue);
    return true;
  }();
  static_cast<void>(filled);
  return lmdb;
}

// An entry's old value goes before the new one comes, whatever happens next: two transactions.
void LmdbClearAndWrite(benchmark::State &state) {
  bench::BareLmdb &lmdb = lmdb_alone();
  for (auto _ : state) {
    lmdb.remove(7);
    lmdb.write(7, kLmdbValue);
  }
}
BENCHMARK(LmdbClearAndWrite)->UseRealTime()->Unit(benchmark::kMicrosecond);

void Write(benchmark::State &state) {
  const Bytes name = numbered_name(KS_NAME_TAG_PAC, 7, 0);
  for (auto _ : state) write(name);
}
BENCHMARK(Write)->UseRealTime()->Unit(benchmark::kMicrosecond);

// Every deletion is a commit of its own.
void LmdbPurgeOf10000(benchmark::State &state) {
  bench::BareLmdb &lmdb = lmdb_alone();
  for (auto _ : state) {
    state.PauseTiming();
    for (unsigned i = kEntries; i < kEntries + kPurged; ++i) lmdb.write(i, kLmdbValue);
    state.ResumeTiming();
    for (unsigned i = kEntries; i < kEntries + kPurged; ++i) lmdb.remove(i);
  }
}
void PurgeOf10000(benchmark::State &state) {
  for (auto _ : state) {
    state.PauseTiming();
    for (unsigned i = 0; i < kPurged; ++i) write(numbered_name(KS_NAME_TAG_PAC, 7, i));
    state.ResumeTiming();
    require(ks_cache_purge_vdc_keys(), "ks_cache_purge_vdc_keys");
  }
}
BENCHMARK(LmdbPurgeOf10000)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(5);
BENCHMARK(PurgeOf10000)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(5);

}  // namespace

int main(int argc, char **argv) {
  ks_test::ServiceSetup setup;
  setup.config += "[trace]\nrecord = []\ndebug = []\n";
  const ks_test::ServiceProcess service(setup);
  setenv("KS_SOCKET", service.socket().c_str(), 1);
  require(ks_init(0, 1, 0), "ks_init");
  for (unsigned i = 0; i < kEntries; ++i) write(numbered_name(kName[0], kName[3], i));
  write(kName);
  require(ks_cache_pac_write_tprf(kName.data(), size(kName), kLabel.data(), size16(kLabel), kRandom.data(),
                                  size16(kRandom), kOutput.data(), size16(kOutput)),
          "ks_cache_pac_write_tprf");

  return bench::run_beside(argc, argv,
                           {{"ReadPac/real_time",
                             {"LmdbReadAndCopy/real_time", "AllocationOfMeta/real_time", "GatesOfReadPac/real_time"},
                             1.1},
                            {"ReadTPrf/real_time",
                             {"LmdbReadAndCopy/real_time", "AllocationOfOutput/real_time", "GatesOfReadTPrf/real_time"},
                             1.3},
                            {"Write/real_time", {"LmdbClearAndWrite/real_time"}, 1.3},
                            {"PurgeOf10000/iterations:1/repeats:5/real_time",
                             {"LmdbPurgeOf10000/iterations:1/repeats:5/real_time"},
                             0,
                             0.3e9}});
}
