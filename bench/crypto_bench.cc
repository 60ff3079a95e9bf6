// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Cryptography on stored keys beside what it can't do without: a bare ping-pong with messages of the same sizes, and
// the bare algorithm; with client and service on one core, since waking another one costs several times an exchange on
// virtual machines. Then one client thread beside four, and the AES of a software token as others offer it.
#include <nettle/aes.h>
#include <nettle/cbc.h>
#include <nettle/des.h>
#include <nettle/hmac.h>
#include <nettle/sha1.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "beside.h"
#include "host_wire.h"
#include "ks_api.h"
#include "ping_pong.h"
#include "pkcs11_aes.h"
#include "service/raw_client.h"
#include "service/service_process.h"

namespace {

constexpr char kAesKey[] = "aes";
constexpr char kHmacKey[] = "hmac";
constexpr char kPassword[] = "pw";
constexpr uint8_t kKeyBytes[32] = {1, 2, 3, 4, 5, 6, 7, 8};
constexpr size_t kReplyHead = sizeof(HostWireHeader) + 6;

// What a request of `descriptor` and `data` takes on the wire, under a name of `name_len` letters.
constexpr size_t request_size(size_t descriptor, size_t name_len, size_t data) {
  return sizeof(HostWireHeader) + descriptor + KS_NAME_HEADER_SIZE + name_len + data;
}

const bench::PingPongServer *bare;
const ks_test::ServiceProcess *service;
const bench::RemoteModule *remote;
std::unique_ptr<bench::TokenKey> own_token, remote_token;

void ping_pong(benchmark::State &state, size_t request, size_t reply) {
  const bench::OneCore placement(bare->pid());
  bench::PingPong connection(*bare, request, reply);
  for (auto _ : state) connection.exchange();
}

void succeed(benchmark::State &state, bool done) {
  if (!done) state.SkipWithError("the operation failed");
}

// --- AES-CBC

void CbcPingPong(benchmark::State &state) {
  const auto size = static_cast<size_t>(state.range(0));
  ping_pong(state, request_size(sizeof(KsAesCbcDescriptor), sizeof kAesKey - 1, 16 + size), kReplyHead + 16 + size);
}

void CbcCipher(benchmark::State &state) {
  const auto size = static_cast<size_t>(state.range(0));
  std::vector<uint8_t> in(size), out(size);
  uint8_t iv[16] = {};
  aes256_ctx schedule;
  aes256_set_encrypt_key(&schedule, kKeyBytes);
  for (auto _ : state) {
    cbc_aes256_encrypt(&schedule, iv, size, out.data(), in.data());
    benchmark::DoNotOptimize(out.data());
  }
}

void cbc_calls(benchmark::State &state, uint16_t size) {
  std::vector<uint8_t> in(size), out(size);
  uint8_t iv[16] = {};
  for (auto _ : state) succeed(state, ks_aes_cbc_encrypt(kAesKey, iv, in.data(), size, out.data()) == KS_SUCCESS);
}

void CbcCall(benchmark::State &state) {
  const bench::OneCore placement(service->pid());
  cbc_calls(state, static_cast<uint16_t>(state.range(0)));
}

void CbcCallOfThreads(benchmark::State &state) {
  cbc_calls(state, 1024);
}

BENCHMARK(CbcPingPong)->Arg(16)->Arg(1024)->Arg(64000)->UseRealTime();
BENCHMARK(CbcCipher)->Arg(16)->Arg(1024)->Arg(64000)->UseRealTime();
BENCHMARK(CbcCall)->Arg(16)->Arg(1024)->Arg(64000)->UseRealTime();
BENCHMARK(CbcCallOfThreads)->UseRealTime()->Threads(1)->Threads(4);

// --- HMAC-SHA1

void HmacPingPong(benchmark::State &state) {
  const auto size = static_cast<size_t>(state.range(0));
  ping_pong(state, request_size(sizeof(KsHmacDescriptor), sizeof kHmacKey - 1, size), kReplyHead + 20);
}

void HmacDigest(benchmark::State &state) {
  std::vector<uint8_t> in(static_cast<size_t>(state.range(0)));
  uint8_t digest[SHA1_DIGEST_SIZE];
  hmac_sha1_ctx schedule;
  hmac_sha1_set_key(&schedule, sizeof kKeyBytes, kKeyBytes);
  for (auto _ : state) {
    hmac_sha1_update(&schedule, in.size(), in.data());
    hmac_sha1_digest(&schedule, sizeof digest, digest);
    benchmark::DoNotOptimize(digest);
  }
}

void HmacCall(benchmark::State &state) {
  const bench::OneCore placement(service->pid());
  std::vector<uint8_t> in(static_cast<size_t>(state.range(0)));
  uint8_t digest[SHA1_DIGEST_SIZE];
  for (auto _ : state) {
    succeed(state, ks_hmac_sha1(kHmacKey, in.data(), static_cast<uint16_t>(in.size()), digest) == KS_SUCCESS);
  }
}

BENCHMARK(HmacPingPong)->Arg(64)->Arg(1024)->UseRealTime();
BENCHMARK(HmacDigest)->Arg(64)->Arg(1024)->UseRealTime();
BENCHMARK(HmacCall)->Arg(64)->Arg(1024)->UseRealTime();

// --- MS-CHAP's NT response

void NtResponsePingPong(benchmark::State &state) {
  ping_pong(state, request_size(sizeof(KsNtResponseDescriptor), sizeof kPassword - 1, 16 + 16 + 4), kReplyHead + 24);
}

// From the hash of the password on, which a service may have at hand: a digest, and three blocks under three keys.
void NtResponseCipher(benchmark::State &state) {
  uint8_t digest[SHA1_DIGEST_SIZE];
  uint8_t out[DES_BLOCK_SIZE];
  for (auto _ : state) {
    sha1_ctx hash;
    sha1_init(&hash);
    sha1_update(&hash, sizeof kKeyBytes, kKeyBytes);
    sha1_update(&hash, 4, kKeyBytes);
    sha1_digest(&hash, sizeof digest, digest);
    for (size_t i = 0; i < 3; ++i) {
      des_ctx schedule;
      des_set_key(&schedule, kKeyBytes + 8 * i);
      des_encrypt(&schedule, sizeof out, out, digest);
      benchmark::DoNotOptimize(out);
    }
  }
}

void NtResponseCall(benchmark::State &state) {
  const bench::OneCore placement(service->pid());
  uint8_t out[24];
  for (auto _ : state) {
    succeed(state, ks_GenerateNTResponse(kPassword, kKeyBytes, kKeyBytes, "User", out) == KS_SUCCESS);
  }
}

BENCHMARK(NtResponsePingPong)->UseRealTime();
BENCHMARK(NtResponseCipher)->UseRealTime();
BENCHMARK(NtResponseCall)->UseRealTime();

// --- A software token, as a comparison, and the same here

void EcbCall(benchmark::State &state) {
  const bench::OneCore placement(service->pid());
  const auto size = static_cast<uint16_t>(state.range(0));
  std::vector<uint8_t> in(size), out(size);
  for (auto _ : state) succeed(state, ks_aes_encrypt(kAesKey, in.data(), out.data(), size) == KS_SUCCESS);
}

BENCHMARK(EcbCall)->Arg(16)->Arg(1024)->UseRealTime();

void token_calls(benchmark::State &state, bench::TokenKey &key) {
  const auto size = static_cast<size_t>(state.range(0));
  std::vector<uint8_t> in(size), out(size);
  for (auto _ : state) succeed(state, key.encrypt(in.data(), size, out.data()));
}

void TokenInProcess(benchmark::State &state) {
  token_calls(state, *own_token);
}

void TokenRemote(benchmark::State &state) {
  const bench::OneCore placement(remote->pid());
  token_calls(state, *remote_token);
}

std::unique_ptr<bench::TokenKey> open_token(const std::string &module, const std::string &absence, const char *what) {
  if (absence.empty()) {
    try {
      return std::make_unique<bench::TokenKey>(module);
    } catch (const std::exception &error) {
      std::printf("%s is skipped: %s\n", what, error.what());
    }
  } else {
    std::printf("%s is skipped: %s\n", what, absence.c_str());
  }
  return nullptr;
}

// keep stores a secret by a client without the library, whose stores are no part of what is measured.
bool keep(ks_test::RawClient &client, const std::string &name, const uint8_t *secret, uint8_t size) {
  const ks_test::Datagram secret_bytes(secret, secret + size);
  ks_test::Datagram wire{KS_NAME_TAG_SECRET, 0, 0, 7};
  wire.insert(wire.end(), name.begin(), name.end());
  const auto name_len = static_cast<uint8_t>(wire.size());
  const auto secret_offset = static_cast<uint8_t>(12 + name_len);
  const ks_test::Datagram descriptor{
      name_len, 12, 0, secret_offset, size, 0, secret_offset, 0, 0, 0, static_cast<uint8_t>(secret_offset + size), 0};
  wire.insert(wire.end(), secret_bytes.begin(), secret_bytes.end());
  return client.exchange(KS_OP_STORE_SECRET, descriptor, wire).result() == KS_SUCCESS;
}

}  // namespace

int main(int argc, char **argv) {
  const bench::PingPongServer ping_pong_server;
  const bench::SoftHsmToken token;
  const bench::RemoteModule remote_module(token);
  const ks_test::ServiceProcess real_service;
  bare = &ping_pong_server;
  service = &real_service;
  remote = &remote_module;
  setenv("KS_SOCKET", real_service.socket().c_str(), 1);
  ks_test::RawClient client(real_service.socket());
  client.hello();
  const auto *password = reinterpret_cast<const uint8_t *>("clientPass");
  if (ks_init(0, 1, 0) != KS_SUCCESS || !keep(client, kAesKey, kKeyBytes, 32) ||
      !keep(client, kHmacKey, kKeyBytes, 32) || !keep(client, kPassword, password, 10)) {
    std::fprintf(stderr, "the library doesn't work over %s\n", real_service.socket().c_str());
    return 1;
  }
  own_token = open_token(token.module(), token.absence(), "SoftHSM in process");
  remote_token = open_token(remote_module.module(), remote_module.absence(), "SoftHSM through p11-kit");
  if (own_token) benchmark::RegisterBenchmark("TokenInProcess", TokenInProcess)->Arg(16)->Arg(1024)->UseRealTime();
  if (remote_token) benchmark::RegisterBenchmark("TokenRemote", TokenRemote)->Arg(16)->Arg(1024)->UseRealTime();

  const int result =
      bench::run_beside(argc, argv,
                        {{"CbcCall/16/real_time", {"CbcPingPong/16/real_time", "CbcCipher/16/real_time"}, 1.20},
                         {"CbcCall/1024/real_time", {"CbcPingPong/1024/real_time", "CbcCipher/1024/real_time"}, 1.15},
                         {"CbcCall/64000/real_time", {"CbcPingPong/64000/real_time", "CbcCipher/64000/real_time"}},
                         {"HmacCall/64/real_time", {"HmacPingPong/64/real_time", "HmacDigest/64/real_time"}},
                         {"HmacCall/1024/real_time", {"HmacPingPong/1024/real_time", "HmacDigest/1024/real_time"}},
                         {"NtResponseCall/real_time", {"NtResponsePingPong/real_time", "NtResponseCipher/real_time"}},
                         {"CbcCallOfThreads/real_time/threads:4", {"CbcCallOfThreads/real_time/threads:1"}, 1.00},
                         {"TokenInProcess/1024/real_time", {"EcbCall/1024/real_time"}},
                         {"TokenRemote/1024/real_time", {"EcbCall/1024/real_time"}}});
  remote_token.reset();
  own_token.reset();
  return result;
}
