// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// own_names.h: a part of the test program that has variables of its own where ks_api.h has common names.
#ifndef TESTS_SYSTEM_HELPERS_OWN_NAMES_H
#define TESTS_SYSTEM_HELPERS_OWN_NAMES_H

#include <cstdint>
#include <vector>

// wire_name_beside_own_names makes the wire name of a PAC by ks.hpp, with those variables in sight.
std::vector<uint8_t> wire_name_beside_own_names(const char *aid);

#endif
