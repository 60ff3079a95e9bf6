// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "engine/outcome.h"

#include <string_view>

namespace ksd::engine {
namespace {

using fleet::Failure;

// What etcd says when it has done nothing, and will do nothing, about a request.
struct Refusal {
  grpc::StatusCode code;
  std::string_view says;
  Outcome outcome;
};

constexpr Refusal kRefusals[] = {
    {grpc::UNAVAILABLE, "etcdserver: no leader", {Failure::kNotSent, About::kCannotServe, true}},
    {grpc::UNKNOWN, "raft proposal dropped", {Failure::kNotSent, About::kCannotServe, true}},
    {grpc::RESOURCE_EXHAUSTED, "etcdserver: too many requests", {Failure::kNotSent, About::kNothing, true}},
    {grpc::RESOURCE_EXHAUSTED,
     "etcdserver: mvcc: database space exceeded",
     {Failure::kNoSpace, About::kNothing, false}},
    {grpc::INVALID_ARGUMENT, "etcdserver: request is too large", {Failure::kTooLarge, About::kNothing, false}},
    {grpc::INVALID_ARGUMENT,
     "etcdserver: too many operations in txn request",
     {Failure::kTooLarge, About::kNothing, false}},
    {grpc::RESOURCE_EXHAUSTED, "grpc: received message larger than max", {Failure::kTooLarge, About::kNothing, false}},
    {grpc::PERMISSION_DENIED, "", {Failure::kDenied, About::kNothing, false}},
    {grpc::UNAUTHENTICATED, "", {Failure::kDenied, About::kNothing, false}},
    {grpc::INVALID_ARGUMENT, "etcdserver: user name is empty", {Failure::kDenied, About::kNothing, false}},
};

}  // namespace

Outcome judge(const grpc::Status &status) {
  for (const Refusal &refusal : kRefusals) {
    if (status.error_code() == refusal.code && status.error_message().starts_with(refusal.says)) return refusal.outcome;
  }
  switch (status.error_code()) {
    case grpc::UNAVAILABLE:
    case grpc::CANCELLED:
      return {Failure::kUnknown, About::kConnectionFailed, true};
    case grpc::DEADLINE_EXCEEDED:
      return {Failure::kUnknown, About::kTimedOut, true};
    case grpc::UNKNOWN:  // as "etcdserver: request timed out", in other words every now and then
      return {Failure::kUnknown, About::kCannotServe, true};
    default:
      return {Failure::kUnknown, About::kNothing, false};
  }
}

}  // namespace ksd::engine
