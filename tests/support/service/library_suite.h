// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// library_suite.h: what the tests of one suite of the library over the real service stand on.
#ifndef TESTS_SUPPORT_SERVICE_LIBRARY_SUITE_H
#define TESTS_SUPPORT_SERVICE_LIBRARY_SUITE_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "ks_api.h"
#include "service/service_process.h"

namespace ks_test {

// LibrarySuite keeps a service for the length of a suite, whose user is in VDC 7, and starts the library over it.
class LibrarySuite : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    service = std::make_unique<ServiceProcess>();
    setenv("KS_SOCKET", service->socket().c_str(), 1);
    ASSERT_EQ(ks_init(0, 1, 0), KS_SUCCESS);
    ASSERT_EQ(ks_cache_present, 1u);
    ASSERT_EQ(vdc_id, 7);
  }
  static void TearDownTestSuite() { service.reset(); }

  static inline std::unique_ptr<ServiceProcess> service;
};

}  // namespace ks_test

#endif
