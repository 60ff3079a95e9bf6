// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// library.h: the keystore as a user of libks sees it.
#ifndef TOOLS_KSCTL_LIBRARY_H
#define TOOLS_KSCTL_LIBRARY_H

#include <ks_api.h>

#include <string>

#include "command.h"

namespace ksctl {

// start_library starts libks over the session's service, once. Failure kNoService or kNotAllowed, with the reason.
void start_library(const Session &session);

// require throws unless `result` is KS_SUCCESS: a Failure with the exit status that fits, `object` and the result in
// words.
void require(KsResult result, const std::string &object);

}  // namespace ksctl

#endif
