// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "operations.h"

namespace contract {

using scripted::Bytes;
using scripted::bytes;

static const Flow kReplied = {"send", "recv", "drop sent", "drop received"};
static const Flow kNotSent = {"send"};
static const Flow kNotReceived = {"send", "recv", "drop sent"};

std::vector<Operation> device_operations() {
  static uint8_t random[4];
  static struct {
    uint16_t version;
    uint32_t status;
  } firmware;
  return {
      {.name = "ks_generate_random_number",
       .op = 66561,
       .call =
           [] {
             memset(random, 0xee, sizeof random);
             return ks_generate_random_number(random, 4, 0);
           },
       .outputs = [] { return Bytes(random, random + 4); },
       .good_reply = bytes("01 00 00 00 04 00 01 02 03 04"),
       .send_failure = 2,
       .recv_failure = 2,
       .send_text = "mts_send failed : 17\n",
       .recv_text = "mts_recv failed : 17\n",
       .success_flow = kReplied,
       .send_failure_flow = kNotSent,
       .recv_failure_flow = kNotReceived},
      {.name = "ks_return_fw_version_and_status",
       .op = 66593,
       .call =
           [] {
             memset(&firmware, 0xee, sizeof firmware);
             testing::internal::CaptureStderr();
             const KsResult result = ks_return_fw_version_and_status(&firmware.version, &firmware.status);
             testing::internal::GetCapturedStderr();
             return result;
           },
       .outputs =
           [] {
             const auto *at = reinterpret_cast<const uint8_t *>(&firmware);
             return Bytes(at, at + sizeof firmware);
           },
       .good_reply = bytes("01 00 00 00 03 00 02 01 00"),
       .send_failure = 2,
       .recv_failure = 2,
       .send_text = "mts_send failed : 17\n",
       .recv_text = "mts_recv failed : 17\n",
       .success_flow = kReplied,
       .send_failure_flow = kNotSent,
       .recv_failure_flow = kNotReceived},
      {.name = "ks_compact_fw_memory",
       .op = 66594,
       .call = [] { return ks_compact_fw_memory(); },
       .good_reply = bytes("01 00 00 00"),
       .send_failure = 2,
       .recv_failure = 2,
       .send_text = "mts_send failed : 17\n",
       .recv_text = "mts_recv failed : 17\n",
       .success_flow = kReplied,
       .send_failure_flow = kNotSent,
       .recv_failure_flow = kNotReceived},
  };
}

}  // namespace contract
