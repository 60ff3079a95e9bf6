// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// client.h: the message service as a program uses it, for its tests.
#ifndef TESTS_HOST_MTS_CLIENT_H
#define TESTS_HOST_MTS_CLIENT_H

#include <cstdlib>
#include <string>

#include "fake_service/fake_service.h"
#include "host_mts.h"
#include "mts.h"

// Answer is what an exchange came to.
struct Answer {
  uint32_t sent = MTS_FAILED;
  uint32_t received = MTS_FAILED;
  uint32_t error = 0;  // of mts_errno_get, after a failure
  Octets payload;
};

inline uint32_t bind_as(uint32_t app_uuid) {
  const KsBindTemplate bind = {.word0 = 1, .word1 = 0, .word2 = 1024, .app_uuid = app_uuid, .word4 = 0, .word5 = 15};
  return mts_bind(1, 0, &bind, 0);
}

// A store, unless said otherwise: of its reply nothing is read but the result, so that the rest may be anything.
inline uint32_t send_sections(uint32_t queue, const Octets &descriptor, const std::vector<KsSection> &sections,
                              KsMtsMessage *sent, uint32_t opcode = 66562) {
  KsSendOptions options = {};
  options.select = 1;
  options.sections = sections.data();
  options.section_count = static_cast<uint32_t>(sections.size());
  return mts_send(queue, KS_SERVICE_NODE, KS_SERVICE_SAP, opcode, descriptor.empty() ? nullptr : descriptor.data(),
                  static_cast<uint32_t>(descriptor.size()), sent, 0, sections.empty() ? nullptr : &options);
}

inline uint32_t receive_by(uint32_t queue, uint32_t token, KsMtsMessage *received) {
  KsRecvOptions options = {};
  options.select = 1;
  options.token = token;
  return mts_recv(queue, received, &options);
}

inline Octets payload_of(const KsMtsMessage &received) {
  const auto *bytes = static_cast<const uint8_t *>(mts_payload_get(&received));
  return Octets(bytes, bytes + mts_payload_size(&received));
}

inline Answer exchange(uint32_t queue, const Octets &descriptor, const std::vector<KsSection> &sections = {},
                       uint32_t opcode = 66562) {
  Answer answer;
  KsMtsMessage sent;
  KsMtsMessage received;
  answer.sent = send_sections(queue, descriptor, sections, &sent, opcode);
  if (answer.sent == MTS_FAILED) {
    answer.error = mts_errno_get(queue);
    return answer;
  }
  answer.received = receive_by(queue, mts_rr_token_get(&sent), &received);
  if (answer.received == MTS_FAILED) {
    answer.error = mts_errno_get(queue);
    mts_drop(queue, &sent);
    return answer;
  }
  answer.payload = payload_of(received);
  mts_drop(queue, &sent);
  mts_drop(queue, &received);
  return answer;
}

// Why the thread's last call failed.
inline std::string why() {
  char text[512];
  memset(text, 'x', sizeof text);
  const std::string told = mts_last_error_get(text, sizeof text);
  EXPECT_LT(told.size(), sizeof text - 1) << "512 bytes hold any";
  return told;
}

// Tests of owners need a process that can change them, as in CI.
#define NEEDS_ROOT() \
  if (geteuid() != 0) GTEST_SKIP() << "needs root"

inline constexpr uid_t kSomebody = 12345;

// Runs a service as `user` at `path` for as long as `body` takes.
inline bool while_served_by(uid_t user, const std::string &path, const std::function<bool()> &body) {
  int ready[2];
  int end[2];
  if (pipe(ready) != 0 || pipe(end) != 0) abort();
  const pid_t child = fork();
  if (child == 0) {
    close(end[1]);
    FakeService served(path);
    // Who listens is who is known at the other end.
    if (setresuid(user, user, 0) != 0) _exit(1);
    served.start();
    char byte = 0;
    if (write(ready[1], &byte, 1) != 1) _exit(1);
    _exit(read(end[0], &byte, 1) == 0 ? 0 : 1);
  }
  char byte;
  if (read(ready[0], &byte, 1) != 1) abort();
  const bool result = body();
  close(end[1]);
  waitpid(child, nullptr, 0);
  for (const int number : {ready[0], ready[1], end[0]}) close(number);
  return result;
}

// A new service in a new folder for each test, and KS_SOCKET pointing there.
class Mts : public testing::Test {
 protected:
  Mts() { setenv("KS_SOCKET", socket_path().c_str(), 1); }

  std::string socket_path() const { return folder_.path() + "/ksd.sock"; }

  // Starts the service and binds to it.
  uint32_t bound() {
    service.start();
    return bind_as(0x11223344);
  }

  // Tells whether an exchange brings back what was sent, as the service does by default.
  static bool works(uint32_t queue) {
    const Octets descriptor = {9, 8, 7};
    return exchange(queue, descriptor).payload == Octets{1, 0, 0, 0, 9, 8, 7};
  }

 private:
  TemporaryFolder folder_;

 protected:
  // What the service's threads may still look at when a test's own variables are gone.
  Signal held;
  Signal answered;
  FakeService service{socket_path()};
};

#endif
