// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "engine/task.h"

#include <algorithm>

namespace ksd::engine {
namespace {

constexpr std::chrono::milliseconds kPause{50};
constexpr std::chrono::milliseconds kLongestConnect{1000};

std::chrono::system_clock::time_point in(std::chrono::milliseconds time) {
  return std::chrono::system_clock::now() + time;
}

}  // namespace

void Task::done(bool ok) {
  switch (waiting_) {
    case Waiting::kForConnection:
      if (!ok) engine_.channels().failed(route_.endpoint);  // it was no member's turn for long enough
      return attempt();
    case Waiting::kForPause:
      return attempt();
    case Waiting::kForStep:
      return step_done(ok);
  }
}

void Task::give_up(size_t endpoint) {
  if (route_.endpoint == endpoint) cancel();
}

void Task::cancel() {
  if (waiting_ == Waiting::kForStep && context_ != nullptr) context_->TryCancel();
}

void Task::attempt() {
  if (!wanted()) return engine_.end(this);
  const std::chrono::milliseconds left = time_left();
  if (left.count() <= 0) return out_of_time();
  route_ = engine_.channels().route(purpose_);
  const grpc_connectivity_state state = route_.channel->GetState(true);
  if (state == GRPC_CHANNEL_READY) {
    waiting_ = Waiting::kForStep;
    return connected();
  }
  if (state == GRPC_CHANNEL_TRANSIENT_FAILURE || state == GRPC_CHANNEL_SHUTDOWN) {
    engine_.channels().failed(route_.endpoint);
    return attempt_later();
  }
  waiting_ = Waiting::kForConnection;
  route_.channel->NotifyOnStateChange(state, in(std::min(left, kLongestConnect)), engine_.queue(), this);
}

void Task::attempt_later() {
  waiting_ = Waiting::kForPause;
  pause_.Set(engine_.queue(), in(std::min(kPause, time_left())), this);
}

void Task::note(const Outcome &outcome) {
  Channels &channels = engine_.channels();
  switch (outcome.about) {
    case About::kNothing:
      return channels.answered(route_.endpoint);
    case About::kConnectionFailed:
    case About::kCannotServe:
      return channels.failed(route_.endpoint);
    case About::kTimedOut:
      if (channels.timed_out(route_.endpoint)) engine_.give_up(route_.endpoint);
  }
}

grpc::ClientContext *Task::new_context(std::chrono::milliseconds limit) {
  context_ = std::make_unique<grpc::ClientContext>();
  // Without it, a member that is cut off from the others lets a call wait for them.
  context_->AddMetadata("hasleader", "true");
  if (limit.count() > 0) context_->set_deadline(in(limit));
  return context_.get();
}

std::chrono::milliseconds Task::time_left() const {
  if (deadline_ == Clock::time_point::max()) return std::chrono::hours(1);
  return std::max(std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - Clock::now()),
                  std::chrono::milliseconds(0));
}

}  // namespace ksd::engine
