// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// A cache whose files are cut or altered under a running program: a miss, and never its end.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "ks_api.h"
#include "service/service_process.h"

namespace {

class TruncatedCache : public testing::Test {
 protected:
  TruncatedCache() { setenv("KS_SOCKET", service_.socket().c_str(), 1); }

  // Runs `attack` on each file of the cache in a child that has read a PAC, and reads again.
  void survive(const std::function<void(const std::string &)> &attack) {
    EXPECT_EQ(ks_test::run_as(geteuid(), getegid(),
                              [&] {
                                if (ks_init(0, 1, 0) != KS_SUCCESS) return 1;
                                const std::vector<uint8_t> name = {0x31, 0, 0, 7, 'p', 'a', 'c'};
                                const std::vector<uint8_t> meta(200, 'm');
                                if (ks_cache_pac_write(name.data(), 7, meta.data(), 200) != KS_SUCCESS) return 2;
                                uint8_t *found = nullptr;
                                uint16_t size = 0;
                                if (ks_cache_read_pac(name.data(), 7, &found, &size) != KS_SUCCESS) return 3;
                                for (const auto &file : std::filesystem::directory_iterator(service_.cache_folder())) {
                                  if (file.path().extension() == ".mdb") attack(file.path());
                                }

                                for (int i = 0; i < 100; ++i) ks_cache_read_pac(name.data(), 7, &found, &size);
                                return 0;
                              }),
              0);
    for (const auto &file : std::filesystem::directory_iterator(service_.cache_folder())) {
      std::filesystem::remove(file.path());
    }
  }

  ks_test::ServiceProcess service_;
};

TEST_F(TruncatedCache, EndsNoReader) {
  for (const off_t size : {0, 1, 4096, 8192, 20000}) {
    survive([size](const std::string &path) { EXPECT_EQ(truncate(path.c_str(), size), 0); });
  }
}

TEST_F(TruncatedCache, OfGarbageEndsNoReader) {
  std::minstd_rand random(7);
  for (int round = 0; round < 20; ++round) {
    survive([&](const std::string &path) {
      const int file = open(path.c_str(), O_RDWR | O_CLOEXEC);
      std::string page(4096, '\0');
      for (char &byte : page) byte = static_cast<char>(random());
      for (off_t at = 2; at < 12; ++at) EXPECT_EQ(pwrite(file, page.data(), 4096, at * 4096), 4096);
      close(file);
    });
  }
}

}  // namespace
