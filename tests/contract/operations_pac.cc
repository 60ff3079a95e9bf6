// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "operations.h"

namespace contract {

using scripted::Bytes;
using scripted::bytes;
using scripted::operator+;
namespace {

const uint8_t kAid[] = {0xa1, 0x00, 0xa3};
const uint8_t kKey[] = {0x4b};
const uint8_t kOpaque[] = {0, 2, 0, 3, 'o', 'p', 'q'};
const uint8_t kInfo[] = {0, 9, 0, 4, 0, 7, 0, 0};
const uint8_t kLabel[] = {'l'};
const uint8_t kRandom[] = {'r'};

struct {
  uint8_t *block;
  uint32_t len;
  uint16_t short_len;
  uint32_t exists;
  uint16_t index;
  uint8_t bytes[4];
} out;

// fresh fills the outputs, and makes sure that no cache can be opened.
void fresh() {
  memset(&out, 0xee, sizeof out);
  scripted::platform().sdb.open_codes = {0x411a0011};
}

template <typename T>
Bytes raw(const T &object) {
  const auto *at = reinterpret_cast<const uint8_t *>(&object);
  return Bytes(at, at + sizeof object);
}

Bytes block_and_len() {
  return raw(out.len) + raw(out.block);
}

// null_block is what block_and_len gives when the pointer alone was handed out, and is null.
Bytes null_block() {
  return Bytes(sizeof out.len, 0xee) + Bytes(sizeof out.block);
}

Bytes aid_outputs() {
  return raw(out.short_len) + raw(out.block);
}

void release_block() {
  const Bytes untouched(sizeof out.block, 0xee);
  if (raw(out.block) != untouched) scripted::platform().heap.release(out.block);
}

// What comes of a cache that is not there, between an operation's entry and its request.
Flow reported_without_cache(const std::string &operation, bool reports_entry, const Flow &absent) {
  Flow all;
  if (reports_entry) all.push_back(operation + "(#)\n");
  const std::string uri = "lmdb:///tmp/sksd_ks_cache_data";
  const Flow opening = {"is_cache_present(#):ks_cache_present = 0.",
                        "ks_sdb_init(#):Opening uri for caching (" + uri + ") with flags: 0x4.\n",
                        "ks_sdb_init(#):Opening uri for caching: " + uri + ". Retry count: 0.\n",
                        "ks_sdb_init(#):SDB open failed. (text of 0x411a0011).\n"};
  all.insert(all.end(), opening.begin(), opening.end());
  for (const std::string &text : absent) all.push_back(operation + text);
  return all;
}

const std::string kAbsent = "(#):Cache absent. Using smartcard.";

}  // namespace

std::vector<Operation> pac_operations() {
  return {
      {.name = "ks_store_pac",
       .op = 66569,
       .call = [] { return ks_store_pac(kAid, 3, kKey, 1, kOpaque, 7, kInfo, 8); },
       .good_reply = bytes("01 00 00 00"),
       .send_failure = 2,
       .recv_failure = 2,
       .send_text = "mts_send failed. Error:17\n",
       .recv_text = "mts_recv failed. Error:17\n",
       .success_flow = {"calloc list[3]", "calloc 35", "calloc 15", "send", "recv", "free 35", "free 15",
                        "free list[3]", "drop sent", "drop received"},
       .send_failure_flow = {"calloc list[3]", "calloc 35", "calloc 15", "send", "free 35", "free 15", "free list[3]"},
       .recv_failure_flow = {"calloc list[3]", "calloc 35", "calloc 15", "send", "recv", "drop sent", "free 35",
                             "free 15", "free list[3]"},
       .no_memory = {{.result = 4, .flow = {"calloc list[3]"}},
                     {.result = 4, .flow = {"calloc list[3]", "calloc 35", "free list[3]"}},
                     {.result = 4, .flow = {"calloc list[3]", "calloc 35", "calloc 15", "free 35", "free list[3]"}}},
       .entry_reports = {"ks_store_pac(#)\n"}},
      {.name = "ks_return_pac_opaque",
       .op = 66567,
       .call =
           [] {
             fresh();
             return ks_return_pac_opaque(kAid, 3, &out.block, &out.len);
           },
       .outputs = block_and_len,
       .cleanup = release_block,
       .good_reply = bytes("01 00 00 00  0f 00  00 02 00 03 6f 70 71  00 09 00 04 00 07 00 00"),
       .send_failure = 12,
       .recv_failure = 2,
       .send_text = "mts_send failed. Error:17\n",
       .recv_text = "mts_recv failed. Error:17\n",
       .success_flow = {"calloc list[1]", "send", "recv", "calloc 15", "malloc 7", "free list[1]", "free 15",
                        "drop sent", "drop received"},
       .send_failure_flow = {"calloc list[1]", "send", "free list[1]"},
       .recv_failure_flow = {"calloc list[1]", "send", "recv", "drop sent", "free list[1]"},
       .no_memory = {{.result = 4, .flow = {"calloc list[1]"}},
                     {.result = 4,
                      .flow = {"calloc list[1]", "send", "recv", "calloc 15", "free list[1]", "drop sent",
                               "drop received"}},
                     {.result = 4,
                      .flow = {"calloc list[1]", "send", "recv", "calloc 15", "malloc 7", "free 15", "free list[1]",
                               "drop sent", "drop received"},
                      .outputs = null_block()}},
       .entry_reports = reported_without_cache("ks_return_pac_opaque", true, {kAbsent, kAbsent + "\n"})},
      {.name = "ks_return_pac_info",
       .op = 66567,
       .call =
           [] {
             fresh();
             return ks_return_pac_info(kAid, 3, &out.block, &out.len);
           },
       .outputs = block_and_len,
       .cleanup = release_block,
       .good_reply = bytes("01 00 00 00  11 00  00 02 00 03 6f 70 71  00 09 00 06 00 07 00 02 77 78"),
       .send_failure = 12,
       .recv_failure = 2,
       .send_text = "mts_send failed. Error:17\n",
       .recv_text = "mts_recv failed. Error:17\n",
       .success_flow = {"calloc list[1]", "calloc 35", "send", "recv", "calloc 17", "malloc 10", "free 35",
                        "free list[1]", "free 17", "drop sent", "drop received"},
       .send_failure_flow = {"calloc list[1]", "calloc 35", "send", "free 35", "free list[1]"},
       .recv_failure_flow = {"calloc list[1]", "calloc 35", "send", "recv", "drop sent", "free 35", "free list[1]"},
       .no_memory = {{.result = 4, .flow = {"calloc list[1]"}},
                     {.result = 4, .flow = {"calloc list[1]", "calloc 35", "free list[1]"}},
                     {.result = 4,
                      .flow = {"calloc list[1]", "calloc 35", "send", "recv", "calloc 17", "free 35", "free list[1]",
                               "drop sent", "drop received"}},
                     {.result = 4,
                      .flow = {"calloc list[1]", "calloc 35", "send", "recv", "calloc 17", "malloc 10", "free 17",
                               "free 35", "free list[1]", "drop sent", "drop received"},
                      .outputs = null_block()}},
       .entry_reports = reported_without_cache("ks_return_pac_info", true, {kAbsent})},
      {.name = "ks_pac_exists",
       .op = 66570,
       .call =
           [] {
             fresh();
             return ks_pac_exists(kAid, 3, &out.exists);
           },
       .outputs = [] { return raw(out.exists); },
       .good_reply = bytes("01 00 00 00  01 00  01"),
       .send_failure = 12,
       .recv_failure = 12,
       .send_text = "mts_send failed. Error:17\n",
       .recv_text = "mts_recv failed. Error:17\n",
       .success_flow = {"calloc list[1]", "calloc 35", "send", "recv", "free 35", "free list[1]", "drop sent",
                        "drop received"},
       .send_failure_flow = {"calloc list[1]", "calloc 35", "send", "free 35", "free list[1]"},
       .recv_failure_flow = {"calloc list[1]", "calloc 35", "send", "recv", "drop sent", "free 35", "free list[1]"},
       .no_memory = {{.result = 4, .flow = {"calloc list[1]"}},
                     {.result = 4, .flow = {"calloc list[1]", "calloc 35", "free list[1]"}}},
       .entry_reports = reported_without_cache("ks_pac_exists", true, {kAbsent, kAbsent + "\n"})},
      {.name = "ks_return_aid_by_index",
       .op = 66566,
       .call =
           [] {
             fresh();
             out.index = 0;
             return ks_return_aid_by_index(&out.index, &out.block, &out.short_len);
           },
       .outputs = aid_outputs,
       .cleanup = release_block,
       .good_reply = bytes("01 00 00 00  07 00  31 00 00 07 a1 00 a3"),
       .send_failure = 2,
       .recv_failure = 2,
       .send_text = "mts_send failed. Error:17\n",
       .recv_text = "mts_recv failed. Error:17\n",
       .success_flow = {"send", "recv", "calloc 7", "drop sent", "drop received"},
       .send_failure_flow = {"send"},
       .recv_failure_flow = {"send", "recv", "drop sent"},
       .no_memory = {{.result = 4,
                      .flow = {"send", "recv", "calloc 7", "drop sent", "drop received"},
                      .reports = {"ks_return_secret_handle_by_index_resp: Ret :1 len:7 \n"}}},
       .entry_reports = {"ks_return_aid_by_index(#)\n"}},
      {.name = "ks_clear_pac",
       .op = 66564,
       .call = [] { return ks_clear_pac(kAid, 3); },
       .good_reply = bytes("01 00 00 00 00 00"),
       .send_failure = 2,
       .recv_failure = 2,
       .send_text = "mts_send failed. Error:17\n",
       .recv_text = "mts_recv failed. Error:17\n",
       .success_flow = {"calloc list[1]", "calloc 35", "send", "recv", "free 35", "free list[1]", "drop sent",
                        "drop received"},
       .send_failure_flow = {"calloc list[1]", "calloc 35", "send", "free 35", "free list[1]"},
       .recv_failure_flow = {"calloc list[1]", "calloc 35", "send", "recv", "drop sent", "free 35", "free list[1]"},
       .no_memory = {{.result = 2, .flow = {"calloc list[1]"}},
                     {.result = 4, .flow = {"calloc list[1]", "calloc 35", "free list[1]"}}},
       .entry_reports = {"ks_clear_pac(#):\n"}},
      {.name = "ks_pac_key_t_prf",
       .op = 66571,
       .call =
           [] {
             fresh();
             return ks_pac_key_t_prf(kAid, 3, kLabel, 1, kRandom, 1, out.bytes, 4);
           },
       .outputs = [] { return raw(out.bytes); },
       .good_reply = bytes("01 00 00 00  04 00  01 02 03 04"),
       .send_failure = 2,
       .recv_failure = 2,
       .send_text = "mts_send failed : 17\n",
       .recv_text = "mts_recv failed : 17\n",
       .success_flow = {"calloc list[3]", "calloc 7", "send", "recv", "free 7", "free list[3]", "drop sent",
                        "drop received"},
       .send_failure_flow = {"calloc list[3]", "calloc 7", "send", "free 7", "free list[3]"},
       .recv_failure_flow = {"calloc list[3]", "calloc 7", "send", "recv", "drop sent", "free 7", "free list[3]"},
       .no_memory = {{.result = 4, .flow = {"calloc list[3]"}, .reports = {"Calloc Failed"}},
                     {.result = 4, .flow = {"calloc list[3]", "calloc 7", "free list[3]"}}},
       .entry_reports = reported_without_cache("ks_pac_key_t_prf", false, {kAbsent})},
  };
}

}  // namespace contract
