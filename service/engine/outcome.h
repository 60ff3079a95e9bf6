// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// outcome.h: what a call's end says about whether it happened.
#ifndef SERVICE_ENGINE_OUTCOME_H
#define SERVICE_ENGINE_OUTCOME_H

#include <grpcpp/support/status.h>

#include "fleet/engine.h"

namespace ksd::engine {

// About says what an end tells of the member that was asked.
enum class About { kNothing, kConnectionFailed, kTimedOut, kCannotServe };

struct Outcome {
  fleet::Failure kind = fleet::Failure::kUnknown;
  About about = About::kNothing;
  bool repeat = false;  // another attempt may go better
};

// judge tells it for a call that left the machine and ended with an error. kNotSent is for what etcd refused before
// it did anything; everything that isn't known for that is kUnknown.
Outcome judge(const grpc::Status &status);

}  // namespace ksd::engine

#endif
