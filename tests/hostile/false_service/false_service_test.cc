// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// A service that answers more than was asked for, or says that it did.
#include <gtest/gtest.h>

#include "fake_service/fake_service.h"
#include "ks_api.h"

namespace {

class FalseService : public testing::Test {
 protected:
  FalseService() {
    service_.handler = [this](int socket, const FakeService::Request &request) {
      return FakeService::reply(socket, request, answer);
    };
    service_.start();
    setenv("KS_SOCKET", path().c_str(), 1);
    if (ks_init(0, 1, 0) != KS_SUCCESS) abort();
  }

  Octets answer;

 private:
  std::string path() const { return folder_.path() + "/s"; }

  TemporaryFolder folder_;
  FakeService service_{path()};
};

Octets success(uint8_t low, uint8_t high, size_t data) {
  Octets payload = {1, 0, 0, 0, low, high};
  payload.resize(payload.size() + data, 0xee);
  return payload;
}

TEST_F(FalseService, WritesNothingBehindTheRandomBytesAskedFor) {
  answer = success(255, 0, 255);
  uint8_t output[17] = {};
  EXPECT_EQ(ks_generate_random_number(output, 16, 0), KS_FAILURE);
  EXPECT_EQ(output[16], 0);
}

TEST_F(FalseService, WritesNothingBehindANewPasswordsBlock) {
  answer = success(0xff, 0xff, 65535);
  std::vector<uint8_t> output(517);
  const uint8_t password[] = "new";
  EXPECT_EQ(ks_NewPasswordEncryptedWithOldNtPasswordHash("old", password, 3, output.data()), KS_FAILURE);
  EXPECT_EQ(output, std::vector<uint8_t>(517));
}

TEST_F(FalseService, HandsOutNothingBehindItsReply) {
  answer = success(0xff, 0xff, 3);
  uint8_t *metadata = nullptr;
  uint16_t size = 0;
  EXPECT_EQ(ks_return_metadata("name", &metadata, &size), KS_FAILURE);
  uint16_t index = 0;
  char *name = nullptr;
  EXPECT_EQ(ks_return_secret_handle_by_index(&index, &name), KS_FW_COMM_ERROR);
  uint8_t output[16] = {};
  EXPECT_EQ(ks_aes_encrypt("name", output, output, 16), KS_FAILURE);
}

TEST_F(FalseService, HandsOutNoFlagThatIsntThere) {
  answer = {1, 0, 0, 0, 1, 0};
  uint32_t exists = 7;
  EXPECT_EQ(ks_secret_exists("name", &exists), KS_FW_COMM_ERROR);
  EXPECT_EQ(exists, 7U);
}

}  // namespace
