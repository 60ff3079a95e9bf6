// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// One exchange through libks and ksd beside a bare ping-pong with messages of the same sizes. Waking another core costs
// several times an exchange on virtual machines, so like placements are compared: first both ends on one core, then
// clients and serving threads wherever the scheduler puts them. Exchanges go by a channel; beside them stand those by
// the socket, with a service that offers none.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

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
const ks_test::ServiceProcess *by_channel;
const ks_test::ServiceProcess *by_socket;

// Has the library talk to that service from now on.
bool use(const ks_test::ServiceProcess &service) {
  setenv("KS_SOCKET", service.socket().c_str(), 1);
  return ks_init(0, 1, 0) == KS_SUCCESS;
}

void ping_pong(benchmark::State &state) {
  bench::PingPong connection(*bare, kRequestSize, kReplySize);
  for (auto _ : state) connection.exchange();
}

void exchange(benchmark::State &state, const ks_test::ServiceProcess &service) {
  if (state.thread_index() == 0 && !use(service)) state.SkipWithError("the library doesn't start");
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
  const bench::OneCore placement(by_channel->pid());
  exchange(state, *by_channel);
}
void SocketExchangeOnOneCore(benchmark::State &state) {
  const bench::OneCore placement(by_socket->pid());
  exchange(state, *by_socket);
}
BENCHMARK(PingPongOnOneCore)->UseRealTime();
BENCHMARK(ExchangeOnOneCore)->UseRealTime();
BENCHMARK(SocketExchangeOnOneCore)->UseRealTime();

void PingPong(benchmark::State &state) {
  ping_pong(state);
}
void Exchange(benchmark::State &state) {
  exchange(state, *by_channel);
}
void SocketExchange(benchmark::State &state) {
  exchange(state, *by_socket);
}

// Longer turns: threads and their partners need some milliseconds to settle on the cores.
void with_threads(benchmark::internal::Benchmark *rows) {
  rows->UseRealTime()->MinTime(0.3)->Repetitions(15)->Threads(1)->Threads(2)->Threads(4)->Threads(8);
}
BENCHMARK(PingPong)->Apply(with_threads);
BENCHMARK(Exchange)->Apply(with_threads);
BENCHMARK(SocketExchange)->Apply(with_threads);

std::string row(const char *name, int threads) {
  return std::string(name) + "/min_time:0.300/repeats:15/real_time/threads:" + std::to_string(threads);
}

}  // namespace

int main(int argc, char **argv) {
  const bench::PingPongServer ping_pong_server;
  const ks_test::ServiceProcess service;
  ks_test::ServiceSetup without_channels;
  without_channels.config += "[limits]\nchannels = 0\n";
  const ks_test::ServiceProcess socket_service(without_channels);
  bare = &ping_pong_server;
  by_channel = &service;
  by_socket = &socket_service;
  if (!use(service)) {
    std::fprintf(stderr, "the library doesn't start over %s\n", service.socket().c_str());
    return 1;
  }
  std::vector<bench::Comparison> comparisons{
      {"ExchangeOnOneCore/real_time", {"PingPongOnOneCore/real_time"}, 1.10},
      {"ExchangeOnOneCore/real_time", {"SocketExchangeOnOneCore/real_time"}, 0.65},
      {"SocketExchangeOnOneCore/real_time", {"PingPongOnOneCore/real_time"}, 1.10}};
  for (const int threads : {1, 2, 4, 8}) {
    comparisons.push_back({row("Exchange", threads), {row("PingPong", threads)}, threads > 1 ? 1.05 : 0});
    comparisons.push_back({row("Exchange", threads), {row("SocketExchange", threads)}, 1.0});
  }
  return bench::run_beside(argc, argv, comparisons);
}
