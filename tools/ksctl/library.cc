// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "library.h"

#include <fmt/format.h>
#include <host_mts.h>

#include <cstdlib>

#include "service_link.h"

namespace ksctl {
namespace {

constexpr uint32_t kApplication = 0x6b736374;  // "ksct"

Exit exit_of(KsResult result) {
  switch (result) {
    case KS_NOT_FOUND:
    case KS_NO_MORE_ENTRIES:
      return Exit::kNotFound;
    case KS_NOT_REGISTERED:
    case KS_FW_COMM_ERROR:
    case KS_TIMEOUT:
      return Exit::kNoService;
    default:
      return Exit::kFailed;
  }
}

}  // namespace

void start_library(const Session &session) {
  // libks answers KS_FAILURE for every reason, so the connection is tried first by what can tell why.
  const ServiceLink link(session.socket);
  if (link.hello().vdc_id == HOST_NO_VDC) {
    throw Failure(Exit::kNotAllowed,
                  fmt::format("{}: this user has no VDC, and can keep nothing; add it to a [[vdc]] of the service's "
                              "configuration",
                              session.socket));
  }
  setenv("KS_SOCKET", session.socket.c_str(), 1);
  require(ks_init(0, kApplication, 0), session.socket);
}

void require(KsResult result, const std::string &object) {
  if (result == KS_SUCCESS) return;
  // Where no answer came, the message service knows why: the code would be that of any failure.
  char why[512] = "";
  mts_last_error_get(why, sizeof why);
  if (why[0] != '\0') throw Failure(Exit::kNoService, fmt::format("{}: {}", object, why));
  throw Failure(exit_of(result), fmt::format("{}: {} ({}); `ksctl explain {}` says what to do", object,
                                             kserr2str(result), result, result));
}

}  // namespace ksctl
