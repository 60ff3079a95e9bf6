// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "engine/watch.h"

#include <algorithm>
#include <utility>

#include "engine/rows.h"
#include "etcd.grpc.pb.h"

namespace ksd::engine {
namespace {

namespace etcd = etcdserverpb;

// WatchTask tries until the watch stands. From then on it never begins anew by itself: what came in between might be
// lost, and whoever watches has to know.
//
// It asks for one revision before the first that is wanted, and drops that. etcd 3.4 takes a watch that begins at the
// very revision up to which it has been compacted, and leaves out what was deleted there; one that begins earlier it
// refuses.
class WatchTask final : public Task {
 public:
  WatchTask(Engine &engine, const fleet::Watch &request)
      : Task(engine, Purpose::kWatch, Clock::time_point::max()), id_(request.id), from_(request.from) {}

 private:
  enum class Step { kStarting, kAsking, kReading, kEnding };

  bool wanted() const override { return engine_.is_present_watch(this); }

  void connected() override {
    step_ = Step::kStarting;
    stands_ = false;
    stream_ = etcd::Watch::NewStub(route_.channel)->PrepareAsyncWatch(new_context({}), engine_.queue());
    stream_->StartCall(tag());
  }

  void out_of_time() override { attempt_later(); }

  void step_done(bool ok) override {
    if (step_ == Step::kEnding) return ended();
    if (!ok) return finish();
    switch (std::exchange(step_, Step::kReading)) {
      case Step::kStarting:
        return ask();
      case Step::kReading:
        return take();
      default:
        return read();
    }
  }

  void ask() {
    etcd::WatchRequest request;
    etcd::WatchCreateRequest &create = *request.mutable_create_request();
    create.set_key(engine_.prefix());
    create.set_range_end(end_of_folder(engine_.prefix()));
    create.set_start_revision(std::max<int64_t>(static_cast<int64_t>(from_) - 1, 1));
    create.set_fragment(true);
    step_ = Step::kAsking;
    stream_->Write(request, tag());
  }

  void read() {
    response_.Clear();
    stream_->Read(&response_, tag());
  }

  void finish() {
    step_ = Step::kEnding;
    stream_->Finish(&status_, tag());
  }

  void take() {
    if (!wanted()) return cancel_and_finish();
    if (response_.canceled()) {
      broken_ = true;
      compacted_ = static_cast<fleet::Revision>(response_.compact_revision());
      return cancel_and_finish();
    }
    if (response_.created()) {
      stands_ = true;
      engine_.channels().answered(route_.endpoint);
    }
    for (const etcd::Event &event : response_.events()) {
      if (!add(event)) return cancel_and_finish();
    }
    if (!response_.fragment() && !tell_changes()) return cancel_and_finish();
    read();
  }

  // add puts an event to those of its revision, behind those of the one before.
  bool add(const etcd::Event &event) {
    const auto revision = static_cast<fleet::Revision>(event.kv().mod_revision());
    if (revision < from_) return true;
    if (revision != changed_.revision) {
      if (!tell_changes()) return false;
      changed_ = {id_, revision, {}, {}};
      size_ = 0;
    }
    size_ += event.kv().key().size() + event.kv().value().size();
    if (size_ > link::kMostFrame) return false;
    if (event.type() == etcd::Event::DELETE) {
      changed_.deletes.push_back(engine_.own(event.kv().key()));
    } else {
      changed_.puts.push_back(to_row(engine_, event.kv()));
    }
    return true;
  }

  bool tell_changes() {
    if (changed_.revision == 0) return true;
    return engine_.tell(std::exchange(changed_, {}));
  }

  void cancel_and_finish() {
    context_->TryCancel();
    finish();
  }

  void ended() {
    if (!wanted()) return engine_.end(this);
    const Outcome outcome = judge(status_);
    if (!status_.ok() && !broken_ && status_.error_code() != grpc::CANCELLED) note(outcome);
    if (!stands_ && !broken_) return attempt_later();
    engine_.tell(fleet::WatchBroken{id_, compacted_});
    engine_.end(this);
  }

  void *tag() { return static_cast<Task *>(this); }

  const fleet::RequestId id_;
  const fleet::Revision from_;
  Step step_ = Step::kStarting;
  bool stands_ = false;
  bool broken_ = false;
  fleet::Revision compacted_ = 0;
  std::unique_ptr<grpc::ClientAsyncReaderWriter<etcd::WatchRequest, etcd::WatchResponse>> stream_;
  etcd::WatchResponse response_;
  fleet::Changed changed_;  // of the revision whose events are arriving
  size_t size_ = 0;
  grpc::Status status_;
};

}  // namespace

std::unique_ptr<Task> make_task(Engine &engine, const fleet::Watch &request) {
  return std::make_unique<WatchTask>(engine, request);
}

}  // namespace ksd::engine
