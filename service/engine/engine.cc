// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "engine/engine.h"

#include <concepts>
#include <cstdlib>
#include <utility>
#include <variant>

#include "engine/calls.h"
#include "engine/watch.h"

namespace ksd::engine {
namespace {

// What the daemon has under way is much less.
constexpr size_t kMostTasks = 64;

}  // namespace

Engine::Engine(const link::Start &start, Tell tell) : prefix_(start.prefix), tell_(std::move(tell)), channels_(start) {}

void Engine::take(link::ToEngine &&message) {
  std::unique_lock lock(mutex_);
  has_room_.wait(lock, [this] { return tasks_.size() < kMostTasks; });
  std::visit(
      [this]<typename Request>(const Request &request) {
        if constexpr (!std::same_as<Request, link::Start>) {
          std::unique_ptr<Task> task = make_task(*this, request);
          if constexpr (std::same_as<Request, fleet::Watch>) {
            if (Task *before = std::exchange(watch_, task.get())) before->cancel();
          }
          begin(std::move(task));
        }
      },
      message);
}

void Engine::run() {
  void *tag = nullptr;
  bool ok = false;
  while (queue_.Next(&tag, &ok)) {
    const std::lock_guard lock(mutex_);
    static_cast<Task *>(tag)->done(ok);
  }
  std::abort();  // nobody shuts the queue down
}

std::string Engine::own(const std::string &full_key) const {
  return full_key.starts_with(prefix_) ? full_key.substr(prefix_.size()) : full_key;
}

void Engine::give_up(size_t endpoint) {
  for (Task *task : tasks_) task->give_up(endpoint);
}

void Engine::begin(std::unique_ptr<Task> task) {
  Task *begun = task.release();
  tasks_.insert(begun);
  begun->begin();
}

void Engine::end(Task *task) {
  tasks_.erase(task);
  if (watch_ == task) watch_ = nullptr;
  delete task;
  has_room_.notify_one();
}

}  // namespace ksd::engine
