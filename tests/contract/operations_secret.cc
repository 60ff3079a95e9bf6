// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "operations.h"

namespace contract {

using scripted::Bytes;
using scripted::bytes;
using scripted::operator+;

namespace {

struct {
  uint8_t *block;
  char *name;
  uint32_t exists;
  uint16_t len;
  uint16_t index;
} out;
KsResult last;

// good calls an operation with its outputs filled anew.
template <typename Call>
std::function<KsResult()> good(Call call) {
  return [call] {
    memset(&out, 0xee, sizeof out);
    return last = call();
  };
}

Bytes outputs() {
  const auto *at = reinterpret_cast<const uint8_t *>(&out);
  return Bytes(at, at + sizeof out);
}

constexpr char kFailedCapital[] = "Memory Allocation Failed \n";
constexpr char kFailed[] = "Memory Allocation failed \n";

// usual is a row with the releases that most have in common: a list of one section, the name.
Operation usual(const std::string &name, uint32_t op, const std::string &list, std::function<KsResult()> call,
                const Bytes &good_reply, const std::string &no_list = kFailed) {
  return {.name = name,
          .op = op,
          .call = std::move(call),
          .outputs = outputs,
          .good_reply = good_reply,
          .send_failure = 12,
          .recv_failure = 12,
          .send_text = "mts_send failed Error :17 \n",
          .recv_text = "mts_recv failed Error :17 \n",
          .success_flow = {"calloc " + list, "calloc 35", "send", "recv", "free 35", "free " + list, "drop sent",
                           "drop received"},
          .send_failure_flow = {"calloc " + list, "calloc 35", "send", "free 35", "free " + list},
          .recv_failure_flow = {"calloc " + list, "calloc 35", "send", "recv", "drop sent", "free 35", "free " + list},
          .no_memory = {{.result = 4, .flow = {"calloc " + list}, .reports = {no_list}},
                        {.result = 4, .flow = {"calloc " + list, "calloc 35", "free " + list}}}};
}

Operation store_secret() {
  Operation row =
      usual("ks_store_secret_and_metadata", 66562, "list[2]",
            good([] { return ks_store_secret_and_metadata("k1", nullptr, &bytes("0a")[0], 1, nullptr, 0); }),
            bytes("01 00 00 00"));
  row.send_failure = row.recv_failure = 2;
  row.send_text = "mts_send failed :17 \n";
  row.recv_text = "";
  // The second name's buffer is made and, without a linked name, freed at once.
  for (Flow *flow : {&row.success_flow, &row.send_failure_flow, &row.recv_failure_flow}) {
    flow->insert(flow->begin() + 2, {"calloc 35", "free 35"});
  }
  row.no_memory = {
      {.result = 4, .flow = {"calloc list[2]"}, .reports = {"Memory Allocation Failed\n"}},
      {.result = 4, .flow = {"calloc list[2]", "calloc 35", "free list[2]"}},
      {.result = 4, .flow = {"calloc list[2]", "calloc 35", "calloc 35", "free 35", "free list[2]"}},
  };
  return row;
}

Operation add_metadata() {
  Operation row = usual("ks_add_metadata", 66563, "list[2]", good([] { return ks_add_metadata("k1", nullptr, 0); }),
                        bytes("01 00 00 00"), kFailedCapital);
  row.send_text = "mts_send failed. Errno :17 \n";
  row.recv_text = "mts_recv failed. Errno :17 \n";
  return row;
}

Operation return_metadata() {
  Operation row =
      usual("ks_return_metadata", 66567, "list[1]", good([] { return ks_return_metadata("k1", &out.block, &out.len); }),
            bytes("01 00 00 00 02 00 e0 e1"));
  row.cleanup = [] {
    if (last == KS_SUCCESS) scripted::platform().heap.release(out.block);
  };
  row.send_failure = row.recv_failure = 2;
  row.send_text = "mts_send failed.Error:17 \n";
  row.recv_text = "mts_recv failed. Error:17 \n";
  row.success_flow.insert(row.success_flow.begin() + 4, "calloc 2");
  row.recv_failure_flow = {"calloc list[1]", "calloc 35", "send", "recv", "free 35", "free list[1]", "drop sent"};
  // The pointer is handed out, null as it is, and the length isn't.
  row.no_memory.push_back({.result = 4,
                           .flow = {"calloc list[1]", "calloc 35", "send", "recv", "calloc 2", "free 35",
                                    "free list[1]", "drop sent", "drop received"},
                           .outputs = Bytes(sizeof out.block) + Bytes(sizeof out - sizeof out.block, 0xee)});
  return row;
}

Operation by_index() {
  return {.name = "ks_return_secret_handle_by_index",
          .op = 66566,
          .call = good([] { return ks_return_secret_handle_by_index(&out.index, &out.name); }),
          .outputs = outputs,
          .cleanup =
              [] {
                if (last == KS_SUCCESS) scripted::platform().heap.release(out.name);
              },
          .good_reply = bytes("01 00 00 00 05 00 30 00 00 07 61"),
          .send_failure = 12,
          .recv_failure = 12,
          .send_text = "mts_send failed. Error :17 \n",
          .recv_text = "mts_recv failed. Error :17 \n",
          .success_flow = {"send", "recv", "calloc 5", "drop sent", "drop received"},
          .send_failure_flow = {"send"},
          .recv_failure_flow = {"send", "recv", "drop sent"},
          .no_memory = {{.result = 4,
                         .flow = {"send", "recv", "calloc 5", "drop sent", "drop received"},
                         .reports = {"ks_return_secret_handle_by_index_resp: Ret :1 len:5 \n"}}}};
}

Operation rename_secret() {
  Operation row = usual("ks_rename_secret", 66568, "list[2]", good([] { return ks_rename_secret("a", "b", nullptr); }),
                        bytes("01 00 00 00"));
  row.send_failure = row.recv_failure = 2;
  row.send_text = "mts_send failed. Error:17\n";
  row.recv_text = "mts_recv failed. Error:17\n";
  row.success_flow = {"calloc list[2]", "calloc 35", "calloc 35",    "send",      "recv",
                      "free 35",        "free 35",   "free list[2]", "drop sent", "drop received"};
  row.send_failure_flow = {"calloc list[2]", "calloc 35", "calloc 35", "send", "free 35", "free 35", "free list[2]"};
  row.recv_failure_flow = {"calloc list[2]", "calloc 35", "calloc 35", "send",        "recv",
                           "drop sent",      "free 35",   "free 35",   "free list[2]"};
  // It is sent without names, and answered well all the same.
  row.no_memory = {
      {.result = 2, .flow = {"calloc list[2]"}, .reports = {kFailed}},
      {.result = 1,
       .flow = {"calloc list[2]", "calloc 35", "send", "recv", "free list[2]", "drop sent", "drop received"}},
      {.result = 1,
       .flow = {"calloc list[2]", "calloc 35", "calloc 35", "free 35", "send", "recv", "free list[2]", "drop sent",
                "drop received"}},
  };
  return row;
}

}  // namespace

std::vector<Operation> secret_operations() {
  return {store_secret(),
          add_metadata(),
          return_metadata(),
          by_index(),
          usual("ks_secret_exists", 66565, "list[1]", good([] { return ks_secret_exists("k1", &out.exists); }),
                bytes("01 00 00 00 01 00 01")),
          usual("ks_clear_secret", 66564, "list[1]", good([] { return ks_clear_secret("k1"); }),
                bytes("01 00 00 00 00 00")),
          rename_secret()};
}

}  // namespace contract
