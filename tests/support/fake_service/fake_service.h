// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// fake_service.h: a service in the test's own process, for tests of the host libraries: it greets as it is told to,
// keeps what it receives, and answers as the test wishes, wrongly too.
#ifndef FAKE_SERVICE_H
#define FAKE_SERVICE_H

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host_wire.h"
#include "leave.h"
#include "temporary_folder.h"

using ks_test::TemporaryFolder;
using Octets = std::vector<uint8_t>;

// Signal is an event that threads wait for.
class Signal {
 public:
  void give() {
    const std::lock_guard lock(mutex_);
    given_ = true;
    changed_.notify_all();
  }
  void wait() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return given_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool given_ = false;
};

class FakeService {
 public:
  struct Request {
    HostWireHeader header;
    Octets datagram;
    Octets payload;
  };
  // A handler answers on the socket, or doesn't. Returning false closes the connection.
  using Handler = std::function<bool(int socket, const Request &request)>;

  explicit FakeService(std::string path) : path_(std::move(path)) {
    hello.result = KS_SUCCESS;
    hello.vdc_id = 7;
    hello.receive_limit_ms = 20'000;
    hello.service_version = 0x0100;
    strcpy(hello.running_cfg_uri, "lmdb:///tmp/none");
  }
  ~FakeService() { stop(); }
  FakeService(const FakeService &) = delete;
  FakeService &operator=(const FakeService &) = delete;

  HostHelloReply hello{};
  Handler greeter = [this](int socket, const Request &request) {
    return reply(socket, request, Octets(as_octets(hello), as_octets(hello) + sizeof hello));
  };
  Handler handler = echo;

  // echo answers KS_SUCCESS and the request's payload.
  static bool echo(int socket, const Request &request) {
    Octets payload = {1, 0, 0, 0};
    payload.insert(payload.end(), request.payload.begin(), request.payload.end());
    return reply(socket, request, payload);
  }

  static Octets reply_datagram(const Request &request, const Octets &payload) {
    HostWireHeader header = request.header;
    header.descriptor_size = 0;
    header.payload_size = static_cast<uint32_t>(payload.size());
    Octets datagram(as_octets(header), as_octets(header) + sizeof header);
    datagram.insert(datagram.end(), payload.begin(), payload.end());
    return datagram;
  }
  static bool send_raw(int socket, const Octets &datagram) {
    return send(socket, datagram.data(), datagram.size(), MSG_NOSIGNAL) >= 0;
  }
  static bool reply(int socket, const Request &request, const Octets &payload) {
    return send_raw(socket, reply_datagram(request, payload));
  }

  void start() {
    listener_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
    unlink(path_.c_str());
    if (bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) abort();
    if (listen(listener_, 64) != 0) abort();
    acceptor_ = std::thread([this] { accept_all(); });
  }

  // stop closes everything, as the end of a process does.
  void stop() {
    if (listener_ < 0) return;
    shutdown(listener_, SHUT_RDWR);
    acceptor_.join();
    close(listener_);
    listener_ = -1;
    std::vector<std::thread> threads;
    {
      const std::lock_guard lock(mutex_);
      for (const int socket : sockets_) shutdown(socket, SHUT_RDWR);
      threads.swap(threads_);
    }
    for (std::thread &thread : threads) thread.join();
  }

  // Requests other than greetings, in the order of their arrival.
  std::vector<Request> requests() {
    const std::lock_guard lock(mutex_);
    return requests_;
  }
  size_t connections() {
    const std::lock_guard lock(mutex_);
    return accepted_;
  }
  void wait_until_closed(size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return closed_ >= count; });
  }

 private:
  template <typename Record>
  static const uint8_t *as_octets(const Record &record) {
    return reinterpret_cast<const uint8_t *>(&record);
  }

  void accept_all() {
    for (;;) {
      const int socket = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (socket < 0 && errno == EINTR) continue;
      if (socket < 0) return;
      const std::lock_guard lock(mutex_);
      accepted_++;
      sockets_.push_back(socket);
      threads_.emplace_back([this, socket] { serve(socket); });
    }
  }

  void serve(int socket) {
    Octets buffer(256 * 1024);
    for (;;) {
      const ssize_t size = recv(socket, buffer.data(), buffer.size(), 0);
      if (size < 0 && errno == EINTR) continue;
      if (size < static_cast<ssize_t>(sizeof(HostWireHeader))) break;
      Request request = {};
      memcpy(&request.header, buffer.data(), sizeof request.header);
      request.datagram.assign(buffer.begin(), buffer.begin() + size);
      request.payload.assign(buffer.begin() + sizeof request.header, buffer.begin() + size);
      const bool greeting = request.header.opcode == HOST_OP_HELLO;
      if (!greeting) {
        const std::lock_guard lock(mutex_);
        requests_.push_back(request);
      }
      if (!(greeting ? greeter : handler)(socket, request)) break;
    }
    const std::lock_guard lock(mutex_);
    std::erase(sockets_, socket);
    close(socket);
    closed_++;
    changed_.notify_all();
  }

  std::string path_;
  int listener_ = -1;
  std::thread acceptor_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::thread> threads_;
  std::vector<int> sockets_;
  std::vector<Request> requests_;
  size_t accepted_ = 0;
  size_t closed_ = 0;
};

inline size_t open_descriptors() {
  size_t count = 0;
  for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) count++;
  return count;
}

// passes_in_child runs `body` in a forked child and tells whether it came to its end there and returned true.
inline bool passes_in_child(const std::function<bool()> &body) {
  const pid_t child = fork();
  if (child == 0) ks_test::leave(body() ? 0 : 1);
  int status = -1;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

#endif
