// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The library's own part of an exchange, and the cost of a report behind shut gates, over platform libraries that do
// nothing. The floors stand beside them in the same run: the bare calls that the contract makes unavoidable.
#include <benchmark/benchmark.h>

#include "ks_api.h"
#include "mts.h"
#include "sdwrap.h"
#include "transport/trace.h"

namespace {

// Every platform call of one exchange, with nothing around them.
void FloorOfAnExchange(benchmark::State &state) {
  KsMtsMessage sent;
  KsMtsMessage received;
  KsRecvOptions options = {};
  for (auto _ : state) {
    mts_send(1, 0, 0, 0, nullptr, 0, &sent, 0, nullptr);
    sdwrap_hist_mts_event(4, &sent, 0, 0);
    options.token = mts_rr_token_get(&sent);
    mts_recv(1, &received, &options);
    sdwrap_hist_mts_event(3, &received, 0, 0);
    benchmark::DoNotOptimize(mts_payload_get(&received));
    benchmark::DoNotOptimize(mts_payload_size(&received));
    mts_drop(1, &sent);
    mts_drop(1, &received);
  }
}
BENCHMARK(FloorOfAnExchange);

void ExchangeWithoutAName(benchmark::State &state) {
  uint8_t random[16];
  for (auto _ : state) {
    if (ks_generate_random_number(random, sizeof random, 0) != KS_SUCCESS) state.SkipWithError("the exchange failed");
    benchmark::DoNotOptimize(random);
  }
}
BENCHMARK(ExchangeWithoutAName);

void FloorOfAShutReport(benchmark::State &state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(sdwrap_hist_event_subtype_check(ks::KS_HIST_EVENT, ks::KS_SUBTYPE_NORMAL));
    benchmark::DoNotOptimize(sdwrap_chk_int(ks::KS_SUBTYPE_NORMAL, 0, 0, 1));
  }
}
BENCHMARK(FloorOfAShutReport);

void ShutReport(benchmark::State &state) {
  int evaluated = 0;
  for (auto _ : state) KS_TRACE(KS_SUBTYPE_NORMAL, "evaluated %d times \n", ++evaluated);
  if (evaluated != 0) state.SkipWithError("arguments were evaluated");
}
BENCHMARK(ShutReport);

}  // namespace

BENCHMARK_MAIN();
