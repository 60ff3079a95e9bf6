// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "own_names.h"

#define KS_HIDE_GLOBALS
#include "ks.hpp"

static volatile uint16_t vdc_id = 99;

std::vector<uint8_t> wire_name_beside_own_names(const char *aid) {
  const ks::Result<ks::WireName> name = ks::WireName::of_pac(aid);
  if (vdc_id != 99 || !name) return {};
  const auto *at = reinterpret_cast<const uint8_t *>(name->data());
  return {at, at + name->size()};
}
