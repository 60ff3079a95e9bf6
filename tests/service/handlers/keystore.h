// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// keystore.h: a keystore for tests, of the real handlers over a store in memory. Requests go in as bytes that the tests
// spell out, each in a heap block of its exact size, so that a read past its end is found.
#ifndef TESTS_SERVICE_HANDLERS_KEYSTORE_H
#define TESTS_SERVICE_HANDLERS_KEYSTORE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <utility>

#include "base/secret_bytes.h"
#include "handlers/dispatch.h"
#include "handlers/service.h"
#include "published_vectors.h"

namespace ksd::handlers {

using published::ByteString;
using published::text;
using published::unhex;

inline ByteString operator+(ByteString a, const ByteString &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

inline ByteString part(const ByteString &whole, size_t from, size_t to) {
  return {whole.begin() + static_cast<ptrdiff_t>(from), whole.begin() + static_cast<ptrdiff_t>(to)};
}

// Fields of descriptors, as a little-endian processor has them.
inline ByteString u8(size_t value) {
  return {static_cast<uint8_t>(value)};
}
inline ByteString u16(size_t value) {
  return u8(value) + u8(value >> 8);
}
inline ByteString u32(size_t value) {
  return u16(value) + u16(value >> 16);
}

inline constexpr uint16_t kVdc = 7;

// secret_name and pac_name are names on the wire, in VDC 7.
inline ByteString secret_name(std::string_view name) {
  return unhex("30000007") + text(name);
}
inline ByteString pac_name(std::string_view name) {
  return unhex("31000007") + text(name);
}

class StoreInMemory : public vault::Store {
 public:
  std::optional<vault::Entry> find(const EntryName &name) const override {
    std::optional<vault::Entry> found;
    if (const auto at = entries_.find(key_of(name)); at != entries_.end()) found = at->second;
    if (after_find) std::exchange(after_find, nullptr)();
    return found;
  }
  bool exists(const EntryName &name) const override { return entries_.contains(key_of(name)); }
  std::optional<EntryName> at(uint16_t) const override { return std::nullopt; }
  size_t count() const override { return entries_.size(); }

  KsResult put(const EntryName &name, const std::optional<EntryName> &, Bytes secret, Bytes metadata, uid_t) override {
    if (put_result != KS_SUCCESS) return put_result;
    vault::Entry entry{.generation = ++last_generation_,
                       .secret = SecretBytes::copy_of(secret),
                       .metadata = std::make_shared<const ByteString>(metadata.begin(), metadata.end())};
    begin_epoch();
    const uint64_t before = std::exchange(entries_[key_of(name)], std::move(entry)).generation;
    if (before != 0) retired_(before);
    return KS_SUCCESS;
  }
  KsResult set_metadata(const EntryName &, Bytes) override { return KS_FAILURE; }
  KsResult remove(const EntryName &name) override {
    const auto at = entries_.find(key_of(name));
    if (at == entries_.end()) return KS_NOT_FOUND;
    const uint64_t generation = at->second.generation;
    begin_epoch();
    entries_.erase(at);
    retired_(generation);
    return KS_SUCCESS;
  }
  KsResult rename(const EntryName &from, const EntryName &to) override {
    auto moved = entries_.extract(key_of(from));
    if (!moved) return KS_NOT_FOUND;
    begin_epoch();
    moved.key() = key_of(to);
    entries_.insert(std::move(moved));
    return KS_SUCCESS;
  }
  void on_retired(std::function<void(uint64_t)> retired) override { retired_ = std::move(retired); }
  KsResult compact() override { return KS_SUCCESS; }
  Usage usage() const override { return {}; }

  KsResult put_result = KS_SUCCESS;          // what the next changes answer
  mutable std::function<void()> after_find;  // happens once, when a find has made up its mind

 private:
  using Key = std::pair<std::pair<uint8_t, uint16_t>, std::string>;
  static Key key_of(const EntryName &name) { return {{name.tag, name.vdc_id}, name.name}; }

  std::map<Key, vault::Entry> entries_;
  uint64_t last_generation_ = 0;
  std::function<void(uint64_t)> retired_ = [](uint64_t) {};
};

struct Answer {
  KsResult result = KS_FAILURE;
  ByteString data;
  size_t size = 0;  // of the whole reply

  friend bool operator==(const Answer &, const Answer &) = default;
  friend void PrintTo(const Answer &answer, std::ostream *out) {
    *out << "result " << answer.result << ", " << answer.size << " bytes, data " << testing::PrintToString(answer.data);
  }
};

inline Answer refusal(KsResult code) {
  return {.result = code, .data = {}, .size = 4};
}
inline Answer success(ByteString data) {
  const size_t size = 6 + data.size();
  return {.result = KS_SUCCESS, .data = std::move(data), .size = size};
}

class Keystore {
 public:
  // `usable` are the algorithms that passed their self-test.
  explicit Keystore(crypto::AlgorithmSet usable = crypto::AlgorithmSet().set())
      : Keystore(std::make_unique<StoreInMemory>(), usable) {
    caller.uid = 1000;
    caller.vdc_id = kVdc;
  }

  void keep_secret(const std::string &name, Bytes secret) {
    ASSERT_EQ(store->put({KS_NAME_TAG_SECRET, kVdc, name}, std::nullopt, secret, {}, 0), KS_SUCCESS);
  }
  void keep_pac(const std::string &name, Bytes key) {
    ASSERT_EQ(store->put({KS_NAME_TAG_PAC, kVdc, name}, std::nullopt, key, {}, 0), KS_SUCCESS);
  }

  Answer ask(uint32_t opcode, const ByteString &descriptor, const ByteString &sections) {
    const ByteString whole = descriptor + sections;
    const auto block = std::make_unique<uint8_t[]>(whole.size());
    std::copy(whole.begin(), whole.end(), block.get());
    const Request request{.opcode = opcode,
                          .message = {block.get(), whole.size()},
                          .descriptor_size = descriptor.size(),
                          .caller = caller};
    Reply reply;
    EXPECT_TRUE(dispatcher_.answer(service, request, reply)) << "no such message";
    return read(reply.payload());
  }

  Caller caller;
  Service service;
  StoreInMemory *const store;

 private:
  Keystore(std::unique_ptr<StoreInMemory> in_memory, crypto::AlgorithmSet usable)
      : service(std::move(in_memory), usable), store(static_cast<StoreInMemory *>(&service.store())) {}

  static Answer read(Bytes payload) {
    Answer answer;
    answer.size = payload.size();
    if (payload.size() < 4) return answer;
    std::memcpy(&answer.result, payload.data(), 4);
    if (answer.result != KS_SUCCESS || payload.size() < 6) return answer;
    const size_t length = static_cast<size_t>(payload[4] | payload[5] << 8);
    EXPECT_EQ(payload.size(), 6 + length) << "the length in the reply isn't its data's";
    answer.data.assign(payload.begin() + 6, payload.end());
    return answer;
  }

  Dispatcher dispatcher_;
};

// A request as its two parts, so that tests can damage it.
struct Asked {
  uint32_t opcode;
  ByteString descriptor;
  ByteString sections;

  Answer of(Keystore &keystore) const { return keystore.ask(opcode, descriptor, sections); }
};

// The requests of the messages, as a client makes them. Reserved bytes are what they happen to be: ee here.

inline Asked des(uint32_t opcode, const ByteString &name, const ByteString &data) {
  return {opcode, u8(name.size()) + u8(6) + u16(data.size()) + u16(name.size() + 6), name + data};
}

inline Asked hmac(uint32_t opcode, const ByteString &name, const ByteString &data) {
  return {opcode, u8(name.size()) + u8(6) + u16(data.size()) + u16(name.size() + 6), name + data};
}

inline Asked aes(uint32_t opcode, const ByteString &name, const ByteString &data) {
  return {opcode, u8(name.size()) + u8(8) + u16(data.size()) + u32(name.size() + 8), name + data};
}

inline Asked aes_cbc(uint32_t opcode, const ByteString &name, const ByteString &iv, const ByteString &data) {
  return {opcode,
          u8(name.size()) + u8(12) + u8(iv.size()) + u8(0xee) + u16(name.size() + 12) + u16(data.size()) +
              u32(name.size() + 12 + iv.size()),
          name + iv + data};
}

inline Asked hash(uint32_t opcode, const ByteString &name, const ByteString &first, const ByteString &second) {
  return {opcode,
          u8(name.size()) + u8(10) + u16(first.size()) + u16(name.size() + 10) + u16(second.size()) +
              u16(name.size() + 10 + first.size()),
          name + first + second};
}

inline Asked nt_response(const ByteString &name, const ByteString &authenticator, const ByteString &peer,
                         const ByteString &user_name) {
  const size_t w = name.size();
  return {KS_OP_GENERATE_NT_RESPONSE,
          u16(24) + u8(w) + u8(28) + u8(16) + unhex("eeeeee") + u32(w + 28) + u8(16) + unhex("eeeeee") + u32(w + 44) +
              u8(user_name.size()) + unhex("eeeeee") + u32(w + 60),
          name + authenticator + peer + user_name};
}

inline Asked authenticator_response(const ByteString &name, const ByteString &response, const ByteString &authenticator,
                                    const ByteString &peer, const ByteString &user_name) {
  const size_t w = name.size();
  const size_t u = user_name.size();
  return {KS_OP_GENERATE_AUTH_RESPONSE,
          u16(42) + u8(w) + u8(36) + u8(16) + unhex("eeeeee") + u32(w + 36) + u8(16) + unhex("eeeeee") + u32(w + 52) +
              u8(u) + unhex("eeeeee") + u32(w + 68) + u8(24) + unhex("eeeeee") + u32(w + 68 + u),
          name + authenticator + peer + user_name + response};
}

// A new password of 256 bytes gets a length of 0 here, as from the library.
inline Asked new_password(const ByteString &name, const ByteString &password) {
  return {KS_OP_NEW_PASSWORD_ENCRYPTED, u8(name.size()) + u8(8) + u8(password.size()) + u8(0xee) + u32(name.size() + 8),
          name + password};
}

inline Asked old_hash(const ByteString &new_name, const ByteString &old_name) {
  return {KS_OP_OLD_HASH_ENCRYPTED,
          u8(new_name.size()) + u8(8) + u8(old_name.size()) + u8(0xee) + u32(new_name.size() + 8), new_name + old_name};
}

inline Asked master_key(const ByteString &name, const ByteString &response) {
  return {KS_OP_GET_MASTER_KEY, u8(name.size()) + u8(6) + u8(response.size()) + u8(0xee) + u16(name.size() + 6),
          name + response};
}

inline Asked store_pac(const ByteString &name, const ByteString &key, const ByteString &metadata) {
  return {KS_OP_STORE_PAC,
          u8(name.size()) + u8(20) + unhex("eeee") + u32(key.size()) + u32(name.size() + 20) + u32(metadata.size()) +
              u32(name.size() + 20 + key.size()),
          name + key + metadata};
}

inline Asked pac_exists(const ByteString &name) {
  return {KS_OP_PAC_EXISTS, u8(name.size()) + u8(2), name};
}

inline Asked t_prf(const ByteString &name, const ByteString &label, const ByteString &random, size_t wanted) {
  const size_t random_offset = random.empty() ? 0 : name.size() + 20 + label.size();
  return {KS_OP_PAC_KEY_T_PRF,
          u16(wanted) + u8(name.size()) + u8(20) + u16(label.size()) + unhex("eeee") + u32(name.size() + 20) +
              u16(random.size()) + unhex("eeee") + u32(random_offset),
          name + label + random};
}

}  // namespace ksd::handlers

#endif
