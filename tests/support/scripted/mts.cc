// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// libmts: requests are kept, replies come from the script.
#include "scripted.h"

namespace scripted {

Bytes Request::message() const {
  Bytes all = descriptor;
  for (const Section &section : sections) all = all + section.content;
  return all;
}

const Request &Mts::request(size_t index) const {
  static const Request none;
  if (index < requests.size()) return requests[index];
  ADD_FAILURE() << "request " << index << " was never sent";
  return none;
}

int Mts::undropped() const {
  int count = 0;
  for (const auto &[id, drops] : live) count += drops;
  return count;
}

// A message's 25 bytes hold its number, odd for sent and even for received, and a pattern to recognise it by.
static void fill_message(KsMtsMessage *message, uint32_t id) {
  std::memset(message->bytes, 0xc7, sizeof message->bytes);
  std::memcpy(message->bytes, &id, sizeof id);
}

uint32_t message_id(const KsMtsMessage *message) {
  uint32_t id;
  std::memcpy(&id, message->bytes, sizeof id);
  return id;
}

const char *kind_of(uint32_t id) {
  return id % 2 == 1 ? "sent" : "received";
}

// The options must be zero but for the words that are set.
template <typename Options>
static void expect_zero_but(Options options, const std::function<void(Options &)> &clear) {
  clear(options);
  Options zero = {};
  EXPECT_EQ(std::memcmp(&options, &zero, sizeof zero), 0) << "a reserved word of the options is not 0";
}

}  // namespace scripted

using namespace scripted;

uint32_t mts_bind(uint32_t mode, uint32_t first, const KsBindTemplate *bind, uint32_t third) {
  note("mts_bind");
  platform().mts.binds.push_back(
      {mode, first, bind->word0, bind->word1, bind->word2, bind->app_uuid, bind->word4, bind->word5, third});
  if (platform().mts.bind_errno) {
    platform().mts.last_errno = *platform().mts.bind_errno;
    return MTS_FAILED;
  }
  return platform().mts.bind_result;
}

uint32_t mts_send(uint32_t queue, uint32_t node, uint32_t sap, uint32_t opcode, const void *descriptor,
                  uint32_t descriptor_size, KsMtsMessage *sent, uint32_t flags, const KsSendOptions *options) {
  Mts &mts = platform().mts;
  note("send");
  EXPECT_EQ(node, 0xfe000000u);
  EXPECT_EQ(sap, 11u);
  EXPECT_EQ(flags, 0u);

  Request request{.queue = queue, .op = opcode, .has_descriptor = descriptor != nullptr};
  if (descriptor != nullptr) {
    request.descriptor.resize(descriptor_size);
    std::memcpy(request.descriptor.data(), descriptor, descriptor_size);
  } else {
    EXPECT_EQ(descriptor_size, 0u);
  }
  if (options != nullptr) {
    request.has_options = true;
    EXPECT_EQ(options->select, 1u);
    expect_zero_but<KsSendOptions>(*options, [](KsSendOptions &o) {
      o.select = 0;
      o.sections = nullptr;
      o.section_count = 0;
    });
    for (uint32_t i = 0; i < options->section_count; ++i) {
      const KsSection &section = options->sections[i];
      const auto *at = static_cast<const uint8_t *>(section.data);
      request.sections.push_back(
          {section.data, section.length, at == nullptr ? Bytes() : Bytes(at, at + section.length)});
    }
  }
  mts.requests.push_back(std::move(request));

  if (mts.script.empty() && mts.answer) mts.script.push_back(mts.answer(mts.requests.back()));
  if (mts.script.empty()) {
    ADD_FAILURE() << "a request that the script doesn't expect";
    return MTS_FAILED;
  }
  if (mts.script.front().send_errno || queue == MTS_FAILED) {
    mts.last_errno = mts.script.front().send_errno.value_or(EBADF);
    mts.script.pop_front();
    return MTS_FAILED;
  }
  const uint32_t id = static_cast<uint32_t>(mts.requests.size()) * 2 - 1;
  fill_message(sent, id);
  mts.live[id] = 1;
  return 0;
}

uint32_t mts_rr_token_get(const KsMtsMessage *sent) {
  EXPECT_EQ(message_id(sent), platform().mts.requests.size() * 2 - 1) << "token of what was not just sent";
  return message_id(sent) + 0x70000;
}

uint32_t mts_recv(uint32_t queue, KsMtsMessage *received, const KsRecvOptions *options) {
  Mts &mts = platform().mts;
  note("recv");
  const uint32_t sent_id = static_cast<uint32_t>(mts.requests.size()) * 2 - 1;
  EXPECT_EQ(queue, ks_mts_q);
  EXPECT_EQ(options->select, 1u);
  EXPECT_EQ(options->token, sent_id + 0x70000) << "not the token of the request";
  expect_zero_but<KsRecvOptions>(*options, [](KsRecvOptions &o) { o.select = o.token = 0; });

  const Answer answer = mts.script.front();
  mts.script.pop_front();
  if (answer.recv_errno) {
    mts.last_errno = *answer.recv_errno;
    return MTS_FAILED;
  }
  const uint32_t id = sent_id + 1;
  fill_message(received, id);
  mts.live[id] = 1;
  mts.payloads[id] = std::make_unique<Guarded>(answer.payload);
  mts.sizes[id] = answer.size.value_or(static_cast<uint32_t>(answer.payload.size()));
  return 0;
}

const void *mts_payload_get(const KsMtsMessage *received) {
  return platform().mts.payloads.at(message_id(received))->data();
}

uint32_t mts_payload_size(const KsMtsMessage *received) {
  note("size");
  ++platform().mts.size_calls;
  return platform().mts.sizes.at(message_id(received));
}

void mts_drop(uint32_t queue, KsMtsMessage *message) {
  Mts &mts = platform().mts;
  const uint32_t id = message_id(message);
  note(std::string("drop ") + kind_of(id));
  EXPECT_EQ(queue, ks_mts_q);
  EXPECT_EQ(mts.live[id], 1) << "drop of a message that doesn't exist";
  --mts.live[id];
  if (const auto payload = mts.payloads.find(id); payload != mts.payloads.end()) payload->second->forbid();
}

uint32_t mts_errno_get(uint32_t queue) {
  note("errno");
  EXPECT_EQ(queue, ks_mts_q);
  ++platform().mts.errno_calls;
  return platform().mts.last_errno;
}
