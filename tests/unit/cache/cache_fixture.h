// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// cache_fixture.h: an open cache at "u:x", and the PAC of the A-ID "ab" in VDC 7, spelt out.
#ifndef TESTS_UNIT_CACHE_CACHE_FIXTURE_H
#define TESTS_UNIT_CACHE_CACHE_FIXTURE_H

#include "scripted.h"

namespace cache {

using scripted::Bytes;
using scripted::bytes;
using scripted::bytes_of;
using scripted::operator+;

using Lines = std::vector<std::string>;

inline Lines operator+(Lines left, const Lines &right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

class CacheTest : public scripted::Test {
 protected:
  CacheTest() {
    strcpy(ks_cache_uri, "u:x");
    ks_cache_present = 1;
  }

  const Bytes kWire = bytes("31 00 00 07 61 62");
  const Bytes kKey = bytes("01 00 00 00 31 00 00 07 61 62") + Bytes(29, 0);
  const Bytes kMeta = bytes("00 02 00 01 aa  00 09 00 00");
  // kMeta as a plain entry.
  const Bytes kPlain = bytes("09 00 00 00  00 00 00 00 00 00  00 00 00 00 00 00  00 00 00 00 00 00") + kMeta;

  // The 39 reports of kKey, each with its subtype.
  Lines key_reports() const {
    Lines all = {"103:key_type[0]=1 ",    "103:key_type[1]=0 ",   "103:key_type[2]=0 ",   "103:key_type[3]=0 ",
                 "103:key_handle[4]=31 ", "103:key_handle[5]=0 ", "103:key_handle[6]=0 ", "103:key_handle[7]=7 ",
                 "103:key_handle[8]=61 ", "103:key_handle[9]=62 "};
    for (int i = 10; i < 39; ++i) all.push_back("103:key_handle[" + std::to_string(i) + "]=0 ");
    return all;
  }
  Lines reading(const std::string &outcome) const {
    return Lines{"103:sksd_sdb_read(#):Reading from uri u:x with key size = 39, key = "} + key_reports() +
           Lines{"103:sksd_sdb_read(#):" + outcome};
  }
  Lines writing(const std::string &outcome) const {
    return Lines{"103:sksd_sdb_write(#):Writing into uri u:x with key size = 39, key = "} + key_reports() +
           Lines{"103:sksd_sdb_write(#):" + outcome};
  }
  // A whole call of ks_cache_pac_clear that succeeds.
  Lines clearing() const {
    return Lines{"103:ks_cache_pac_clear(#)\n", "103:ks_cache_pac_clear(#):Deleting Key from shared DB.\n",
                 "103:sksd_sdb_delete(#):Deleting from uri u:x with key size = 39, key = "} +
           key_reports() +
           Lines{"103:sksd_sdb_delete(#):SDB delete successful.", "103:ks_cache_pac_clear(#):Return \n"};
  }

  Lines sdb_calls() const {
    return events({"sdb_read", "sdb_write", "sdb_write_done", "sdb_delete", "sdb_open", "sdb_iterator_init",
                   "sdb_getkey", "sdb_getnext"});
  }
  Lines last_traces(size_t count) const {
    const Lines all = traces(true);
    return Lines(all.end() - static_cast<ptrdiff_t>(std::min(count, all.size())), all.end());
  }

  // Runs `call` behind every combination of open gates, from what `prepare` leaves, and expects `reports` of each half
  // that is open and `calls` of the database always.
  void expect_with_every_combination_of_gates(const std::function<void()> &prepare, const std::function<void()> &call,
                                              const Lines &reports, const Lines &calls) {
    const auto open_part = [&](const std::map<uint32_t, bool> &open) {
      Lines part;
      for (const std::string &report : reports) {
        if (open.at(report.starts_with("100:") ? 100 : 103)) part.push_back(report);
      }
      return part;
    };
    for (int gates = 0; gates < 16; ++gates) {
      SCOPED_TRACE(gates);
      prepare();
      scripted::platform().log.clear();
      trace = scripted::Trace();
      trace.history_open = {{100, (gates & 1) != 0}, {103, (gates & 2) != 0}};
      trace.debug_open = {{100, (gates & 4) != 0}, {103, (gates & 8) != 0}};
      const auto history_open = trace.history_open, debug_open = trace.debug_open;
      call();
      EXPECT_EQ(traces(true), open_part(history_open));
      Lines debug_lines = open_part(debug_open);
      for (std::string &line : debug_lines) line.erase(0, 4);
      EXPECT_EQ(trace.debug_lines, debug_lines);
      EXPECT_EQ(trace.history_checks, static_cast<int>(reports.size()));
      EXPECT_EQ(trace.debug_checks, static_cast<int>(reports.size()));
      EXPECT_EQ(sdb_calls(), calls);
    }
  }
};

}  // namespace cache

#endif
