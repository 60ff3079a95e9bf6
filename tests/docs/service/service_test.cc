// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// docs/wire.md against a real daemon: each request of the page gets the reply of the page. And what it shares in files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "docs/page.h"
#include "sdwrap.h"
#include "service/raw_client.h"
#include "service/service_process.h"

namespace {

using docs::Octets;
using ks_test::RawClient;
using ks_test::ServiceProcess;
using ks_test::ServiceSetup;

constexpr uint32_t kStoreSecret = 66562;
constexpr uint32_t kSuccess = 1;

const docs::Page page("wire.md");

// The caller in VDC 7, an administrator, and the URI of the page.
ServiceSetup setup() {
  ServiceSetup setup;
  const std::string own = ks_test::config_of_own_user(7);
  const std::string uri = "cache_uri = \"lmdb:///run/user/1000/ks\"";
  const size_t at = own.find("cache_uri");
  setup.config = own.substr(0, at) + uri + own.substr(own.find('\n', at));
  const std::string administrators = "[administrators]\n";
  setup.config.insert(setup.config.find(administrators) + administrators.size(),
                      "users = [" + std::to_string(getuid()) + "]\n");
  return setup;
}

Octets octets(const std::string &text) {
  return {text.begin(), text.end()};
}

void store(RawClient &client, const std::string &name, const Octets &secret) {
  const auto w = static_cast<uint8_t>(name.size() + 4);
  const auto n = static_cast<uint8_t>(secret.size());
  Octets sections = {0x30, 0, 0, 7};
  sections.insert(sections.end(), name.begin(), name.end());
  sections.insert(sections.end(), secret.begin(), secret.end());
  const uint8_t secret_at = 12 + w;
  const uint8_t end = secret_at + n;
  const Octets descriptor = {w, 12, 0, secret_at, n, 0, secret_at, 0, 0, 0, end, 0};
  ASSERT_EQ(client.exchange(kStoreSecret, descriptor, sections).result(), kSuccess);
}

// What the page says that the daemon holds before its examples.
void store_keys(RawClient &client) {
  store(client, "aes",
        {0x2b, 0x7e, 0x15, 0x16, 0x28, 0xae, 0xd2, 0xa6, 0xab, 0xf7, 0x15, 0x88, 0x09, 0xcf, 0x4f, 0x3c});
  store(client, "des", {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef});
  store(client, "old", octets("clientPass"));
  store(client, "new", octets("newPass"));
}

Octets read_file(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

Octets receive(const RawClient &client) {
  Octets datagram(HOST_WIRE_MAX_DATAGRAM);
  const ssize_t size = recv(client.socket(), datagram.data(), datagram.size(), 0);
  datagram.resize(size < 0 ? 0 : static_cast<size_t>(size));
  return datagram;
}

TEST(WirePage, ShowsWhatTheDaemonAnswersToEachRequest) {
  const ServiceProcess service(setup());
  RawClient client(service.socket());
  store_keys(client);

  const std::vector<std::string> examples = page.names("-request");
  EXPECT_EQ(examples.size(), 41u);
  EXPECT_EQ(page.names("-reply"), examples);
  for (const std::string &name : examples) {
    SCOPED_TRACE(name);
    ASSERT_TRUE(client.send(page.filled(name + "-request")));
    EXPECT_EQ(receive(client), page.bytes(name + "-reply"));
  }
}

TEST(WirePage, ShowsTheStatePageOfTheDefaultConfiguration) {
  const ServiceProcess service(setup());
  EXPECT_EQ(read_file(service.state_page()), page.bytes("state-page"));
}

TEST(WirePage, ShowsTheRingOfAProcessThatReportedOnce) {
  const ServiceProcess service(setup());
  setenv("KS_SOCKET", service.socket().c_str(), 1);
  const KsHistRecord record = {.subtype = 100, .text = "opened"};
  sdwrap_hist_event(0, 11, &record);

  const Octets found = read_file(service.folder() + "/history/00.ring");
  ASSERT_EQ(found.size(), 128u + 1024 * 128);
  EXPECT_EQ(Octets(found.begin(), found.begin() + 128), page.bytes("history-ring"));
  EXPECT_EQ(Octets(found.begin() + 128, found.begin() + 256), page.bytes("history-slot"));
  EXPECT_EQ(read_file(service.folder() + "/history/next"), (Octets{1, 0, 0, 0}));
}

}  // namespace
