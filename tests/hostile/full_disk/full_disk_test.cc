// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// A disk that others have filled: stores are refused, but entries can be cleared, which makes room again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "service/raw_client.h"
#include "service/service_process.h"

namespace {

using ks_test::Datagram;
using ks_test::RawClient;
using ks_test::ServiceProcess;
using ks_test::ServiceSetup;

constexpr uint32_t kStoreSecret = 0x10402, kClear = 0x10404, kExists = 0x10405;
constexpr uint32_t kSuccess = 1, kStoreFull = 7;
constexpr size_t kBlock = 60000;

uint8_t low(size_t n) {
  return static_cast<uint8_t>(n);
}

Datagram wire_name(int number) {
  const std::string name = "n" + std::to_string(number);
  Datagram bytes{0x30, 0, 0, 7};
  bytes.insert(bytes.end(), name.begin(), name.end());
  return bytes;
}

uint32_t store(RawClient &client, int number) {
  Datagram sections = wire_name(number);
  const size_t name_len = sections.size(), at = 12 + name_len;
  sections.resize(name_len + 1 + kBlock, 'm');
  return client
      .exchange(kStoreSecret,
                {low(name_len), 12, 0, low(at), 1, 0, low(at), 0, low(kBlock), low(kBlock >> 8), low(at + 1), 0},
                sections)
      .result();
}

uint32_t named(RawClient &client, uint32_t opcode, int number) {
  const Datagram section = wire_name(number);
  return client.exchange(opcode, {low(section.size()), 2}, section).result();
}

// SmallDisk is a file system of its own under the folder of a stopped service.
class SmallDisk {
 public:
  explicit SmallDisk(const ServiceProcess &service) : folder_(service.folder()), behind_(folder_ + ".behind") {
    std::filesystem::create_directory(behind_);
    if (mount(folder_.c_str(), behind_.c_str(), nullptr, MS_BIND, nullptr) != 0) return;
    if (mount("tmpfs", folder_.c_str(), "tmpfs", 0, "size=14m,mode=0711") != 0) return;
    is_there_ = true;
    for (const auto &file : std::filesystem::directory_iterator(behind_)) {
      const std::filesystem::path here = folder_ + "/" + file.path().filename().string();
      if (file.is_regular_file()) std::filesystem::copy_file(file.path(), here);
      if (file.is_socket()) std::filesystem::create_symlink(file.path(), here);
    }
  }
  ~SmallDisk() {
    if (is_there_) umount2(folder_.c_str(), MNT_DETACH);
    umount2(behind_.c_str(), MNT_DETACH);
    rmdir(behind_.c_str());
  }
  SmallDisk(const SmallDisk &) = delete;
  SmallDisk &operator=(const SmallDisk &) = delete;

  bool is_there() const { return is_there_; }

  // fill takes all the room that is left.
  void fill() const {
    std::ofstream file(folder_ + "/others", std::ios::binary | std::ios::app);
    const std::string page(4096, 'x');
    while (file.write(page.data(), 4096).flush()) {
    }
  }

 private:
  const std::string folder_, behind_;
  bool is_there_ = false;
};

// The flags of the status that say what has become of changes, and why they are refused.
struct Told {
  uint32_t flags;
  std::string refusal;
};

Told status(RawClient &client) {
  HostStatusReply status{};
  const Datagram payload = client.exchange(HOST_OP_STATUS, {}).payload;
  std::memcpy(&status, payload.data(), std::min(payload.size(), sizeof status));
  return {status.flags & (8 | 16 | 32), status.refusal};
}

ServiceSetup with_administrator() {
  ServiceSetup setup;
  const std::string heading = "[administrators]\n";
  setup.config.insert(setup.config.find(heading) + heading.size(), "users = [0]\n");
  return setup;
}

class FullDisk : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root, to mount a small disk";
    ASSERT_EQ(service.stop(), 0);
    disk.emplace(service);
    if (!disk->is_there()) GTEST_SKIP() << "no file system can be mounted here";
    service.start();
  }
  void TearDown() override {
    if (disk && disk->is_there() && service.pid() > 0) service.kill();
  }

  ServiceProcess service{with_administrator()};
  std::optional<SmallDisk> disk;
};

TEST_F(FullDisk, LetsEntriesBeClearedThatMakeRoom) {
  RawClient client(service.socket());
  int count = 0;
  while (store(client, count) == kSuccess) ++count;
  ASSERT_GT(count, 10);
  disk->fill();
  EXPECT_EQ(store(client, count), kStoreFull);
  EXPECT_EQ(status(client).flags, HOST_STATUS_CHANGES_REFUSED);
  EXPECT_THAT(status(client).refusal, testing::HasSubstr("full"));
  for (int n = 0; n < count; ++n) EXPECT_EQ(named(client, kClear, n), kSuccess) << n << " of " << count;
  EXPECT_EQ(store(client, 0), kSuccess) << "in the room of what was cleared";
  EXPECT_EQ(status(client).flags, 0u);
}

TEST_F(FullDisk, LetsEntriesBeClearedAfterAKillAndARestart) {
  int count = 0;
  {
    RawClient client(service.socket());
    while (store(client, count) == kSuccess) ++count;
    disk->fill();
  }
  service.restart();
  RawClient client(service.socket());
  for (int n = 0; n < count; ++n) {
    ASSERT_EQ(named(client, kExists, n), kSuccess);
    EXPECT_EQ(named(client, kClear, n), kSuccess) << n << " of " << count;
  }
  EXPECT_EQ(store(client, 0), kSuccess);
}

// A file of the right size that has no room yet is what a start on a full disk would leave.
TEST_F(FullDisk, IsToldAtAStartThatFindsNoRoomForTheStatePage) {
  ASSERT_EQ(service.stop(), 0);
  disk->fill();
  for (const off_t size : {0, 4096}) {
    std::filesystem::remove(service.state_page());
    std::ofstream(service.state_page()).close();
    ASSERT_EQ(truncate(service.state_page().c_str(), size), 0);
    disk->fill();
    try {
      service.start();
      ADD_FAILURE() << "started with a state page of " << size << " bytes";
    } catch (const std::runtime_error &error) {
      EXPECT_THAT(error.what(),
                  testing::HasSubstr("s.state: there is no room for the state page: No space left on device"));
    }
  }
}

}  // namespace
