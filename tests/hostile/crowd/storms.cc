// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "storms.h"

#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <thread>

#include "service/service_process.h"

namespace storms {
namespace {

using ks_test::Datagram;
using ks_test::RawClient;
using ks_test::request_datagram;

constexpr uint8_t kSecretTag = 0x30;
constexpr uint8_t kPacTag = 0x31;
constexpr uint8_t kVdc = 8;

Datagram operator+(Datagram first, const Datagram &second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

void put(Datagram &out, size_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

Datagram hmac(const std::string &name, size_t size) {
  const Datagram wire = name_of(kSecretTag, kVdc, name);
  Datagram descriptor{static_cast<uint8_t>(wire.size()), 8};
  put(descriptor, size, 2);
  put(descriptor, 8 + wire.size(), 4);
  return request_datagram(66582, 1, descriptor, wire + Datagram(size, 0x5a));
}

Datagram t_prf(size_t label_size, size_t random_size) {
  const Datagram wire = name_of(kPacTag, kVdc, "pac");
  Datagram descriptor;
  put(descriptor, 5100, 2);
  put(descriptor, wire.size(), 1);
  put(descriptor, 20, 1);
  put(descriptor, label_size, 4);
  put(descriptor, 20 + wire.size(), 4);
  put(descriptor, random_size, 4);
  put(descriptor, 20 + wire.size() + label_size, 4);
  return request_datagram(66571, 1, descriptor, wire + Datagram(label_size + random_size, 'x'));
}

Datagram store_pac() {
  const Datagram wire = name_of(kPacTag, kVdc, "pac");
  Datagram descriptor{static_cast<uint8_t>(wire.size()), 20, 0, 0};
  put(descriptor, 32, 4);
  put(descriptor, 20 + wire.size(), 4);
  put(descriptor, 0, 4);
  put(descriptor, 52 + wire.size(), 4);
  return request_datagram(66569, 1, descriptor, wire + Datagram(32, 'k'));
}

// A storm of one request, over a connection for each thread.
Storm of(std::string name, Datagram datagram) {
  return {std::move(name), [datagram = std::move(datagram)](const std::string &socket, unsigned) {
            RawClient client(socket);
            while (client.send(datagram) && client.receive()) continue;
          }};
}

void connect_and_leave(const std::string &socket, unsigned) {
  RawClient client(socket);
}

void connect_and_greet(const std::string &socket, unsigned) {
  RawClient client(socket);
  client.send(request_datagram(1, 1, {}));
  client.receive();
}

void say_nothing(const std::string &socket, unsigned) {
  RawClient client(socket);
  client.receive();
}

// What so many threads cost everybody by being there, to compare with.
void do_without_the_service(const std::string &socket, unsigned) {
  for (int i = 0; i < 1000; ++i) access(socket.c_str(), F_OK);
}

void store_a_lot(const std::string &socket, unsigned number) {
  RawClient client(socket);
  const Datagram datagram = store_secret(kVdc, "flood" + std::to_string(number), Datagram(30000, 's'));
  while (client.send(datagram) && client.receive()) continue;
}

void walk(const std::string &socket, unsigned number) {
  RawClient client(socket);
  for (uint8_t i = static_cast<uint8_t>(number);; ++i) {
    if (!client.send(request_datagram(66566, 1, {i, 0})) || !client.receive()) return;
  }
}

// As many requests on their way as the socket takes, and their replies read late.
void pipeline(const std::string &socket, unsigned) {
  RawClient client(socket);
  const Datagram datagram = request_datagram(66561, 1, {255, 0, 0, 0, 0, 0, 0, 0});
  while (true) {
    int sent = 0;
    while (send(client.socket(), datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) ++sent;
    if (sent == 0 && !client.receive()) return;
    for (; sent > 0; --sent) {
      if (!client.receive()) return;
    }
  }
}

}  // namespace

Datagram name_of(uint8_t tag, uint8_t vdc, const std::string &text) {
  Datagram wire{tag, 0, 0, vdc};
  wire.insert(wire.end(), text.begin(), text.end());
  return wire;
}

Datagram store_secret(uint8_t vdc, const std::string &name, const Datagram &secret) {
  const Datagram wire = name_of(kSecretTag, vdc, name);
  Datagram descriptor{static_cast<uint8_t>(wire.size()), 12, 0, static_cast<uint8_t>(12 + wire.size())};
  put(descriptor, secret.size(), 2);
  put(descriptor, 12 + wire.size(), 2);
  put(descriptor, 0, 2);
  put(descriptor, 12 + wire.size() + secret.size(), 2);
  return request_datagram(66562, 1, descriptor, wire + secret);
}

Datagram aes_ecb(uint8_t vdc, const std::string &name, const Datagram &data) {
  const Datagram wire = name_of(kSecretTag, vdc, name);
  Datagram descriptor{static_cast<uint8_t>(wire.size()), 8};
  put(descriptor, data.size(), 2);
  put(descriptor, 8 + wire.size(), 4);
  return request_datagram(66577, 1, descriptor, wire + data);
}

void prepare(uid_t uid, const std::string &socket) {
  const int status = ks_test::run_as(uid, uid, [&] {
    RawClient client(socket);
    const auto stores = [&](const Datagram &datagram) {
      return client.send(datagram) && client.receive()->result() == 1;
    };
    return stores(store_secret(kVdc, "key", Datagram(16, 'k'))) && stores(store_pac()) ? 0 : 1;
  });
  if (status != 0) throw std::runtime_error("can't store");
}

std::vector<Storm> all() {
  return {of("T-PRF over 131 KB", t_prf(65535, 65535)),
          of("T-PRF over 2 KB", t_prf(1024, 1024)),
          of("AES of 64 KB", aes_ecb(kVdc, "key", Datagram(65520, 'd'))),
          of("HMAC of 64 KB", hmac("key", 65535)),
          of("AES of 16 bytes", aes_ecb(kVdc, "key", Datagram(16, 'd'))),
          {"walks by index", walk},
          {"stores of 30 KB", store_a_lot},
          of("hellos", request_datagram(1, 1, {})),
          of("malformed datagrams", {0}),
          {"unread replies", pipeline},
          {"connects", connect_and_leave},
          {"connects with a hello", connect_and_greet},
          {"silent connections", say_nothing},
          {"system calls of its own", do_without_the_service}};
}

Attackers::Attackers(uid_t uid, const std::string &socket, const Storm &storm, unsigned threads)
    : pid_(ks_test::start_as(uid, uid, [&] {
        std::vector<std::thread> all;
        for (unsigned number = 0; number < threads; ++number) {
          all.emplace_back([&, number] {
            while (true) {
              try {
                storm.turn(socket, number);
              } catch (const std::exception &) {
                continue;  // turned away: once more
              }
            }
          });
        }
        for (std::thread &thread : all) thread.join();
        return 0;
      })) {}

Attackers::~Attackers() {
  kill(pid_, SIGKILL);
  ks_test::wait_for(pid_);
}

}  // namespace storms
