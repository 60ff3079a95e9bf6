// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// task.h: a request under way, and how each begins: by finding a member that is connected. A call is handed to the
// library on a connection that is there, and not before: so what fails earlier has certainly not left this machine.
#ifndef SERVICE_ENGINE_TASK_H
#define SERVICE_ENGINE_TASK_H

#include <grpcpp/alarm.h>
#include <grpcpp/client_context.h>

#include <chrono>
#include <memory>
#include <string>

#include "engine/engine.h"
#include "engine/outcome.h"

namespace ksd::engine {

// Task waits for one thing at a time and is told when that is done. The engine deletes it at its end.
class Task {
 public:
  virtual ~Task() = default;
  Task(const Task &) = delete;
  Task &operator=(const Task &) = delete;

  // begin starts it. By then the engine knows it.
  void begin() { attempt(); }

  // done says that what it waits for has happened, or with false that it didn't.
  void done(bool ok);

  // give_up says that `endpoint` was found not to answer: what waits for it ends with an error.
  void give_up(size_t endpoint);

  // cancel ends what is under way with an error.
  void cancel();

 protected:
  using Clock = std::chrono::steady_clock;

  Task(Engine &engine, Purpose purpose, Clock::time_point deadline)
      : engine_(engine), purpose_(purpose), deadline_(deadline) {}

  // attempt looks for a connection, and goes on to connected or, behind the deadline, to out_of_time.
  void attempt();

  // attempt_later does that after a pause that keeps a failure from being repeated without end.
  void attempt_later();

  // note has the choice of member take account of what became of an attempt.
  void note(const Outcome &outcome);

  // wanted tells whether there is still somebody who waits for it.
  virtual bool wanted() const { return true; }
  virtual void connected() = 0;
  virtual void out_of_time() = 0;
  virtual void step_done(bool ok) = 0;  // of what connected began

  // new_context begins an attempt that ends at the latest after `limit`; 0 for no limit.
  grpc::ClientContext *new_context(std::chrono::milliseconds limit);
  std::chrono::milliseconds time_left() const;

  Engine &engine_;
  const Purpose purpose_;
  Clock::time_point deadline_;
  Route route_;
  std::unique_ptr<grpc::ClientContext> context_;

 private:
  enum class Waiting { kForConnection, kForPause, kForStep };

  Waiting waiting_ = Waiting::kForStep;
  grpc::Alarm pause_;
};

}  // namespace ksd::engine

#endif
