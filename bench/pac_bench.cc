// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// PACs through libks: warm reads beside a bare LMDB read of the same size, cold ones beside a bare ping-pong of the
// same sizes, and the ageing beside the bare exchanges that it takes. All gates are shut.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bare_lmdb.h"
#include "beside.h"
#include "host_wire.h"
#include "ks_api.h"
#include "ping_pong.h"
#include "service/service_process.h"

namespace {

constexpr unsigned kPacs = 1000;
// The ageing that keeps all visits every second position, with two exchanges for each, and asks once for the end.
constexpr unsigned kWalkExchanges = kPacs / 2 * 2 + 1;

using Bytes = std::vector<uint8_t>;

Bytes tlv(uint8_t type, const Bytes &value) {
  Bytes out = {0, type, static_cast<uint8_t>(value.size() >> 8), static_cast<uint8_t>(value.size())};
  out.insert(out.end(), value.begin(), value.end());
  return out;
}

const uint8_t kWarm[] = {'w', 'a', 'r', 'm'};  // cached, and not in the keystore
const uint8_t kCold[] = {'c', 'o', 'l', 'd'};  // in the keystore, and not cached
const Bytes kKey(32, 0x4b);
const Bytes kOpaque = tlv(2, Bytes(160, 'o'));
const Bytes kInfo = tlv(9, tlv(5, {'b', 'o', 'b'}));
const Bytes kRandom(64, 'r');
const Bytes kOutput(48, 'x');
constexpr char kLabel[] = "PAC to master secret label hash";
constexpr uint16_t kLabelLen = sizeof kLabel - 1;
const size_t kMetadataSize = kOpaque.size() + kInfo.size();
const size_t kTPrfSize = kMetadataSize + kLabelLen + kRandom.size() + kOutput.size();

constexpr size_t kNameSize = KS_NAME_HEADER_SIZE + sizeof kCold;
constexpr size_t kReadRequest = sizeof(HostWireHeader) + sizeof(KsNameDescriptor) + kNameSize;
const size_t kReadReply = sizeof(HostWireHeader) + 6 + kMetadataSize;

const bench::PingPongServer *bare;
const ks_test::ServiceProcess *service;

void require(bool holds, const char *what) {
  if (holds) return;
  std::fprintf(stderr, "pac_bench: %s failed\n", what);
  std::exit(1);
}

uint32_t size(const Bytes &bytes) {
  return static_cast<uint32_t>(bytes.size());
}

void store(const uint8_t *aid, uint32_t aid_len) {
  require(ks_store_pac(aid, aid_len, kKey.data(), size(kKey), kOpaque.data(), size(kOpaque), kInfo.data(),
                       size(kInfo)) == KS_SUCCESS,
          "ks_store_pac");
}

void fill() {
  for (unsigned i = 0; i < kPacs; ++i) {
    const std::string aid = "pac " + std::to_string(i);
    store(reinterpret_cast<const uint8_t *>(aid.data()), static_cast<uint32_t>(aid.size()));
  }
}

void read_opaque(benchmark::State &state, const uint8_t *aid) {
  for (auto _ : state) {
    uint8_t *opaque;
    uint32_t len;
    require(ks_return_pac_opaque(aid, sizeof kWarm, &opaque, &len) == KS_SUCCESS, "ks_return_pac_opaque");
    std::free(opaque);
  }
}

KsResult t_prf(const uint8_t *aid, uint8_t *output) {
  return ks_pac_key_t_prf(aid, sizeof kWarm, reinterpret_cast<const uint8_t *>(kLabel), kLabelLen, kRandom.data(),
                          static_cast<uint16_t>(kRandom.size()), output, static_cast<uint16_t>(kOutput.size()));
}

void read_lmdb(benchmark::State &state, size_t value_size) {
  bench::BareLmdb lmdb(kPacs, value_size);
  for (auto _ : state) benchmark::DoNotOptimize(lmdb.read());
}

void LmdbReadOfTheEntry(benchmark::State &state) {
  read_lmdb(state, sizeof(KsCacheEntry) + kTPrfSize);
}
void WarmOpaque(benchmark::State &state) {
  read_opaque(state, kWarm);
}
void WarmTPrf(benchmark::State &state) {
  uint8_t output[64];
  for (auto _ : state) require(t_prf(kWarm, output) == KS_SUCCESS, "ks_pac_key_t_prf");
}
BENCHMARK(LmdbReadOfTheEntry)->UseRealTime();
BENCHMARK(WarmOpaque)->UseRealTime();
BENCHMARK(WarmTPrf)->UseRealTime();

// One core for both ends, where the floor and what stands on it wake each other alike.
void PingPong(benchmark::State &state) {
  const bench::OneCore placement(bare->pid());
  bench::PingPong connection(*bare, kReadRequest, kReadReply);
  for (auto _ : state) connection.exchange();
}
void ColdOpaque(benchmark::State &state) {
  const bench::OneCore placement(service->pid());
  read_opaque(state, kCold);
}
void ColdTPrf(benchmark::State &state) {
  const bench::OneCore placement(service->pid());
  uint8_t output[64];
  for (auto _ : state) require(t_prf(kCold, output) == KS_SUCCESS, "ks_pac_key_t_prf");
}
BENCHMARK(PingPong)->UseRealTime();
BENCHMARK(ColdOpaque)->UseRealTime();
BENCHMARK(ColdTPrf)->UseRealTime();

void PingPongsOfAWalk(benchmark::State &state) {
  const bench::OneCore placement(bare->pid());
  bench::PingPong connection(*bare, kReadRequest, kReadReply);
  for (auto _ : state) {
    for (unsigned i = 0; i < kWalkExchanges; ++i) connection.exchange();
  }
}
// Each pass keeps its messages and names for good, so there are few.
void AgeOutKeeping1000(benchmark::State &state) {
  const bench::OneCore placement(service->pid());
  for (auto _ : state) require(ks_clear_old_pacs("bob") == KS_SUCCESS, "ks_clear_old_pacs");
}
// As often as it takes until none is left: every removal is durable.
void AgeOutRemoving1000(benchmark::State &state) {
  for (auto _ : state) {
    uint16_t cursor = 0, len;
    uint8_t *aid;
    while (ks_return_aid_by_index(&cursor, &aid, &len) == KS_SUCCESS) {
      std::free(aid);
      cursor = 0;
      require(ks_clear_old_pacs("alf") == KS_SUCCESS, "ks_clear_old_pacs");
    }
    state.PauseTiming();
    fill();
    store(kCold, sizeof kCold);
    state.ResumeTiming();
  }
}
BENCHMARK(PingPongsOfAWalk)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(5)->Repetitions(9);
BENCHMARK(AgeOutKeeping1000)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(5)->Repetitions(9);
BENCHMARK(AgeOutRemoving1000)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(1);

}  // namespace

int main(int argc, char **argv) {
  const bench::PingPongServer ping_pong_server;
  ks_test::ServiceSetup setup;
  setup.config += "[trace]\nrecord = []\ndebug = []\n";
  const ks_test::ServiceProcess real_service(setup);
  bare = &ping_pong_server;
  service = &real_service;
  setenv("KS_SOCKET", real_service.socket().c_str(), 1);
  require(ks_init(0, 1, 0) == KS_SUCCESS, "ks_init");

  Bytes name = {KS_NAME_TAG_PAC, 0, static_cast<uint8_t>(vdc_id >> 8), static_cast<uint8_t>(vdc_id)};
  name.insert(name.end(), std::begin(kWarm), std::end(kWarm));
  Bytes metadata = kOpaque;
  metadata.insert(metadata.end(), kInfo.begin(), kInfo.end());
  require(
      ks_cache_pac_write(name.data(), size(name), metadata.data(), static_cast<uint16_t>(kMetadataSize)) == KS_SUCCESS,
      "ks_cache_pac_write");
  require(ks_cache_pac_write_tprf(name.data(), size(name), kLabel, kLabelLen, kRandom.data(),
                                  static_cast<uint16_t>(kRandom.size()), kOutput.data(),
                                  static_cast<uint16_t>(kOutput.size())) == KS_SUCCESS,
          "ks_cache_pac_write_tprf");
  fill();
  store(kCold, sizeof kCold);

  return bench::run_beside(
      argc, argv,
      {{"WarmOpaque/real_time", {"LmdbReadOfTheEntry/real_time"}},
       {"WarmTPrf/real_time", {"LmdbReadOfTheEntry/real_time"}},
       {"WarmOpaque/real_time", {"ColdOpaque/real_time"}, 0.1},
       {"ColdOpaque/real_time", {"PingPong/real_time"}},
       {"ColdTPrf/real_time", {"PingPong/real_time"}},
       {"AgeOutKeeping1000/iterations:5/repeats:9/real_time", {"PingPongsOfAWalk/iterations:5/repeats:9/real_time"}}});
}
