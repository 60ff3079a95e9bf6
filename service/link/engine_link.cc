// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "link/engine_link.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <concepts>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace ksd::link {
namespace {

constexpr size_t kMostWaiting = 2 * kMostFrame;  // bytes that the engine hasn't read yet
constexpr size_t kMostAtOnce = 2 * kMostFrame;   // bytes read in one call of receive
constexpr std::chrono::milliseconds kFirstPause{100};
constexpr std::chrono::milliseconds kLongestPause{5000};
// How much longer than it has for a request an engine may take to say so, and how long for a page of a load.
constexpr std::chrono::milliseconds kGrace{2000};
constexpr std::chrono::milliseconds kLongestPage{10000};

// to_engine makes the message of a request: the same struct, among others.
ToEngine to_engine(fleet::Request &&request) {
  return std::visit([](auto &&asked) { return ToEngine(std::move(asked)); }, std::move(request));
}

template <typename Request>
std::optional<std::chrono::milliseconds> time_for(const Request &request) {
  if constexpr (std::same_as<Request, fleet::Watch>) {
    return std::nullopt;
  } else if constexpr (std::same_as<Request, fleet::Load>) {
    return kLongestPage;
  } else {
    return request.limit + kGrace;
  }
}

fleet::Report refusal(const fleet::Request &request, fleet::Failure kind, const char *why) {
  return std::visit(
      [&]<typename Request>(const Request &asked) -> fleet::Report {
        if constexpr (std::same_as<Request, fleet::Watch>) return fleet::WatchBroken{asked.id};
        return fleet::Failed{asked.id, kind, why};
      },
      request);
}

}  // namespace

EngineLink::EngineLink(Connect connect, Start start)
    : connect_(std::move(connect)), start_(std::move(start)), pause_(kFirstPause) {
  this->connect();
}

void EngineLink::send(fleet::Request request) {
  if (!connection_) return reports_.push_back(refusal(request, fleet::Failure::kNotSent, "there is no engine"));
  if (outgoing_.size() - sent_ > kMostWaiting) {
    return reports_.push_back(refusal(request, fleet::Failure::kNotSent, "the engine takes nothing"));
  }
  const fleet::RequestId id = std::visit([](const auto &asked) { return asked.id; }, request);
  const auto time = std::visit([](const auto &asked) { return time_for(asked); }, request);
  // A request without its values, to be answered by in case that they are too much.
  const fleet::Report too_large = refusal(request, fleet::Failure::kTooLarge, "more than an engine is told at once");
  if (!append(to_engine(std::move(request)), outgoing_)) return reports_.push_back(too_large);
  if (time) due_[id] = Clock::now() + *time;
  is_asked_ = true;
  write_some();
}

void EngineLink::receive(std::vector<fleet::Report> &reports) {
  look_at_time();
  if (!connection_ && Clock::now() >= next_try_) connect();
  if (connection_) write_some();
  if (connection_) read_some();
  std::move(reports_.begin(), reports_.end(), std::back_inserter(reports));
  reports_.clear();
}

short EngineLink::events() const {
  return static_cast<short>(POLLIN | (sent_ < outgoing_.size() ? POLLOUT : 0));
}

std::optional<std::chrono::milliseconds> EngineLink::wait_at_most() const {
  if (!reports_.empty()) return std::chrono::milliseconds(0);
  const Clock::time_point next = next_event();
  if (next == Clock::time_point::max()) return std::nullopt;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
  return std::max(left, std::chrono::milliseconds(0));
}

EngineLink::Clock::time_point EngineLink::next_event() const {
  if (!connection_) return next_try_;
  Clock::time_point next = Clock::time_point::max();
  for (const auto &[id, due] : due_) next = std::min(next, due);
  return next;
}

void EngineLink::connect() {
  try {
    connection_ = connect_();
  } catch (const std::exception &error) {
    return lose(error.what());
  }
  append(start_, outgoing_);
  write_some();
}

void EngineLink::write_some() {
  while (sent_ < outgoing_.size()) {
    const ssize_t size =
        ::send(connection_.get(), outgoing_.data() + sent_, outgoing_.size() - sent_, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (size < 0 && errno == EINTR) continue;
    // Why it is gone may still be there to be read: reading finds the end, too.
    if (size < 0) return;
    sent_ += static_cast<size_t>(size);
  }
  outgoing_.clear();
  sent_ = 0;
  if (outgoing_.capacity() > kMostFrame / 8) outgoing_.shrink_to_fit();
}

void EngineLink::read_some() {
  for (size_t read = 0; read < kMostAtOnce;) {
    const std::span<uint8_t> room = incoming_.room();
    const ssize_t size = recv(connection_.get(), room.data(), room.size(), MSG_DONTWAIT);
    if (size < 0 && errno == EINTR) continue;
    if (size < 0 && errno == EAGAIN) return;
    if (size < 0 && errno != ECONNRESET) return lose(std::strerror(errno));
    if (size <= 0) return lose(stopped_.empty() ? "the engine has ended" : stopped_);
    incoming_.added(static_cast<size_t>(size));
    read += static_cast<size_t>(size);
    while (const std::optional<Bytes> frame = incoming_.next()) {
      std::optional<FromEngine> message = read_from_engine(*frame);
      if (!message) return lose("the engine says what makes no sense");
      take(*std::move(message));
    }
    if (incoming_.broken()) return lose("the engine announces more than any message has");
  }
}

void EngineLink::take(FromEngine &&message) {
  std::visit(
      [this]<typename Message>(Message &&said) {
        if constexpr (std::same_as<Message, Started>) {
          pause_ = kFirstPause;
          told_.clear();
        } else if constexpr (std::same_as<Message, Stopped>) {
          stopped_ = "the engine has ended: " + said.why;
        } else {
          if constexpr (std::same_as<Message, fleet::LoadedRows>) {
            if (const auto load = due_.find(said.id); load != due_.end()) load->second = Clock::now() + kLongestPage;
          } else if constexpr (!std::same_as<Message, fleet::Changed> && !std::same_as<Message, fleet::WatchBroken>) {
            due_.erase(said.id);
          }
          reports_.emplace_back(std::move(said));
        }
      },
      std::move(message));
}

// A reason that lasts is told once, unless requests were made in between, which are over by it.
void EngineLink::lose(const std::string &why) {
  connection_ = UniqueFd();
  incoming_ = Incoming();
  outgoing_ = {};
  sent_ = 0;
  due_.clear();
  stopped_.clear();
  next_try_ = Clock::now() + pause_;
  pause_ = std::min(2 * pause_, kLongestPause);
  if (!std::exchange(is_asked_, false) && why == told_) return;
  told_ = why;
  reports_.emplace_back(fleet::EngineGone{one_line(why)});
}

void EngineLink::look_at_time() {
  if (connection_ && next_event() <= Clock::now()) lose("the engine doesn't answer");
}

}  // namespace ksd::link
