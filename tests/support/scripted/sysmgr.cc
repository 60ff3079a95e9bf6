// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// libsysmgr: the words that the script holds.
#include "scripted.h"

using namespace scripted;

uint32_t sysmgr_vdc_get(void) {
  note("sysmgr_vdc_get");
  return platform().sysmgr.vdc;
}

uint32_t sysmgr_supstate_get(void) {
  note("supstate");
  return platform().sysmgr.supstate;
}

const char *sysmgr_running_cfg_uri_get(void) {
  return platform().sysmgr.running_uri.c_str();
}

const char *sysmgr_uri_complete(const char *base, const char *prefix, const char *name) {
  Sysmgr &sysmgr = platform().sysmgr;
  EXPECT_EQ(base, sysmgr.running_uri.c_str());
  sysmgr.completed = sysmgr.completed_uri.value_or(std::string(base) + "/" + prefix + name);
  return sysmgr.completed.c_str();
}
