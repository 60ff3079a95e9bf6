// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// channels.h: the connections to the members of an etcd cluster, and which member is asked. All that is asked goes to
// one member until that is found not to answer; then the next one in the list has its turn.
#ifndef SERVICE_ENGINE_CHANNELS_H
#define SERVICE_ENGINE_CHANNELS_H

#include <grpcpp/channel.h>
#include <grpcpp/security/credentials.h>

#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "link/frames.h"

namespace ksd::engine {

// Purpose says what a connection is for. Each has one of its own: answers to a watch would wait behind the rows of a
// load, and under TLS behind calls as well.
enum class Purpose { kCalls, kLoad, kWatch };
inline constexpr size_t kPurposes = 3;

// Route is the connection that an attempt takes.
struct Route {
  size_t endpoint = 0;
  std::shared_ptr<grpc::Channel> channel;
};

class Channels {
 public:
  // Throws std::runtime_error when files for TLS can't be read.
  explicit Channels(const link::Start &start);

  // route gives the connection for an attempt that begins now. It may not be connected yet.
  Route route(Purpose purpose);

  // What came of an attempt: an answer; a connection that failed or couldn't be made, or a member that can't serve; no
  // answer in time. With the second of these in a row the member is given up, and true says that nothing should go on
  // waiting for it.
  void answered(size_t endpoint);
  void failed(size_t endpoint);
  bool timed_out(size_t endpoint);

 private:
  using Clock = std::chrono::steady_clock;

  // Files is what TLS needs, as it is on the disk.
  struct Files {
    std::string ca, certificate, key;
    friend bool operator==(const Files &, const Files &) = default;
  };

  struct Member {
    std::string target;
    std::array<std::shared_ptr<grpc::Channel>, kPurposes> channels;
  };

  bool has_tls() const { return !start_.ca.empty(); }
  Files read_files() const;
  void look_at_files();
  void use_next_after(size_t endpoint);

  const link::Start start_;
  Files files_;
  std::shared_ptr<grpc::ChannelCredentials> credentials_;
  Clock::time_point looked_at_files_{};
  bool files_are_told_ = false;  // that they can't be read
  std::vector<Member> members_;
  size_t present_ = 0;
  int timed_out_in_a_row_ = 0;
};

}  // namespace ksd::engine

#endif
