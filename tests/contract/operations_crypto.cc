// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "operations.h"

namespace contract {

using scripted::Bytes;
using scripted::bytes;
using scripted::operator+;

namespace {

uint8_t output[64];
uint8_t iv[16];
const uint8_t data[64] = {};

// good calls an operation with its outputs filled anew.
template <typename Call>
std::function<KsResult()> good(Call call) {
  return [call] {
    memset(output, 0xee, sizeof output);
    memset(iv, 0xee, sizeof iv);
    testing::internal::CaptureStderr();
    const KsResult result = call();
    testing::internal::GetCapturedStderr();
    return result;
  };
}

// usual is a row with all that these operations have in common: two or more sections of which the name is ours.
Operation usual(const std::string &name, uint32_t op, const std::string &list, std::function<KsResult()> call,
                const Bytes &good_reply) {
  return {.name = name,
          .op = op,
          .call = std::move(call),
          .outputs = [] { return Bytes(output, output + sizeof output) + Bytes(iv, iv + sizeof iv); },
          .good_reply = good_reply,
          .send_failure = 2,
          .recv_failure = 2,
          .send_text = "mts_send failed : 17\n",
          .recv_text = "mts_recv failed : 17\n",
          .success_flow = {"calloc " + list, "calloc 35", "send", "recv", "free 35", "free " + list, "drop sent",
                           "drop received"},
          .send_failure_flow = {"calloc " + list, "calloc 35", "send", "free 35", "free " + list},
          .recv_failure_flow = {"calloc " + list, "calloc 35", "send", "recv", "drop sent", "free 35", "free " + list},
          .no_memory = {{.result = 4, .flow = {"calloc " + list}},
                        {.result = 4, .flow = {"calloc " + list, "calloc 35", "free " + list}}}};
}

Operation des(const std::string &name, uint32_t op,
              KsResult (*run)(const char *, const uint8_t *, uint16_t, uint8_t *, uint16_t)) {
  return usual(name, op, "list[2]", good([run] { return run("k1", data, 8, output, 8); }),
               bytes("01 00 00 00 08 00") + Bytes(8));
}

Operation aes(const std::string &name, uint32_t op,
              KsResult (*run)(const char *, const uint8_t *, uint8_t *, uint16_t)) {
  return usual(name, op, "list[2]", good([run] { return run("k1", data, output, 16); }),
               bytes("01 00 00 00 10 00") + Bytes(16));
}

Operation cbc(const std::string &name, uint32_t op,
              KsResult (*run)(const char *, uint8_t *, const uint8_t *, uint16_t, uint8_t *)) {
  return usual(name, op, "list[3]", good([run] { return run("k1", iv, data, 16, output); }),
               bytes("01 00 00 00 20 00") + Bytes(32));
}

// The digests keep a name of exactly its length, 6 bytes here.
Operation hash(const std::string &name, uint32_t op,
               KsResult (*run)(const char *, const uint8_t *, uint16_t, const uint8_t *, uint16_t, uint8_t *),
               const Bytes &good_reply, const NoMemory &without_name) {
  Operation row = usual(name, op, "list[3]", good([run] { return run("k1", data, 2, data, 3, output); }), good_reply);
  row.success_flow = {"calloc list[3]", "calloc 6", "send", "recv", "free list[3]", "drop sent", "drop received"};
  row.send_failure_flow = {"calloc list[3]", "calloc 6", "send", "free list[3]"};
  row.recv_failure_flow = {"calloc list[3]", "calloc 6", "send", "recv", "drop sent", "free list[3]"};
  row.no_memory = {{.result = 4, .flow = {"calloc list[3]"}}, without_name};
  row.leaked = row.leaked_on_send_failure = row.leaked_on_recv_failure = {"calloc 6"};
  return row;
}

Operation hmac_md5() {
  Operation row = usual("ks_hmac_md5", 66581, "list[2]", good([] { return ks_hmac_md5("k1", data, 3, output); }),
                        bytes("01 00 00 00 10 00") + Bytes(16));
  row.send_failure_flow = {"calloc list[2]", "calloc 35", "send", "free list[2]"};
  row.leaked_on_send_failure = {"calloc 35"};
  return row;
}

Operation old_hash() {
  Operation row = usual("ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash", 66575, "list[2]",
                        good([] { return ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash("k1", "k2", output); }),
                        bytes("01 00 00 00 10 00") + Bytes(16));
  row.success_flow = {"calloc list[2]", "calloc 35", "calloc 35",    "send",      "recv",
                      "free 35",        "free 35",   "free list[2]", "drop sent", "drop received"};
  row.send_failure_flow = {"calloc list[2]", "calloc 35", "calloc 35", "send", "free 35", "free 35", "free list[2]"};
  row.recv_failure_flow = {"calloc list[2]", "calloc 35", "calloc 35", "send",        "recv",
                           "drop sent",      "free 35",   "free 35",   "free list[2]"};
  row.no_memory = {
      {.result = 4, .flow = {"calloc list[2]"}},
      {.result = 2, .flow = {"calloc list[2]", "calloc 35", "free list[2]"}},
      {.result = 2, .flow = {"calloc list[2]", "calloc 35", "calloc 35", "free 35", "free list[2]"}},
  };
  return row;
}

}  // namespace

std::vector<Operation> crypto_operations() {
  const Bytes reply_16 = bytes("01 00 00 00 10 00") + Bytes(16);
  const Bytes reply_20 = bytes("01 00 00 00 14 00") + Bytes(20);
  const Bytes reply_24 = bytes("01 00 00 00 18 00") + Bytes(24);
  const Bytes reply_42 = bytes("01 00 00 00 2a 00") + Bytes(42);
  return {
      des("ks_des_ecb_encrypt", 66585, ks_des_ecb_encrypt),
      des("ks_des_ecb_decrypt", 66586, ks_des_ecb_decrypt),
      des("ks_3des_ecb_encrypt", 66587, ks_3des_ecb_encrypt),
      des("ks_3des_ecb_decrypt", 66588, ks_3des_ecb_decrypt),
      aes("ks_aes_encrypt", 66577, ks_aes_encrypt),
      aes("ks_aes_decrypt", 66578, ks_aes_decrypt),
      cbc("ks_aes_cbc_encrypt", 66579, ks_aes_cbc_encrypt),
      cbc("ks_aes_cbc_decrypt", 66580, ks_aes_cbc_decrypt),
      hash("ks_md5_hash", 66583, ks_md5_hash, reply_16,
           {.result = 4, .flow = {"calloc list[3]", "calloc 6", "free list[3]"}}),
      // Sent without a name, and answered well all the same.
      hash("ks_sha1_hash", 66584, ks_sha1_hash, reply_20,
           {.result = 1,
            .flow = {"calloc list[3]", "calloc 6", "send", "recv", "free list[3]", "drop sent", "drop received"},
            .outputs = Bytes(20) + Bytes(60, 0xee)}),
      hmac_md5(),
      usual("ks_hmac_sha1", 66582, "list[2]", good([] { return ks_hmac_sha1("k1", data, 3, output); }), reply_20),
      usual("ks_hmac_sha1_for_pac", 66582, "list[2]",
            good([] { return ks_hmac_sha1_for_pac(data, 2, data, 3, output); }), reply_20),
      usual("ks_GenerateNTResponse", 66572, "list[4]",
            good([] { return ks_GenerateNTResponse("k1", data, data, "User", output); }), reply_24),
      usual("ks_GenerateAuthenticatorResponse", 66573, "list[5]",
            good([] { return ks_GenerateAuthenticatorResponse("k1", data, data, data, "User", output); }), reply_42),
      usual("ks_NewPasswordEncryptedWithOldNtPasswordHash", 66574, "list[2]",
            good([] { return ks_NewPasswordEncryptedWithOldNtPasswordHash("k1", data, 3, output); }), reply_24),
      old_hash(),
      usual("ks_GetMasterKey", 66576, "list[2]", good([] { return ks_GetMasterKey("k1", data, output); }), reply_16),
  };
}

}  // namespace contract
