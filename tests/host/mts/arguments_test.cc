// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What callers may pass, how much there may be of it, and what is left of it afterwards.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <thread>

#include "client.h"

namespace {

uint32_t error_of(uint32_t queue) {
  return mts_errno_get(queue);
}

TEST_F(Mts, RefusesMissingArguments) {
  const uint32_t queue = bound();
  EXPECT_EQ(mts_bind(1, 0, nullptr, 0), MTS_FAILED);
  EXPECT_EQ(error_of(queue), static_cast<uint32_t>(EINVAL));

  EXPECT_EQ(mts_send(queue, KS_SERVICE_NODE, KS_SERVICE_SAP, 66561, nullptr, 0, nullptr, 0, nullptr), MTS_FAILED);
  EXPECT_EQ(error_of(queue), static_cast<uint32_t>(EINVAL));

  const uint8_t byte = 1;
  KsMtsMessage sent;
  KsSendOptions sections = {};
  sections.section_count = 1;
  EXPECT_EQ(mts_send(queue, 0, 0, 1, &byte, 1, &sent, 0, &sections), MTS_FAILED) << "a section, and no list";
  EXPECT_EQ(error_of(queue), static_cast<uint32_t>(EINVAL));
  EXPECT_EQ(exchange(queue, {}, {{nullptr, 1}}).error, static_cast<uint32_t>(EINVAL));

  ASSERT_EQ(send_sections(queue, {1}, {}, &sent), 0U);
  KsMtsMessage received;
  KsRecvOptions options = {};
  options.select = 1;
  options.token = mts_rr_token_get(&sent);
  EXPECT_EQ(mts_recv(queue, nullptr, &options), MTS_FAILED);
  EXPECT_EQ(error_of(queue), static_cast<uint32_t>(EINVAL));
  EXPECT_EQ(mts_recv(queue, &received, nullptr), MTS_FAILED);
  EXPECT_EQ(error_of(queue), static_cast<uint32_t>(EINVAL));
  EXPECT_EQ(mts_recv(MTS_FAILED, &received, &options), MTS_FAILED);
  EXPECT_EQ(error_of(queue), static_cast<uint32_t>(EBADF));
  ASSERT_EQ(mts_recv(queue, &received, &options), 0U) << "the reply is there still";
  mts_drop(queue, &received);

  EXPECT_EQ(mts_rr_token_get(nullptr), 0U);
  EXPECT_EQ(mts_payload_get(nullptr), nullptr);
  EXPECT_EQ(mts_payload_size(nullptr), 0U);
  mts_drop(queue, nullptr);
  EXPECT_TRUE(works(queue));
}

// A process has so many, so they are taken in a child.
TEST_F(Mts, BindsTwoHundredAndFiftySixApplications) {
  service.start();
  EXPECT_TRUE(passes_in_child([] {
    uint32_t before = 0;
    while (before < 255 && bind_as(1'000 + before) != MTS_FAILED) before++;
    for (uint32_t other = 0; bind_as(70'000 + other) != MTS_FAILED; other++) before++;
    return error_of(1) == ENOSPC && before <= 256 && works(256) && bind_as(1'000) != MTS_FAILED &&
           exchange(257, {1}).error == EBADF && exchange(0, {1}).error == EBADF;
  }));
}

// More than are made at once, each with a reply of its own.
TEST_F(Mts, CarriesManyExchangesAtATime) {
  const uint32_t queue = bound();
  constexpr uint8_t kCount = 150;
  std::vector<KsMtsMessage> sent(kCount);
  for (uint8_t i = 0; i < kCount; i++) ASSERT_EQ(send_sections(queue, {i}, {}, &sent[i]), 0U);
  for (uint8_t i = kCount; i-- > 0;) {
    KsMtsMessage received;
    ASSERT_EQ(receive_by(queue, mts_rr_token_get(&sent[i]), &received), 0U);
    EXPECT_EQ(payload_of(received), (Octets{1, 0, 0, 0, i}));
    mts_drop(queue, &received);
    mts_drop(queue, &sent[i]);
  }
  EXPECT_EQ(service.connections(), size_t{kCount});
  for (uint8_t i = 0; i < kCount; i++) ASSERT_EQ(send_sections(queue, {i}, {}, &sent[i]), 0U);
  EXPECT_EQ(service.connections(), size_t{kCount}) << "all of them are used again";
  for (uint8_t i = 0; i < kCount; i++) mts_drop(queue, &sent[i]);
  service.wait_until_closed(kCount);
}

// There are 4096 connections at most.
TEST_F(Mts, LosesNoConnectionByFailing) {
  const uint32_t queue = bound();
  service.stop();
  for (int i = 0; i < 5'000; i++) ASSERT_EQ(exchange(queue, {1}).error, static_cast<uint32_t>(ECONNREFUSED)) << i;
  service.start();
  EXPECT_TRUE(works(queue));
}

TEST_F(Mts, GivesAnIdleConnectionToAnotherThread) {
  const uint32_t queue = bound();
  EXPECT_TRUE(passes_in_child([&] {
    bool right = works(queue);
    std::thread([&] { right = right && works(queue); }).join();
    return right;
  }));
  EXPECT_EQ(service.connections(), 2U) << "the binding's, and one of the child's";
}

// The kernel then keeps thread and service on one processor.
TEST_F(Mts, KeepsEachThreadToItsConnection) {
  const uint32_t queue = bound();
  KsMtsMessage mine;
  ASSERT_EQ(send_sections(queue, {1}, {}, &mine), 0U);
  std::thread([&] {
    KsMtsMessage received;
    const auto connection = [&] {  // by its number in the token
      KsMtsMessage sent;
      EXPECT_EQ(send_sections(queue, {2}, {}, &sent), 0U);
      EXPECT_EQ(receive_by(queue, mts_rr_token_get(&sent), &received), 0U);
      mts_drop(queue, &received);
      return mts_rr_token_get(&sent) & 0xfff;
    };
    const uint32_t own = connection();
    EXPECT_EQ(receive_by(queue, mts_rr_token_get(&mine), &received), 0U);
    mts_drop(queue, &received);
    EXPECT_EQ(connection(), own) << "though another is free";
  }).join();
}

TEST_F(Mts, FindsNoPayloadInWhatWasSentOrDropped) {
  const uint32_t queue = bound();
  KsMtsMessage sent;
  KsMtsMessage received;
  ASSERT_EQ(send_sections(queue, {1}, {}, &sent), 0U);
  ASSERT_EQ(receive_by(queue, mts_rr_token_get(&sent), &received), 0U);
  mts_drop(queue, &received);
  for (const KsMtsMessage *message : {&sent, &received}) {
    EXPECT_EQ(mts_payload_get(message), nullptr);
    EXPECT_EQ(mts_payload_size(message), 0U);
  }
  EXPECT_EQ(mts_rr_token_get(&received), 0U);
}

TEST_F(Mts, GivesAChildTokensThatAreNoneOfItsParents) {
  const uint32_t queue = bound();
  EXPECT_TRUE(passes_in_child([&] {
    KsMtsMessage sent;
    if (send_sections(queue, {1}, {}, &sent) != 0) return false;
    const uint32_t token = mts_rr_token_get(&sent);
    return passes_in_child([&] {
      KsMtsMessage own;
      KsMtsMessage received;
      return send_sections(queue, {2}, {}, &own) == 0 && receive_by(queue, token, &received) == MTS_FAILED &&
             receive_by(queue, mts_rr_token_get(&own), &received) == 0 && payload_of(received) == Octets{1, 0, 0, 0, 2};
    });
  }));
}

TEST_F(Mts, GoesWhereTheLatestBindingWent) {
  const uint32_t queue = bound();
  ASSERT_TRUE(works(queue));
  const std::string elsewhere = socket_path() + ".2";
  FakeService other(elsewhere);
  other.start();
  setenv("KS_SOCKET", elsewhere.c_str(), 1);
  EXPECT_TRUE(works(queue));
  EXPECT_EQ(other.connections(), 0U) << "not before it is bound there";

  EXPECT_EQ(bind_as(0x11223344), queue);
  EXPECT_TRUE(works(queue));
  EXPECT_EQ(other.requests().size(), 1U);
  setenv("KS_SOCKET", socket_path().c_str(), 1);
  EXPECT_EQ(bind_as(0x11223344), queue);
  EXPECT_TRUE(works(queue));
  EXPECT_EQ(other.requests().size(), 1U);
  EXPECT_EQ(service.requests().size(), 3U);
}

// As when a program opens files under the numbers of descriptors that it closed without knowing whose they were.
TEST_F(Mts, GoesOnWhenItsDescriptorBelongsToAFile) {
  const uint32_t queue = bound();
  works(queue);
  EXPECT_TRUE(passes_in_child([&] {
    if (!works(queue)) return false;
    const int file = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int number = 3; number < 200; number++) {
      if (number != file) dup2(file, number);
    }
    if (!works(queue)) return false;
    struct stat status;  // the file's own descriptor is still the file
    return fstat(file, &status) == 0 && S_ISCHR(status.st_mode);
  }));
}

// Looks for the bytes, each with `mask`, in all that this process may write to but `except`.
bool is_in_memory(const Octets &masked, uint8_t mask, const void *except) {
  const std::unique_ptr<FILE, int (*)(FILE *)> maps(fopen("/proc/self/maps", "re"), fclose);
  char line[512];
  while (fgets(line, sizeof line, maps.get()) != nullptr) {
    uintptr_t start = 0;
    uintptr_t end = 0;
    char mode[5] = "";
    if (sscanf(line, "%" SCNxPTR "-%" SCNxPTR " %4s", &start, &end, mode) != 3 || mode[0] != 'r' || mode[1] != 'w') {
      continue;
    }
    if (reinterpret_cast<uintptr_t>(except) == start) continue;
    for (uintptr_t at = start; at + masked.size() <= end; at++) {
      const auto *bytes = reinterpret_cast<const uint8_t *>(at);
      size_t same = 0;
      while (same < masked.size() && (bytes[same] ^ mask) == masked[same]) same++;
      if (same == masked.size()) return true;
    }
  }
  return false;
}

TEST_F(Mts, LeavesNothingOfAnExchangeInMemory) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "sanitizers map what must not be read";
#endif
  const uint32_t queue = bound();
  works(queue);
  EXPECT_TRUE(passes_in_child([&] {
    if (!works(queue)) return false;
    // The secret exists in one page only, and what is looked for is its mask.
    constexpr uint8_t kMask = 0x5a;
    Octets masked(32);
    for (size_t i = 0; i < masked.size(); i++) masked[i] = static_cast<uint8_t>(i * 73 + 19);
    auto *page = static_cast<uint8_t *>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    for (size_t i = 0; i < masked.size(); i++) page[i] = masked[i] ^ kMask;
    const KsSection section = {page, 32};
    KsSendOptions sections = {};
    sections.select = 1;
    sections.sections = &section;
    sections.section_count = 1;
    KsMtsMessage sent;
    KsMtsMessage received;
    if (mts_send(queue, 0, 0, 66562, nullptr, 0, &sent, 0, &sections) != 0) return false;
    if (!is_in_memory(masked, kMask, page)) return false;  // the request, and so this search finds it
    if (receive_by(queue, mts_rr_token_get(&sent), &received) != 0) return false;
    if (!is_in_memory(masked, kMask, page)) return false;  // the reply
    mts_drop(queue, &sent);
    mts_drop(queue, &received);
    return !is_in_memory(masked, kMask, page);
  }));
}

// What didn't fit was cut, and what fitted is in the buffer.
TEST_F(Mts, LeavesNothingOfAReplyThatIsTooLargeInMemory) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "sanitizers map what must not be read";
#endif
  constexpr uint8_t kMask = 0x5a;
  constexpr size_t kMaskedAt = 150'000;
  // The service sends what the request has, masked, so that the child never has it but from the reply.
  service.handler = [](int socket, const FakeService::Request &request) {
    Octets payload(192 * 1024 + 1);
    for (size_t i = 0; i < request.payload.size(); i++) payload[kMaskedAt + i] = request.payload[i] ^ kMask;
    return FakeService::reply(socket, request, payload);
  };
  const uint32_t queue = bound();
  EXPECT_TRUE(passes_in_child([&] {
    Octets masked(32);
    for (size_t i = 0; i < masked.size(); i++) masked[i] = static_cast<uint8_t>(i * 41 + 7);  // as no other test has it
    return ::exchange(queue, masked).error == EMSGSIZE && !is_in_memory(masked, kMask, nullptr);
  }));
}

}  // namespace
