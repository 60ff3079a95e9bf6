// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// docs/wire.md against the client libraries: they send each request of the page, and understand each of its replies.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <iterator>
#include <memory>

#include "docs/page.h"
#include "fake_service/fake_service.h"
#include "ks_api.h"
#include "sysmgr.h"

namespace {

using docs::Pattern;
using testing::ElementsAreArray;

constexpr size_t kHeaderSize = 32;
constexpr size_t kTokenOffset = 12;
constexpr KsResult kSuccess = 1;

const docs::Page page("wire.md");

// The page's requests have tokens of their own, which a client chooses as it likes.
Pattern request_of(const std::string &name) {
  return page.bytes(name + "-request").with_any(kTokenOffset, 4);
}

Octets reply_of(const std::string &name) {
  return page.bytes(name + "-reply").from(kHeaderSize).filled();
}

Octets octets(const std::string &text) {
  return {text.begin(), text.end()};
}

const uint8_t *bytes_of(const std::string &text) {
  return reinterpret_cast<const uint8_t *>(text.data());
}

template <typename Range>
Octets all_of(const Range &bytes) {
  return {std::begin(bytes), std::end(bytes)};
}

// Handed is what an operation has handed out, which its caller frees.
struct Handed {
  uint8_t *data = nullptr;
  uint16_t len = 0;

  ~Handed() { free(data); }
  Octets bytes() const { return {data, data + len}; }
};

class WirePage : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    folder = std::make_unique<TemporaryFolder>();
    service = std::make_unique<FakeService>(folder->path() + "/s");
    service->hello.running_cfg_uri[0] = '\0';  // no cache: PACs are asked for
    service->handler = [](int socket, const FakeService::Request &request) {
      return FakeService::reply(socket, request, reply_of(example));
    };
    service->start();
    setenv("KS_SOCKET", (folder->path() + "/s").c_str(), 1);
    ASSERT_EQ(ks_init(0, 1, 0), kSuccess);
  }
  static void TearDownTestSuite() {
    service.reset();
    folder.reset();
  }

  // expect_exchange has the service answer as the example NAME does, and expects that `call` sends its request.
  template <typename Call>
  void expect_exchange(const std::string &name, KsResult result, Call call) {
    example = name;
    const size_t before = service->requests().size();
    EXPECT_EQ(call(), result) << name;
    ASSERT_EQ(service->requests().size(), before + 1) << name;
    EXPECT_EQ(service->requests().back().datagram, request_of(name)) << name;
    shown.push_back(name);
  }

  void exchange_with_device();
  void exchange_with_secret_store();
  void exchange_with_ciphers_and_digests();
  void exchange_with_ms_chap();
  void exchange_with_pacs();

  static inline std::unique_ptr<TemporaryFolder> folder;
  static inline std::unique_ptr<FakeService> service;
  static inline std::string example;
  std::vector<std::string> shown;
};

void WirePage::exchange_with_device() {
  uint8_t random[4] = {};
  expect_exchange("random", kSuccess, [&] { return ks_generate_random_number(random, 4, 0); });
  EXPECT_EQ(all_of(random), Octets(4, 0xee));

  uint16_t version = 0;
  uint32_t status = 77;
  expect_exchange("firmware", kSuccess, [&] { return ks_return_fw_version_and_status(&version, &status); });
  EXPECT_EQ(version, 0xeeee);
  EXPECT_EQ(status, 0u);

  expect_exchange("compact", kSuccess, [] { return ks_compact_fw_memory(); });
}

void WirePage::exchange_with_secret_store() {
  expect_exchange("store-secret", kSuccess, [] {
    return ks_store_secret_and_metadata("wifi", "home", bytes_of("correct horse"), 13, bytes_of("channel 11"), 10);
  });

  uint32_t exists = 0;
  expect_exchange("secret-exists", kSuccess, [&] { return ks_secret_exists("home", &exists); });
  EXPECT_EQ(exists, 1u);

  expect_exchange("add-metadata", kSuccess, [] { return ks_add_metadata("wifi", bytes_of("channel 6"), 9); });

  Handed metadata;
  expect_exchange("return-metadata", kSuccess,
                  [&] { return ks_return_metadata("wifi", &metadata.data, &metadata.len); });
  EXPECT_EQ(metadata.bytes(), octets("channel 6"));

  uint16_t index = 4;
  char *name = nullptr;
  expect_exchange("name-by-index", kSuccess, [&] { return ks_return_secret_handle_by_index(&index, &name); });
  EXPECT_STREQ(name, "wifi");
  free(name);

  expect_exchange("rename", kSuccess, [] { return ks_rename_secret("wifi", "lan", nullptr); });
  expect_exchange("clear-secret", kSuccess, [] { return ks_clear_secret("lan"); });
  expect_exchange("missing", kSuccess, [&] { return ks_secret_exists("lan", &exists); });
  EXPECT_EQ(exists, 0u);
}

constexpr std::array<uint8_t, 16> kPlain = {0x6b, 0xc1, 0xbe, 0xe2, 0x2e, 0x40, 0x9f, 0x96,
                                            0xe9, 0x3d, 0x7e, 0x11, 0x73, 0x93, 0x17, 0x2a};

void WirePage::exchange_with_ciphers_and_digests() {
  std::array<uint8_t, 16> out{};
  expect_exchange("aes-encrypt", kSuccess, [&] { return ks_aes_encrypt("aes", kPlain.data(), out.data(), 16); });
  EXPECT_EQ(all_of(out),
            Octets({0x3a, 0xd7, 0x7b, 0xb4, 0x0d, 0x7a, 0x36, 0x60, 0xa8, 0x9e, 0xca, 0xf3, 0x24, 0x66, 0xef, 0x97}));

  constexpr uint8_t kCbc[] = {0x76, 0x49, 0xab, 0xac, 0x81, 0x19, 0xb2, 0x46,
                              0xce, 0xe9, 0x8e, 0x9b, 0x12, 0xe9, 0x19, 0x7d};
  std::array<uint8_t, 16> iv = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
  expect_exchange("aes-cbc-encrypt", kSuccess,
                  [&] { return ks_aes_cbc_encrypt("aes", iv.data(), kPlain.data(), 16, out.data()); });
  EXPECT_EQ(all_of(out), all_of(kCbc));
  EXPECT_EQ(all_of(iv), all_of(kCbc));

  constexpr uint8_t kNow[] = {0x4e, 0x6f, 0x77, 0x20, 0x69, 0x73, 0x20, 0x74};
  std::array<uint8_t, 8> des{};
  expect_exchange("des-encrypt", kSuccess, [&] { return ks_des_ecb_encrypt("des", kNow, 8, des.data(), 8); });
  EXPECT_EQ(all_of(des), Octets({0x3f, 0xa4, 0x0e, 0x8a, 0x98, 0x4d, 0x48, 0x15}));

  std::array<uint8_t, 20> hmac{};
  expect_exchange("hmac-sha1", kSuccess, [&] { return ks_hmac_sha1("aes", bytes_of("Hi There"), 8, hmac.data()); });
  EXPECT_EQ(all_of(hmac), page.bytes("hmac-sha1-reply").from(kHeaderSize + 6));

  expect_exchange("md5", kSuccess, [&] { return ks_md5_hash("aes", bytes_of("a"), 1, bytes_of("b"), 1, out.data()); });
  EXPECT_EQ(all_of(out), page.bytes("md5-reply").from(kHeaderSize + 6));
}

void WirePage::exchange_with_ms_chap() {
  constexpr uint8_t kAuthenticator[] = {0x5b, 0x5d, 0x7c, 0x7d, 0x7b, 0x3f, 0x2f, 0x3e,
                                        0x3c, 0x2c, 0x60, 0x21, 0x32, 0x26, 0x26, 0x28};
  constexpr uint8_t kPeer[] = {0x21, 0x40, 0x23, 0x24, 0x25, 0x5e, 0x26, 0x2a,
                               0x28, 0x29, 0x5f, 0x2b, 0x3a, 0x33, 0x7c, 0x7e};
  constexpr uint8_t kResponse[] = {0x82, 0x30, 0x9e, 0xcd, 0x8d, 0x70, 0x8b, 0x5e, 0xa0, 0x8f, 0xaa, 0x39,
                                   0x81, 0xcd, 0x83, 0x54, 0x42, 0x33, 0x11, 0x4a, 0x3d, 0x85, 0xd6, 0xdf};
  std::array<uint8_t, 24> response{};
  expect_exchange("nt-response", kSuccess,
                  [&] { return ks_GenerateNTResponse("old", kAuthenticator, kPeer, "User", response.data()); });
  EXPECT_EQ(all_of(response), all_of(kResponse));

  std::string answer(42, '\0');
  expect_exchange("authenticator-response", kSuccess, [&] {
    return ks_GenerateAuthenticatorResponse("old", kResponse, kPeer, kAuthenticator, "User",
                                            reinterpret_cast<uint8_t *>(answer.data()));
  });
  EXPECT_EQ(answer, "S=407A5589115FD0D6209F510FE9C04566932CDA56");

  Octets block(516);
  expect_exchange("new-password", kSuccess, [&] {
    return ks_NewPasswordEncryptedWithOldNtPasswordHash("old", bytes_of("newPass"), 7, block.data());
  });
  EXPECT_EQ(block, Octets(516, 0xee));

  std::array<uint8_t, 16> out{};
  expect_exchange("old-hash", kSuccess,
                  [&] { return ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash("new", "old", out.data()); });
  EXPECT_EQ(all_of(out), page.bytes("old-hash-reply").from(kHeaderSize + 6));

  expect_exchange("master-key", kSuccess, [&] { return ks_GetMasterKey("old", kResponse, out.data()); });
  EXPECT_EQ(all_of(out),
            Octets({0xfd, 0xec, 0xe3, 0x71, 0x7a, 0x8c, 0x83, 0x8c, 0xb3, 0x88, 0xe5, 0x27, 0xae, 0x3c, 0xdd, 0x31}));
}

void WirePage::exchange_with_pacs() {
  constexpr uint8_t kAid[] = {0xa1, 0xb2};
  constexpr uint8_t kOpaque[] = {0, 2, 0, 3, 'o', 'p', 'a'};
  constexpr uint8_t kInfo[] = {0, 9, 0, 14, 0x80, 3, 0, 4, 0x71, 0, 0, 0, 0x80, 5, 0, 2, 'i', 'd'};
  expect_exchange("store-pac", kSuccess, [&] {
    return ks_store_pac(kAid, sizeof kAid, bytes_of("0123456789abcdef"), 16, kOpaque, sizeof kOpaque, kInfo,
                        sizeof kInfo);
  });

  uint32_t exists = 0;
  expect_exchange("pac-exists", kSuccess, [&] { return ks_pac_exists(kAid, sizeof kAid, &exists); });
  EXPECT_EQ(exists, 1u);

  uint8_t *info = nullptr;
  uint32_t info_len = 0;
  expect_exchange("pac-metadata", kSuccess, [&] { return ks_return_pac_info(kAid, sizeof kAid, &info, &info_len); });
  EXPECT_EQ(Octets(info, info + info_len), all_of(kInfo));
  free(info);

  uint16_t index = 4;
  Handed aid;
  expect_exchange("aid-by-index", kSuccess, [&] { return ks_return_aid_by_index(&index, &aid.data, &aid.len); });
  EXPECT_EQ(aid.bytes(), Octets({0xa1, 0xb2}));

  Octets out(24);
  expect_exchange("t-prf", kSuccess, [&] {
    return ks_pac_key_t_prf(kAid, sizeof kAid, bytes_of("label"), 5, bytes_of("random"), 6, out.data(), 24);
  });
  EXPECT_EQ(out, page.bytes("t-prf-reply").from(kHeaderSize + 6));

  expect_exchange("clear-pac", kSuccess, [&] { return ks_clear_pac(kAid, sizeof kAid); });
}

TEST_F(WirePage, ShowsTheMessagesOfTheDevice) {
  exchange_with_device();
}
TEST_F(WirePage, ShowsTheMessagesOfTheSecretStore) {
  exchange_with_secret_store();
}
TEST_F(WirePage, ShowsTheMessagesOfCiphersAndDigests) {
  exchange_with_ciphers_and_digests();
}
TEST_F(WirePage, ShowsTheMessagesOfMsChap) {
  exchange_with_ms_chap();
}
TEST_F(WirePage, ShowsTheMessagesOfPacs) {
  exchange_with_pacs();
}

// The greeting has a test of its own; administrators' messages and faulty datagrams are none that a library sends.
TEST_F(WirePage, ShowsNoOtherRequests) {
  shown = {"hello", "channel", "status", "counters", "latencies", "users", "owners", "limits", "checkpoint", "reload"};
  exchange_with_device();
  exchange_with_secret_store();
  exchange_with_ciphers_and_digests();
  exchange_with_ms_chap();
  exchange_with_pacs();
  for (const char *faulty : {"unknown-opcode", "wrong-version", "wrong-size", "cut-short"}) shown.push_back(faulty);
  EXPECT_THAT(page.names("-request"), ElementsAreArray(shown));
}

TEST(WirePageHello, IsWhatClientsSendAndUnderstand) {
  const TemporaryFolder folder;
  FakeService service(folder.path() + "/s");
  Octets greeting;
  service.greeter = [&](int socket, const FakeService::Request &request) {
    greeting = request.datagram;
    return FakeService::reply(socket, request, reply_of("hello"));
  };
  service.start();

  EXPECT_TRUE(passes_in_child([&] {
    setenv("KS_SOCKET", (folder.path() + "/s").c_str(), 1);
    return sysmgr_vdc_get() == 7 && sysmgr_running_cfg_uri_get() == std::string("lmdb:///run/user/1000/ks");
  }));
  service.stop();
  EXPECT_EQ(greeting, request_of("hello"));
}

TEST(WirePageChannel, IsAskedForAsThePageShows) {
  const TemporaryFolder folder;
  FakeService service(folder.path() + "/s");
  Octets asked;
  service.hello.offers = HOST_OFFERS_CHANNEL;
  service.handler = [&](int socket, const FakeService::Request &request) {
    if (request.header.opcode != HOST_OP_CHANNEL) return FakeService::reply(socket, request, reply_of("random"));
    asked = request.datagram;
    return FakeService::reply(socket, request, reply_of("channel"));  // without a file: all goes on by the socket
  };
  service.start();

  EXPECT_TRUE(passes_in_child([&] {
    setenv("KS_SOCKET", (folder.path() + "/s").c_str(), 1);
    bool good = ks_init(0, 1, 0) == kSuccess;
    uint8_t random[4];
    for (int i = 0; i < 40; i++) good = good && ks_generate_random_number(random, 4, 0) == kSuccess;
    return good;
  }));
  service.stop();
  EXPECT_EQ(asked, request_of("channel"));
}

}  // namespace
