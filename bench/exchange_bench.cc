// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// One exchange through libks and ksd beside a bare ping-pong with messages of the same sizes. Waking another core costs
// several times an exchange on virtual machines, so like placements are compared: first both ends on one core, then
// clients and serving threads wherever the scheduler puts them.
#include <cstdio>
#include <cstdlib>

#include "beside.h"
#include "host_wire.h"
#include "ks_api.h"
#include "ping_pong.h"
#include "service/service_process.h"

namespace {

constexpr uint8_t kCount = 16;
constexpr size_t kRequestSize = sizeof(HostWireHeader) + sizeof(KsRandomDescriptor);
constexpr size_t kReplySize = sizeof(HostWireHeader) + 6 + kCount;

const bench::PingPongServer *bare;
const ks_test::ServiceProcess *service;

void ping_pong(benchmark::State &state) {
  bench::PingPong connection(*bare, kRequestSize, kReplySize);
  for (auto _ : state) connection.exchange();
}

void exchange(benchmark::State &state) {
  uint8_t random[kCount];
  for (auto _ : state) {
    if (ks_generate_random_number(random, kCount, 0) != KS_SUCCESS) state.SkipWithError("the exchange failed");
  }
}

void PingPongOnOneCore(benchmark::State &state) {
  const bench::OneCore placement(bare->pid());
  ping_pong(state);
}
void ExchangeOnOneCore(benchmark::State &state) {
  const bench::OneCore placement(service->pid());
  exchange(state);
}
BENCHMARK(PingPongOnOneCore)->UseRealTime();
BENCHMARK(ExchangeOnOneCore)->UseRealTime();

void PingPong(benchmark::State &state) {
  ping_pong(state);
}
void Exchange(benchmark::State &state) {
  exchange(state);
}
// Longer turns: threads and their partners need some milliseconds to settle on the cores.
BENCHMARK(PingPong)->UseRealTime()->MinTime(0.3)->Repetitions(9)->Threads(1)->Threads(4)->Threads(8);
BENCHMARK(Exchange)->UseRealTime()->MinTime(0.3)->Repetitions(9)->Threads(1)->Threads(4)->Threads(8);

}  // namespace

int main(int argc, char **argv) {
  const bench::PingPongServer ping_pong_server;
  const ks_test::ServiceProcess real_service;
  bare = &ping_pong_server;
  service = &real_service;
  setenv("KS_SOCKET", real_service.socket().c_str(), 1);
  if (ks_init(0, 1, 0) != KS_SUCCESS) {
    std::fprintf(stderr, "the library doesn't start over %s\n", real_service.socket().c_str());
    return 1;
  }
  return bench::run_beside(argc, argv,
                           {{"ExchangeOnOneCore/real_time", {"PingPongOnOneCore/real_time"}, 1.10},
                            {"Exchange/min_time:0.300/repeats:9/real_time/threads:1",
                             {"PingPong/min_time:0.300/repeats:9/real_time/threads:1"}},
                            {"Exchange/min_time:0.300/repeats:9/real_time/threads:4",
                             {"PingPong/min_time:0.300/repeats:9/real_time/threads:4"},
                             1.20},
                            {"Exchange/min_time:0.300/repeats:9/real_time/threads:8",
                             {"PingPong/min_time:0.300/repeats:9/real_time/threads:8"},
                             1.20}});
}
