// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// helpers_fixture.h: the helpers over the scripted platform, with a keystore of PACs behind it.
#ifndef TESTS_UNIT_HELPERS_FIXTURE_H
#define TESTS_UNIT_HELPERS_FIXTURE_H

#include <functional>

#include "../pac/pac_fixture.h"
#include "ks_helpers.h"

namespace helpers {

using pac::Bytes;
using pac::bytes;
using pac::cache_key;
using pac::cache_value;
using pac::kInfo;
using pac::kOpaque;
using pac::operator+;
using scripted::Answer;
using scripted::Request;

// An opaque, an info and both, spelt out. The time is 0x65000000.
inline const Bytes kMetadata = kOpaque + kInfo;
inline const Bytes kNewOpaque = bytes("00 02 00 03 6e 65 77");

inline KshBytes view(const Bytes &content) {
  return {content.data(), content.size()};
}

inline Bytes copy(const KshBytes &view) {
  return Bytes(view.data, view.data + view.size);
}

// Keystore answers as a service does that has PACs alone, and notes each request's message.
class Keystore : public pac::Test {
 protected:
  Keystore() {
    mts.answer = [this](const Request &request) { return Answer{.payload = serve(request)}; };
    open_cache();
  }

  KsResult store(const Bytes &metadata) {
    return ksh_store_pac(aid.data(), aid.size(), "key", 3, metadata.data(), metadata.size());
  }
  bool is_cached() const { return sdb.entries.contains(cache_key(aid)); }

  // taken is what was handed out, which it frees.
  Bytes taken(KshBuffer *buffer) {
    const Bytes content = copy({buffer->data, buffer->size});
    ksh_free_buffer(buffer);
    EXPECT_EQ(buffer->data, nullptr);
    EXPECT_EQ(buffer->size, 0u);
    return content;
  }

  // Runs `call` with the first allocation failing, then the second and so on, and expects `refused` or what `allowed`
  // says each time; ends when all were met. Nothing may stay allocated.
  void expect_survives_each_failed_allocation(const std::function<KsResult()> &call,
                                              const std::function<void(KsResult)> &check) {
    constexpr int kMost = 64;
    for (int n = 1; n <= kMost; ++n) {
      SCOPED_TRACE("allocation " + std::to_string(n));
      const size_t before = allocations();
      heap.fail_nth(n);
      const KsResult result = call();
      heap.fail_nth(0);
      if (allocations() - before < static_cast<size_t>(n)) {
        EXPECT_EQ(result, KS_SUCCESS) << "no allocation failed";
        return;
      }
      check(result);
      EXPECT_EQ(heap.live(), std::vector<size_t>());
    }
    ADD_FAILURE() << "it allocates without end";
  }

  std::map<Bytes, Bytes> stored;  // metadata by A-ID
  KsResult store_answer = KS_SUCCESS;
  KsResult clear_answer = KS_SUCCESS;
  std::function<void(const Request &)> meanwhile;  // what another process does before an answer

  size_t messages() const { return mts.requests.size(); }

 private:
  size_t allocations() const { return events({"malloc", "calloc"}).size(); }

  Bytes serve(const Request &request) {
    if (meanwhile) meanwhile(request);
    if (request.op == KS_OP_HANDLE_BY_INDEX) {
      const size_t position = request.descriptor[0];
      if (position >= stored.size()) return scripted::result_only(KS_NO_MORE_ENTRIES);
      return scripted::reply(bytes("31 00 00 07") + std::next(stored.begin(), static_cast<long>(position))->first);
    }
    const Bytes &name = request.sections.at(0).content;
    const Bytes wanted(name.begin() + 4, name.end());
    if (request.op == KS_OP_STORE_PAC) {
      if (store_answer == KS_SUCCESS) stored[wanted] = request.sections.at(2).content;
      return scripted::result_only(store_answer);
    }
    const auto found = stored.find(wanted);
    if (found == stored.end()) return scripted::result_only(KS_NOT_FOUND);
    if (request.op == KS_OP_RETURN_METADATA) return scripted::reply(found->second);
    if (clear_answer == KS_SUCCESS) stored.erase(found);
    return scripted::result_only(clear_answer) + bytes("00 00");
  }
};

}  // namespace helpers

#endif
