// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "engine/channels.h"

#include <arpa/inet.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/support/channel_arguments.h>
#include <spdlog/spdlog.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <utility>

#include "base/refuse.h"

namespace ksd::engine {
namespace {

std::string read_file(const std::string &path) {
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  if (!file || !(text << file.rdbuf())) {
    refuse("{}: {}; the engine's user has to be able to read it", path, std::strerror(errno ? errno : EIO));
  }
  return text.str();
}

// target_of names an endpoint as the library does: an address as such, a name to be looked up.
std::string target_of(const std::string &endpoint) {
  const std::string host = endpoint.substr(0, endpoint.rfind(':'));
  in_addr address{};
  if (host.starts_with('[')) return "ipv6:" + endpoint;
  if (inet_pton(AF_INET, host.c_str(), &address) == 1) return "ipv4:" + endpoint;
  return "dns:///" + endpoint;
}

grpc::ChannelArguments arguments() {
  constexpr int kMostReceived = 160 << 20;  // a page of the largest rows that an etcd is set up for
  grpc::ChannelArguments arguments;
  // Else channels to one member would share its connection.
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
  // What the machine's environment and name server say of proxies and retries isn't for this.
  arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
  arguments.SetInt(GRPC_ARG_SERVICE_CONFIG_DISABLE_RESOLUTION, 1);
  arguments.SetInt(GRPC_ARG_ENABLE_RETRIES, 0);
  arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 100);
  arguments.SetInt(GRPC_ARG_MIN_RECONNECT_BACKOFF_MS, 1000);
  arguments.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, 1000);
  // A watch has nothing to say for hours, and a machine that is gone says nothing either. A server closes on those who
  // ask more often than every 5 s.
  arguments.SetInt(GRPC_ARG_KEEPALIVE_TIME_MS, 10000);
  arguments.SetInt(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, 2000);
  arguments.SetMaxReceiveMessageSize(kMostReceived);
  arguments.SetMaxSendMessageSize(-1);
  return arguments;
}

}  // namespace

Channels::Channels(const link::Start &start) : start_(start) {
  for (const std::string &endpoint : start.endpoints) members_.push_back({target_of(endpoint), {}});
  if (members_.empty()) refuse("there are no endpoints");
  if (has_tls()) files_ = read_files();
  credentials_ = has_tls() ? grpc::SslCredentials({files_.ca, files_.key, files_.certificate})
                           : grpc::InsecureChannelCredentials();
}

Route Channels::route(Purpose purpose) {
  look_at_files();
  Member &member = members_[present_];
  std::shared_ptr<grpc::Channel> &channel = member.channels[static_cast<size_t>(purpose)];
  if (channel == nullptr) channel = grpc::CreateCustomChannel(member.target, credentials_, arguments());
  return {present_, channel};
}

void Channels::answered(size_t endpoint) {
  if (endpoint == present_) timed_out_in_a_row_ = 0;
}

void Channels::failed(size_t endpoint) {
  if (endpoint == present_) use_next_after(endpoint);
}

bool Channels::timed_out(size_t endpoint) {
  if (endpoint != present_ || ++timed_out_in_a_row_ < 2) return false;
  spdlog::warn("{} doesn't answer in time", start_.endpoints[endpoint]);
  members_[endpoint].channels = {};  // a connection that is dead may not be noticed for minutes
  use_next_after(endpoint);
  return true;
}

void Channels::use_next_after(size_t endpoint) {
  present_ = (endpoint + 1) % members_.size();
  timed_out_in_a_row_ = 0;
}

Channels::Files Channels::read_files() const {
  return {read_file(start_.ca), read_file(start_.certificate), read_file(start_.key)};
}

// What is connected stays so; connections from now on are made with what the files have now. One that is just being
// written is read again a second later.
void Channels::look_at_files() {
  const Clock::time_point now = Clock::now();
  if (!has_tls() || now - looked_at_files_ < std::chrono::seconds(1)) return;
  looked_at_files_ = now;
  try {
    Files files = read_files();
    files_are_told_ = false;
    if (files == files_) return;
    credentials_ = grpc::SslCredentials({files.ca, files.key, files.certificate});
    files_ = std::move(files);
    for (Member &member : members_) member.channels = {};
    spdlog::info("files for TLS have changed and were read again");
  } catch (const std::exception &error) {
    if (!std::exchange(files_are_told_, true)) spdlog::warn("{}; what was read before is used", error.what());
  }
}

}  // namespace ksd::engine
