// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// pac_fixture.h: what the tests of PAC operations have in common.
#ifndef TESTS_UNIT_PAC_FIXTURE_H
#define TESTS_UNIT_PAC_FIXTURE_H

#include <algorithm>
#include <csignal>

#include "scripted.h"

// EXPECT_FAULT expects the statement to touch memory that isn't there. Sanitizers end the process in a way of their
// own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define EXPECT_FAULT(statement) EXPECT_DEATH(statement, "")
#else
#define EXPECT_FAULT(statement) EXPECT_EXIT(statement, testing::KilledBySignal(SIGSEGV), "")
#endif

namespace pac {

using scripted::Bytes;
using scripted::bytes;
using scripted::operator+;
using Flow = std::vector<std::string>;

// cache_key spells out the key of the PAC `aid` in VDC 7.
inline Bytes cache_key(const Bytes &aid) {
  Bytes key = bytes("01 00 00 00  31 00 00 07") + aid;
  key.resize(39);
  return key;
}

inline Bytes le16(size_t n) {
  return {static_cast<uint8_t>(n), static_cast<uint8_t>(n >> 8)};
}
inline Bytes le32(size_t n) {
  return le16(n & 0xffff) + le16(n >> 16);
}

// cache_value spells out an entry without a T-PRF result.
inline Bytes cache_value(const Bytes &metadata) {
  return le32(metadata.size()) + Bytes(18) + metadata;
}

// cache_value_with spells out one with a T-PRF result.
inline Bytes cache_value_with(const Bytes &metadata, const Bytes &label, const Bytes &random, const Bytes &output) {
  const size_t label_off = metadata.size(), random_off = label_off + label.size();
  return le32(metadata.size()) + le32(label_off) + le16(label.size()) + le32(random.empty() ? 0 : random_off) +
         le16(random.size()) + le32(random_off + random.size()) + le16(output.size()) + metadata + label + random +
         output;
}

inline Flow joined(Flow left, const Flow &right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

// label is what the log calls a block of metadata: the fake heap takes one of a section's size for a section list.
inline std::string label(const Bytes &metadata) {
  return metadata.size() == sizeof(KsSection) ? "list[1]" : std::to_string(metadata.size());
}

class Test : public scripted::Test {
 protected:
  // The cache is closed at first, and the first read that wants it opens it.
  void open_cache() { ks_cache_present = 1; }
  void break_cache() { sdb.open_codes.assign(100, 0x411a0011); }

  void cache(const Bytes &metadata) { sdb.entries[cache_key(aid)] = cache_value(metadata); }

  // pac_traces leaves out what the functions of the cache report.
  Flow pac_traces() const {
    Flow out;
    for (const scripted::Report &report : trace.reports) {
      bool of_cache = false;
      for (const char *prefix : {"is_cache_present(", "ks_sdb_init(", "sksd_sdb_", "key_type", "key_handle",
                                 "ks_cache_read_", "ks_cache_find_pac("}) {
        of_cache = of_cache || report.text.starts_with(prefix);
      }
      if (!of_cache) out.push_back(report.marked());
    }
    return out;
  }

  void forget_reports() {
    scripted::platform().log.clear();
    trace.reports.clear();
  }

  // comes_before tells whether the log has both events, the first in front.
  static bool comes_before(const std::string &first, const std::string &second) {
    const Flow &log = scripted::platform().log;
    const auto found = std::find(log.begin(), log.end(), first);
    return std::find(found, log.end(), second) != log.end();
  }

  // takes checks what was handed out and releases it.
  void takes(uint8_t *block, size_t len, const Bytes &expected) {
    EXPECT_EQ(heap.content(block, len), expected);
    heap.release(block);
  }

  const Bytes aid = bytes("a1 00 a3");
  const uint32_t aid_len = 3;
};

inline uint8_t *const kUntouched = reinterpret_cast<uint8_t *>(uintptr_t{0x5a5a});
inline constexpr uint16_t kUntouchedLen = 0x5a5a;

// Damage is one way in which metadata can be wrong, for readers of the opaque and of the info.
struct Damage {
  const char *name;
  Bytes metadata;
  const char *text;  // the plain report
};

inline const Bytes kOpaque = bytes("00 02 00 03 6f 70 71");
inline const Bytes kInfo = bytes("00 09 00 08  00 03 00 04 65 00 00 00");
inline const char kMultipleOpaques[] = "Multiple Opaques present in PAC metadata.";
inline const char kBadOpaque[] = "Bad TLV length in PAC-opaque meta data.";
inline const char kMultipleInfos[] = "Multiple Infos present in PAC metadata.";
inline const char kBadInfo[] = "Bad TLV length in PAC-Info meta data.";
inline const char kUnknown[] = "Unknown PAC TLV type in meta data.";
inline const char kIncomplete[] = "Incomplete PAC metadata received from keystore.";

}  // namespace pac

#endif
