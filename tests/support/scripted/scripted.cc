// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "scripted.h"

#include <algorithm>

namespace scripted {

Platform &platform() {
  static Platform instance;
  return instance;
}

void note(std::string event) {
  platform().log.push_back(std::move(event));
}

Test::Test() {
  platform().heap.reset();
  platform().log.clear();
  platform().mts = Mts();
  platform().trace = Trace();
  platform().sysmgr = Sysmgr();
  platform().sdb = Sdb();
  platform().clock = Clock();
  ks_mts_q = 5;
  vdc_id = 7;
  app_uuid = 0x11223344;
  ks_cache_present = 0;
  std::memset(ks_cache_uri, 0, sizeof ks_cache_uri);
}

void Test::TearDown() {
  EXPECT_EQ(heap.live(), leaked_) << "blocks left allocated";
  EXPECT_EQ(mts.undropped(), undropped_) << "messages left undropped";
  EXPECT_TRUE(mts.script.empty()) << mts.script.size() << " scripted answers were never asked for";
}

std::vector<std::string> Test::traces(bool with_subtype) const {
  std::vector<std::string> out;
  for (const Report &report : trace.reports) {
    out.push_back(with_subtype ? std::to_string(report.subtype) + ":" + report.text : report.marked());
  }
  return out;
}

std::vector<std::string> Test::events(const std::vector<std::string> &words) const {
  std::vector<std::string> out;
  for (const std::string &event : platform().log) {
    const std::string word = event.substr(0, event.find(' '));
    if (std::find(words.begin(), words.end(), word) != words.end()) out.push_back(event);
  }
  return out;
}

std::vector<std::string> Test::flow() const {
  return events({"malloc", "calloc", "free", "send", "recv", "drop"});
}

}  // namespace scripted
