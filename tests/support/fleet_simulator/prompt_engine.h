// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// prompt_engine.h: an engine for the thread of a shared vault, over a store in memory.
#ifndef TESTS_SUPPORT_FLEET_SIMULATOR_PROMPT_ENGINE_H
#define TESTS_SUPPORT_FLEET_SIMULATOR_PROMPT_ENGINE_H

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "base/fd.h"
#include "fleet_simulator/engine_model.h"

namespace ksd::fleet {

// SharedStore is the store of a fleet, and who watches it.
struct SharedStore {
  std::mutex mutex;
  StoreModel model;
  std::vector<class PromptEngine *> engines;
};

// PromptEngine does at once what it is asked for.
class PromptEngine final : public Engine {
 public:
  explicit PromptEngine(SharedStore &store) : store_(store), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    const std::lock_guard lock(store_.mutex);
    store_.engines.push_back(this);
  }
  ~PromptEngine() override {
    const std::lock_guard lock(store_.mutex);
    std::erase(store_.engines, this);
  }

  // cut has nothing pass any more, or again; with `in_doubt`, what is sent is lost without a word of it.
  void cut(bool cut, bool in_doubt = false) {
    const std::lock_guard lock(store_.mutex);
    cut_ = cut;
    in_doubt_ = in_doubt;
    report_watched();
  }
  void fill() { full_ = true; }

  void send(Request request) override {
    const std::lock_guard lock(store_.mutex);
    std::visit([this](auto &one) { execute(one); }, request);
  }
  void receive(std::vector<Report> &reports) override {
    const std::lock_guard lock(store_.mutex);
    uint64_t woken = 0;
    [[maybe_unused]] const ssize_t size = read(wake_.get(), &woken, sizeof woken);
    std::move(reports_.begin(), reports_.end(), std::back_inserter(reports));
    reports_.clear();
  }
  int file() const override { return wake_.get(); }
  short events() const override { return POLLIN; }

 private:
  void report(Report report) {
    reports_.push_back(std::move(report));
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t size = write(wake_.get(), &one, sizeof one);
  }
  bool fails(RequestId id) {
    if (cut_) report(Failed{id, in_doubt_ ? Failure::kUnknown : Failure::kNotSent, "cut"});
    return cut_;
  }
  void execute(const Commit &commit) {
    if (fails(commit.id)) return;
    if (full_) return report(Failed{commit.id, Failure::kNoSpace, "full"});
    if (!store_.model.compare_and_change(commit)) {
      return report(Refused{commit.id, store_.model.header(), store_.model.revision()});
    }
    report(Committed{commit.id, store_.model.revision()});
    changed();
  }
  void execute(const ReadHeader &read) {
    if (!fails(read.id)) report(HeaderIs{read.id, store_.model.header(), store_.model.revision()});
  }
  void execute(const Load &load) {
    if (fails(load.id)) return;
    for (const auto &[key, value] : store_.model.live()) {
      if (key.starts_with(kRowFolder)) report(LoadedRows{load.id, {value}});
    }
    report(Loaded{load.id, store_.model.header(), store_.model.revision()});
  }
  void execute(const Watch &watch) {
    watch_ = watch;
    report_watched();
  }
  void execute(const Beat &beat) {
    if (fails(beat.id)) return;
    store_.model.change({{.key = kBeatFolder + beat.machine, .value = beat.value, .mod_revision = 0}}, {});
    report(Committed{beat.id, store_.model.revision()});
    changed();
  }
  void execute(const ReadBeats &read) {
    if (fails(read.id)) return;
    BeatsAre beats{read.id, {}, store_.model.revision()};
    for (const auto &[key, value] : store_.model.live()) {
      if (key.starts_with(kBeatFolder) || key.starts_with(kBoxFolder)) beats.beats.push_back(value);
    }
    report(std::move(beats));
  }
  void changed() {
    for (PromptEngine *engine : store_.engines) engine->report_watched();
  }
  void report_watched() {
    for (; watch_.id != 0 && !cut_ && watch_.from <= store_.model.revision(); ++watch_.from) {
      const StoreModel::Change &change = store_.model.at(watch_.from);
      report(Changed{watch_.id, watch_.from, change.puts, change.deletes});
    }
  }

  SharedStore &store_;
  const UniqueFd wake_;
  std::vector<Report> reports_;
  Watch watch_;
  bool cut_ = false, in_doubt_ = false;
  std::atomic<bool> full_{false};
};

}  // namespace ksd::fleet

#endif
