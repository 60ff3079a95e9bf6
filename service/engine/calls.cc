// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "engine/calls.h"

#include <algorithm>
#include <utility>

#include "engine/rows.h"
#include "etcd.grpc.pb.h"

namespace ksd::engine {
namespace {

namespace etcd = etcdserverpb;
using fleet::Failure;

// How long a member may take for a read before another one is asked. A change has all the time that its request has: a
// second attempt might do it twice.
constexpr std::chrono::milliseconds kLongestRead{1000};
constexpr std::chrono::milliseconds kLongestPage{5000};

template <typename Request, typename Response>
using Method = std::unique_ptr<grpc::ClientAsyncResponseReader<Response>> (etcd::KV::Stub::*)(grpc::ClientContext *,
                                                                                              const Request &,
                                                                                              grpc::CompletionQueue *);

// Repeats says which failures another attempt may follow.
enum class Repeats { kAny, kNothingSent };

// Call is a request whose answer is made of one response.
template <typename Request, typename Response>
class Call : public Task {
 protected:
  using Send = Method<Request, Response>;

  Call(Engine &engine, fleet::RequestId id, Purpose purpose, std::chrono::milliseconds limit, Send send,
       Repeats repeats)
      : Task(engine, purpose, Clock::now() + limit), id_(id), send_(send), repeats_(repeats) {}

  // succeeded tells the daemon what the response says.
  virtual void succeeded() = 0;

  // answer is the end of the request.
  void answer(const link::FromEngine &report) {
    if (!engine_.tell(report)) fail(Failure::kTooLarge, "the answer is larger than any of ours");
    engine_.end(this);
  }

  // failed tells the daemon why there is none.
  virtual void failed(Failure kind, const std::string &why) { fail(kind, why); }

  void fail(Failure kind, std::string_view why) { engine_.tell(fleet::Failed{id_, kind, link::one_line(why)}); }

  const fleet::RequestId id_;
  Request request_;
  Response response_;

 private:
  void connected() override {
    const auto stub = etcd::KV::NewStub(route_.channel);
    const auto limit = repeats_ == Repeats::kAny ? std::min(time_left(), kLongestRead) : time_left();
    reader_ = (stub.get()->*send_)(new_context(limit), request_, engine_.queue());
    response_.Clear();
    reader_->StartCall();
    reader_->Finish(&response_, &status_, static_cast<Task *>(this));
  }

  void step_done(bool) override {
    if (status_.ok()) {
      engine_.channels().answered(route_.endpoint);
      return succeeded();
    }
    const Outcome outcome = judge(status_);
    note(outcome);
    last_ = outcome.kind;
    const bool late = status_.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED;
    why_ = late ? "a member was asked and gave no answer" : status_.error_message();
    const bool nothing_sent = outcome.kind == Failure::kNotSent;
    if (outcome.repeat && (nothing_sent || repeats_ == Repeats::kAny)) return attempt_later();
    out_of_time();
  }

  void out_of_time() override {
    failed(last_, why_);
    engine_.end(this);
  }

  const Send send_;
  const Repeats repeats_;
  std::unique_ptr<grpc::ClientAsyncResponseReader<Response>> reader_;
  grpc::Status status_;
  Failure last_ = Failure::kNotSent;
  std::string why_ = "no member of the store can be reached";
};

using Read = Call<etcd::RangeRequest, etcd::RangeResponse>;

// A change that uses the quota up may be made all the same when etcd answers that there is no room. It was answered, so
// it won't be made later, and the header tells whether it was.
class NoSpaceTask final : public Read {
 public:
  NoSpaceTask(Engine &engine, fleet::RequestId id, int64_t expected, std::string why)
      : Call(engine, id, Purpose::kCalls, kLongestRead, &etcd::KV::Stub::PrepareAsyncRange, Repeats::kAny),
        expected_(expected),
        why_(std::move(why)) {
    request_.set_key(engine.full(fleet::kHeaderKey));
  }

 private:
  void succeeded() override {
    const int64_t found = response_.kvs().empty() ? 0 : response_.kvs(0).mod_revision();
    answer(fleet::Failed{id_, found == expected_ ? Failure::kNoSpace : Failure::kUnknown, link::one_line(why_)});
  }
  void failed(Failure, const std::string &) override { fail(Failure::kUnknown, why_); }

  const int64_t expected_;
  const std::string why_;
};

class CommitTask final : public Call<etcd::TxnRequest, etcd::TxnResponse> {
 public:
  CommitTask(Engine &engine, const fleet::Commit &request)
      : Call(engine, request.id, Purpose::kCalls, request.limit, &etcd::KV::Stub::PrepareAsyncTxn,
             Repeats::kNothingSent),
        header_revision_(request.header_revision) {
    compare(fleet::kHeaderKey, request.header_revision);
    compare(fleet::kRestoreKey, request.restore_revision);
    for (const fleet::KeyValue &row : request.puts) {
      etcd::PutRequest &put = *request_.add_success()->mutable_request_put();
      put.set_key(engine.full(row.key));
      put.set_value(row.value.data(), row.value.size());
    }
    for (const std::string &key : request.deletes) {
      request_.add_success()->mutable_request_delete_range()->set_key(engine.full(key));
    }
    request_.add_failure()->mutable_request_range()->set_key(engine.full(fleet::kHeaderKey));
  }

 private:
  void compare(const char *key, std::optional<fleet::Revision> revision) {
    if (!revision) return;
    etcd::Compare &compare = *request_.add_compare();
    compare.set_result(etcd::Compare::EQUAL);
    compare.set_target(etcd::Compare::MOD);
    compare.set_key(engine_.full(key));
    compare.set_mod_revision(static_cast<int64_t>(*revision));
  }

  void succeeded() override {
    const fleet::Revision revision = revision_of(response_.header());
    if (response_.succeeded()) return answer(fleet::Committed{id_, revision});
    fleet::Refused refused{id_, std::nullopt, revision};
    for (const etcd::ResponseOp &read : response_.responses())
      refused.header = only_row(engine_, read.response_range());
    answer(refused);
  }

  void failed(Failure kind, const std::string &why) override {
    if (kind != Failure::kNoSpace || !header_revision_) return fail(kind, why);
    engine_.begin(std::make_unique<NoSpaceTask>(engine_, id_, static_cast<int64_t>(*header_revision_), why));
  }

  const std::optional<fleet::Revision> header_revision_;
};

class BeatTask final : public Call<etcd::PutRequest, etcd::PutResponse> {
 public:
  BeatTask(Engine &engine, const fleet::Beat &request)
      : Call(engine, request.id, Purpose::kCalls, request.limit, &etcd::KV::Stub::PrepareAsyncPut, Repeats::kAny) {
    request_.set_key(engine.full(fleet::kBeatFolder + request.machine));
    request_.set_value(request.value.data(), request.value.size());
  }

 private:
  void succeeded() override { answer(fleet::Committed{id_, revision_of(response_.header())}); }
};

class HeaderTask final : public Read {
 public:
  HeaderTask(Engine &engine, const fleet::ReadHeader &request)
      : Call(engine, request.id, Purpose::kCalls, request.limit, &etcd::KV::Stub::PrepareAsyncRange, Repeats::kAny) {
    request_.set_key(engine.full(fleet::kHeaderKey));
  }

 private:
  void succeeded() override {
    answer(fleet::HeaderIs{id_, only_row(engine_, response_), revision_of(response_.header())});
  }
};

class BeatsTask final : public Read {
 public:
  BeatsTask(Engine &engine, const fleet::ReadBeats &request)
      : Call(engine, request.id, Purpose::kCalls, request.limit, &etcd::KV::Stub::PrepareAsyncRange, Repeats::kAny) {
    // No other folder stands between the two.
    request_.set_key(engine.full(fleet::kBoxFolder));
    request_.set_range_end(end_of_folder(engine.full(fleet::kBeatFolder)));
  }

 private:
  void succeeded() override {
    fleet::BeatsAre beats{id_, {}, revision_of(response_.header())};
    for (const etcd::KeyValue &row : response_.kvs()) beats.beats.push_back(to_row(engine_, row));
    answer(beats);
  }
};

// The header is read first, and gives the revision at which page after page of the rows is read.
class LoadTask final : public Read {
 public:
  LoadTask(Engine &engine, const fleet::Load &request)
      : Call(engine, request.id, Purpose::kLoad, kLongestPage, &etcd::KV::Stub::PrepareAsyncRange, Repeats::kAny) {
    request_.set_key(engine.full(fleet::kHeaderKey));
  }

 private:
  static constexpr int64_t kFirstPage = 64;  // rows, as long as it isn't known how large they are
  static constexpr int64_t kLeastPage = 16;
  static constexpr int64_t kMostRows = 4096;

  void succeeded() override {
    if (!has_header_) {
      has_header_ = true;
      loaded_ = {id_, only_row(engine_, response_), revision_of(response_.header())};
      request_.set_key(engine_.full(fleet::kRowFolder));
      request_.set_range_end(end_of_folder(request_.key()));
      request_.set_revision(response_.header().revision());
      request_.set_limit(kFirstPage);
      return next_page();
    }
    if (!tell_rows()) {
      fail(Failure::kTooLarge, "a row is larger than any of ours");
      return engine_.end(this);
    }
    if (!response_.more() || response_.kvs().empty()) return answer(loaded_);
    request_.set_key(response_.kvs().rbegin()->key() + '\0');
    next_page();
  }

  void next_page() {
    deadline_ = Clock::now() + kLongestPage;
    attempt();
  }

  bool tell_rows() {
    fleet::LoadedRows page{id_, {}};
    size_t size = 0, total = 0;
    const auto tell_page = [&] {
      const bool told = page.rows.empty() || engine_.tell(page);
      page.rows.clear();
      total += std::exchange(size, 0);
      return told;
    };
    for (const etcd::KeyValue &row : response_.kvs()) {
      const size_t more = row.key().size() + row.value().size();
      const bool full = size + more > link::kMostPage || page.rows.size() == link::kMostItems;
      if (full && !tell_page()) return false;
      page.rows.push_back(to_row(engine_, row));
      size += more;
    }
    if (!tell_page()) return false;
    if (const int64_t rows = response_.kvs_size(); rows != 0) {
      const auto average = static_cast<int64_t>(total) / rows + 1;
      request_.set_limit(std::clamp(static_cast<int64_t>(link::kMostPage) / average, kLeastPage, kMostRows));
    }
    return true;
  }

  bool has_header_ = false;
  fleet::Loaded loaded_;
};

}  // namespace

std::unique_ptr<Task> make_task(Engine &engine, const fleet::Commit &request) {
  return std::make_unique<CommitTask>(engine, request);
}
std::unique_ptr<Task> make_task(Engine &engine, const fleet::ReadHeader &request) {
  return std::make_unique<HeaderTask>(engine, request);
}
std::unique_ptr<Task> make_task(Engine &engine, const fleet::Load &request) {
  return std::make_unique<LoadTask>(engine, request);
}
std::unique_ptr<Task> make_task(Engine &engine, const fleet::Beat &request) {
  return std::make_unique<BeatTask>(engine, request);
}
std::unique_ptr<Task> make_task(Engine &engine, const fleet::ReadBeats &request) {
  return std::make_unique<BeatsTask>(engine, request);
}

}  // namespace ksd::engine
