// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// engine.h: takes the daemon's requests to etcd and what comes of them back. Each request is a task of its own that
// goes from one step to the next as the library reports that the last one is done, all of them on one thread; the
// requests come from another.
#ifndef SERVICE_ENGINE_ENGINE_H
#define SERVICE_ENGINE_ENGINE_H

#include <grpcpp/completion_queue.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

#include "engine/channels.h"
#include "link/frames.h"

namespace ksd::engine {

class Task;

class Engine {
 public:
  // Tell passes a report on, and gives false for one that no frame holds. It may wait as long as the daemon takes none.
  using Tell = std::function<bool(const link::FromEngine &)>;

  // Throws std::runtime_error when the files for TLS can't be read.
  Engine(const link::Start &start, Tell tell);

  // take begins a request. It waits while too many are under way.
  void take(link::ToEngine &&request);

  // run serves until the process ends.
  [[noreturn]] void run();

  // ---- For tasks. ----

  Channels &channels() { return channels_; }
  grpc::CompletionQueue *queue() { return &queue_; }
  bool tell(const link::FromEngine &report) { return tell_(report); }

  // With the prefix that all of the fleet's keys have, and without it.
  const std::string &prefix() const { return prefix_; }
  std::string full(std::string_view key) const { return prefix_ + std::string(key); }
  std::string own(const std::string &full_key) const;

  // give_up has all tasks that wait for `endpoint` end.
  void give_up(size_t endpoint);

  // begin starts a task, which the engine owns from then on.
  void begin(std::unique_ptr<Task> task);

  // end deletes a task, and lets the next request in.
  void end(Task *task);

  // is_present_watch tells whether no later watch has taken this one's place. Nothing is said of earlier ones.
  bool is_present_watch(const Task *task) const { return watch_ == task; }

 private:
  const std::string prefix_;
  const Tell tell_;
  std::mutex mutex_;  // of all below but the queue
  std::condition_variable has_room_;
  grpc::CompletionQueue queue_;
  Channels channels_;
  std::set<Task *> tasks_;
  Task *watch_ = nullptr;
};

}  // namespace ksd::engine

#endif
