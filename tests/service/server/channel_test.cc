// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The service's end of a channel, beside a client that writes there whatever it likes, whenever it likes.
#include "server/channel.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "host_channel.h"
#include "server/memory_guard.h"

namespace {

using ksd::UniqueFd;
using ksd::server::Channel;
using Came = ksd::server::Channel::Came;
using std::chrono::milliseconds;

constexpr size_t kRoom = 64 * 1024;
constexpr uint8_t kUntouched = 0xee;

// Both ends of a channel in one process. The client's is a mapping of its own.
class BothEnds : public testing::Test {
 protected:
  BothEnds() : channel(Channel::make(file)), buffer(kRoom, kUntouched) {
    client = static_cast<HostChannel *>(
        mmap(nullptr, sizeof(HostChannel), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0));
  }
  ~BothEnds() override { munmap(client, sizeof(HostChannel)); }

  Channel::Arrival wait(milliseconds limit = milliseconds(20)) { return channel->wait(buffer, limit); }

  UniqueFd file;
  std::unique_ptr<Channel> channel;
  std::vector<uint8_t> buffer;
  HostChannel *client;
};

TEST_F(BothEnds, MemoryCanNeitherBeCutNorGrowNorBeUnsealed) {
  EXPECT_EQ(lseek(file.get(), 0, SEEK_END), static_cast<off_t>(sizeof(HostChannel)));
  EXPECT_EQ(ftruncate(file.get(), 0), -1);
  EXPECT_EQ(ftruncate(file.get(), 1 << 20), -1);
  EXPECT_EQ(fallocate(file.get(), 0, sizeof(HostChannel), 4096), -1);
  EXPECT_EQ(fcntl(file.get(), F_ADD_SEALS, F_SEAL_FUTURE_WRITE), -1);
  EXPECT_NE(fcntl(file.get(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(BothEnds, RequestIsCopiedAndWiped) {
  std::memset(client->request_area, 0x5a, 100);
  client->request.size = 100;
  client->request.word = 1;

  const Channel::Arrival arrival = wait();

  EXPECT_EQ(arrival.came, Came::kRequest);
  EXPECT_EQ(arrival.sent_size, 100u);
  EXPECT_EQ(buffer[99], 0x5a);
  EXPECT_EQ(buffer[100], kUntouched);
  EXPECT_EQ(client->request_area[99], 0);
  EXPECT_EQ(client->request.word, 1 | HOST_CHANNEL_TAKEN);
}

TEST_F(BothEnds, ReplyRepeatsTheSerialNumberAndWakes) {
  client->request.size = 32;
  client->request.word = 77;
  std::thread sleeper([this] {
    while (host::serial_of(host::read_word(&client->reply.word)) != 77) {
      host::replace_word(&client->reply.word, 0, HOST_CHANNEL_WAITING);
      host::sleep_on(&client->reply.word, HOST_CHANNEL_WAITING, nullptr);
    }
  });
  EXPECT_EQ(wait().came, Came::kRequest);

  const std::vector<uint8_t> reply(40, 7);
  EXPECT_TRUE(channel->reply(reply));

  sleeper.join();
  EXPECT_EQ(client->reply.word, 77u);
  EXPECT_EQ(client->reply.size, 40u);
  EXPECT_EQ(client->reply_area[39], 7);
  EXPECT_EQ(wait().came, Came::kNothing) << "the same request doesn't come twice";
}

TEST_F(BothEnds, LargeRepliesAreSaidToBeOnTheSocket) {
  EXPECT_TRUE(Channel::has_room_for(sizeof client->reply_area));
  EXPECT_FALSE(Channel::has_room_for(sizeof client->reply_area + 1));
  EXPECT_TRUE(channel->reply_on_socket());
  EXPECT_EQ(client->reply.size, HOST_CHANNEL_ON_SOCKET);
}

TEST_F(BothEnds, WaitIsWokenByARequest) {
  std::thread sender([this] {
    while ((host::read_word(&client->request.word) & HOST_CHANNEL_WAITING) == 0) std::this_thread::yield();
    bool woken = false;
    while (!woken) {  // once it is on its way to sleep
      host::post(&client->request.word, HOST_CHANNEL_WAITING | 5, &woken);
    }
  });
  EXPECT_EQ(channel->wait(buffer, std::nullopt).came, Came::kRequest);
  sender.join();
}

TEST_F(BothEnds, EndAnswersWhatCameBeforeAndNothingBehindIt) {
  client->request.word = 1;
  channel->end();

  EXPECT_EQ(wait().came, Came::kRequest);
  EXPECT_NE(client->request.word & HOST_CHANNEL_OVER, 0u) << "the client learns that the next one goes nowhere";
  bool woken;
  host::post(&client->request.word, 2, &woken);
  EXPECT_EQ(wait().came, Came::kRequest) << "what the client puts over it is answered at most";
  EXPECT_EQ(wait().came, Came::kEnd);
}

TEST_F(BothEnds, EndReachesWhoSleeps) {
  std::atomic<bool> over = false;
  std::thread served([&] {
    EXPECT_EQ(channel->wait(buffer, std::nullopt).came, Came::kEnd);
    over = true;
  });
  while (!over) channel->end();
  served.join();
}

TEST_F(BothEnds, ClientLearnsThatNobodyLooksAnyMore) {
  channel.reset();
  EXPECT_EQ(client->reply.word, HOST_CHANNEL_OVER);
}

// What a client may have written when the service looks, and what comes of it.
struct Writing {
  const char *name;
  uint32_t word;
  uint32_t size;
  Came came;
  size_t sent_size;
  size_t copied;
};

constexpr uint32_t kAll = HOST_CHANNEL_WAITING | HOST_CHANNEL_OVER | HOST_CHANNEL_TAKEN;
constexpr size_t kArea = sizeof(HostChannel::request_area);
constexpr size_t kTooMuch = HOST_WIRE_MAX_DATAGRAM + 1;

const Writing kWritings[] = {
    {"NothingAtAll", 0, 0, Came::kNothing, 0, 0},
    {"ASizeWithoutARequest", 0, 100, Came::kNothing, 0, 0},
    {"EmptyRequest", 1, 0, Came::kRequest, 0, 0},
    {"OneByte", 1, 1, Came::kRequest, 1, 1},
    {"AllOfTheArea", 1, kArea, Came::kRequest, kArea, kArea},
    {"AByteMoreThanTheArea", 1, kArea + 1, Came::kRequest, kTooMuch, kArea},
    {"UpToTheEndOfTheMemory", 1, sizeof(HostChannel), Came::kRequest, kTooMuch, kArea},
    {"MoreThanTheMemory", 1, sizeof(HostChannel) + 1, Came::kRequest, kTooMuch, kArea},
    {"MoreThanADatagram", 1, HOST_WIRE_MAX_DATAGRAM + 1, Came::kRequest, kTooMuch, kArea},
    {"HalfOfAllSizes", 1, UINT32_C(1) << 31, Came::kRequest, kTooMuch, kArea},
    {"TheLargestSize", 1, UINT32_MAX - 1, Came::kRequest, kTooMuch, kArea},
    {"OnTheSocket", 1, HOST_CHANNEL_ON_SOCKET, Came::kOnSocket, 0, 0},
    {"TheLargestSerialNumber", HOST_CHANNEL_SERIAL, 32, Came::kRequest, 32, 32},
    {"ASerialNumberFarAhead", 123456789, 32, Came::kRequest, 32, 32},
    {"ARequestThatSaysItWasTaken", 1 | HOST_CHANNEL_TAKEN, 32, Came::kRequest, 32, 32},
    {"ARequestThatSaysTheServiceWaits", 1 | HOST_CHANNEL_WAITING, 32, Came::kRequest, 32, 32},
    {"TakenWithoutARequest", HOST_CHANNEL_TAKEN, 32, Came::kNothing, 0, 0},
    {"WaitingWithoutARequest", HOST_CHANNEL_WAITING, 32, Came::kNothing, 0, 0},
    {"TheEnd", HOST_CHANNEL_OVER, 32, Came::kEnd, 0, 0},
    {"TheEndBeforeARequest", 1 | HOST_CHANNEL_OVER, 32, Came::kEnd, 0, 0},
    {"AllFlags", kAll, 32, Came::kEnd, 0, 0},
    {"AllBits", UINT32_MAX, UINT32_MAX - 1, Came::kEnd, 0, 0},
};

class HostileWriting : public BothEnds, public testing::WithParamInterface<Writing> {};

TEST_P(HostileWriting, ComesToWhatIsTold) {
  const Writing &writing = GetParam();
  std::memset(client->request_area, 0x5a, sizeof client->request_area);
  std::memset(client->reply_area, 0x5b, sizeof client->reply_area);
  client->request.size = writing.size;
  client->request.word = writing.word;

  const Channel::Arrival arrival = wait(milliseconds(2));

  EXPECT_EQ(arrival.came, writing.came);
  EXPECT_EQ(arrival.sent_size, writing.sent_size);
  const size_t copied = static_cast<size_t>(std::count(buffer.begin(), buffer.end(), 0x5a));
  EXPECT_EQ(copied, writing.copied);
  EXPECT_EQ(std::count(buffer.begin(), buffer.end(), kUntouched), static_cast<ptrdiff_t>(kRoom - copied));
}

INSTANTIATE_TEST_SUITE_P(Channel, HostileWriting, testing::ValuesIn(kWritings),
                         [](const auto &test) { return test.param.name; });

// What a client may go on doing while the service looks. None of it keeps a thread of the service busy or asleep for
// good.
struct Doing {
  const char *name;
  std::function<void(HostChannel &)> once_more;
  Came came;
};

const Doing kDoings[] = {
    {"ClearsTheWord",
     [](HostChannel &channel) {
       __atomic_store_n(&channel.request.word, 0, __ATOMIC_RELEASE);
       host::wake(&channel.request.word);
     },
     Came::kNonsense},
    {"TogglesAFlag",
     [](HostChannel &channel) {
       __atomic_xor_fetch(&channel.request.word, HOST_CHANNEL_TAKEN, __ATOMIC_RELEASE);
       host::wake(&channel.request.word);
     },
     Came::kNonsense},
    {"WakesWithoutARequest", [](HostChannel &channel) { host::wake(&channel.request.word); }, Came::kNonsense},
    {"ChangesTheSize", [](HostChannel &channel) { __atomic_add_fetch(&channel.request.size, 1, __ATOMIC_RELEASE); },
     Came::kNothing},
    {"WritesTheReplysWord", [](HostChannel &channel) { __atomic_add_fetch(&channel.reply.word, 1, __ATOMIC_RELEASE); },
     Came::kNothing},
};

class HostileDoing : public BothEnds, public testing::WithParamInterface<Doing> {};

TEST_P(HostileDoing, EndsInTime) {
  std::atomic<bool> stop = false;
  std::thread player([&] {
    while (!stop) GetParam().once_more(*client);
  });

  // What gets in the way is noticed at once, however long the service would wait.
  const bool is_noticed = GetParam().came == Came::kNonsense;
  const Channel::Arrival arrival = wait(is_noticed ? milliseconds(60'000) : milliseconds(100));
  stop = true;
  player.join();

  EXPECT_EQ(arrival.came, GetParam().came);
}

INSTANTIATE_TEST_SUITE_P(Channel, HostileDoing, testing::ValuesIn(kDoings),
                         [](const auto &test) { return test.param.name; });

TEST_F(BothEnds, EachNumberIsReadOnce) {
  client->request.size = 40;
  std::atomic<bool> stop = false;
  std::thread player([&] {
    while (!stop) {
      __atomic_store_n(&client->request.size, 40, __ATOMIC_RELAXED);
      __atomic_store_n(&client->request.size, UINT32_MAX - 1, __ATOMIC_RELAXED);
    }
  });
  for (uint32_t serial = 1; serial < 2000; ++serial) {
    __atomic_store_n(&client->request.word, serial, __ATOMIC_RELEASE);
    std::memset(buffer.data(), kUntouched, kArea + 1);
    const Channel::Arrival arrival = wait();
    EXPECT_EQ(arrival.came, Came::kRequest);
    EXPECT_TRUE(arrival.sent_size == 40 || arrival.sent_size == kTooMuch);
    EXPECT_EQ(buffer[40] == kUntouched, arrival.sent_size == 40) << "as much was copied as was told";
    EXPECT_EQ(buffer[kArea], kUntouched);
  }
  stop = true;
  player.join();
}

TEST_F(BothEnds, PagesThatAreTakenOutAreMissedByNobody) {
  client->request.word = 1;
  client->request.size = 32;
  ASSERT_EQ(fallocate(file.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, sizeof(HostChannel)), 0);

  EXPECT_EQ(wait(milliseconds(2)).came, Came::kNothing);
  EXPECT_TRUE(channel->reply(std::vector<uint8_t>(40, 7)));
}

// As when the machine has no page to give for one that was taken out.
TEST(MemoryGuard, EndsATouchOfMemoryThatIsGoneAndNotTheProcess) {
  ksd::server::catch_bus_errors();
  const UniqueFd file(memfd_create("cut", MFD_CLOEXEC));
  ASSERT_EQ(ftruncate(file.get(), sizeof(HostChannel)), 0);
  void *memory = mmap(nullptr, sizeof(HostChannel), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
  ASSERT_NE(memory, MAP_FAILED);
  ASSERT_EQ(ftruncate(file.get(), 0), 0);
  std::vector<uint8_t> buffer(kRoom);
  const std::vector<uint8_t> largest(sizeof HostChannel::reply_area);

  Channel channel(static_cast<HostChannel *>(memory));

  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(channel.wait(buffer, std::nullopt).came, Came::kNonsense);
    EXPECT_FALSE(channel.reply(largest));
    EXPECT_FALSE(channel.reply_on_socket());
    channel.end();
  }
}

TEST(MemoryGuardDeathTest, LetsOtherBusErrorsEndTheProcess) {
  ksd::server::catch_bus_errors();
  EXPECT_EXIT(raise(SIGBUS), testing::KilledBySignal(SIGBUS), "");
}

}  // namespace
