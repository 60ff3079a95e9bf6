// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What a program is told when its binding or exchange failed: the socket, what was met there, and what to do.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <thread>

#include "client.h"
#include "socket_hooks.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

class LastError : public Mts {
 protected:
  std::string folder() const { return socket_path().substr(0, socket_path().rfind('/')); }

  // What a binding at that path fails with.
  static std::string at(const std::string &path) {
    setenv("KS_SOCKET", path.c_str(), 1);
    EXPECT_EQ(bind_as(1), MTS_FAILED);
    return why();
  }
  std::string here() const { return at(socket_path()); }
};

constexpr char kStart[] =
    "Start the service, ksd, or run the program under `ks-session --`; KS_SOCKET names another socket";

TEST_F(LastError, IsEmptyBeforeAnythingFailedAndAfterASuccess) {
  std::thread([] { EXPECT_EQ(why(), ""); }).join();
  const uint32_t queue = bound();
  EXPECT_EQ(why(), "");
  service.stop();
  EXPECT_EQ(exchange(queue, {1}).sent, MTS_FAILED);
  EXPECT_NE(why(), "");
  service.start();
  EXPECT_TRUE(works(queue));
  EXPECT_EQ(why(), "");
  EXPECT_NE(mts_errno_get(queue), 0U) << "the number stays, as the library reports it";
}

TEST_F(LastError, SaysThatThereIsNoService) {
  EXPECT_EQ(here(), socket_path() + ": no keystore service is there (No such file or directory). " + kStart);
}

TEST_F(LastError, SaysThatThereIsNoFolder) {
  const std::string path = folder() + "/none/s";
  EXPECT_EQ(at(path),
            path + ": no keystore service is there: the folder doesn't exist (No such file or directory). " + kStart);
}

TEST_F(LastError, SaysThatNobodyListensAnyMore) {
  service.start();
  service.stop();
  EXPECT_EQ(here(), socket_path() +
                        ": no keystore service listens at the socket any more (Connection refused). Start the "
                        "service, ksd, again; its log says why it ended");
}

TEST_F(LastError, SaysThatThisIsNoSocket) {
  close(open(socket_path().c_str(), O_CREAT | O_WRONLY, 0600));
  EXPECT_EQ(here(),
            socket_path() + ": this isn't a socket (Connection refused). Have KS_SOCKET name the service's socket");
  ASSERT_EQ(mkdir((folder() + "/d").c_str(), 0700), 0);
  EXPECT_THAT(at(folder() + "/d"), HasSubstr("/d: this isn't a socket"));
}

TEST_F(LastError, SaysThatThisIsASocketOfAnotherKind) {
  const int stream = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  strcpy(address.sun_path, socket_path().c_str());
  ASSERT_EQ(bind(stream, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
  ASSERT_EQ(listen(stream, 1), 0);
  EXPECT_EQ(here(), socket_path() +
                        ": this socket is of another kind than a keystore service's (Protocol wrong type for "
                        "socket). Have KS_SOCKET name the service's socket");
  close(stream);
}

TEST_F(LastError, SaysThatThePathIsTooLong) {
  const std::string path = "/" + std::string(107, 'p');
  EXPECT_EQ(at(path), path +
                          ": this path is longer than the 107 bytes that a socket's may have (File name too long). "
                          "Have KS_SOCKET name a shorter one, through a symbolic link if need be");
  EXPECT_THAT(at("/" + std::string(4000, 'p')), StartsWith("/" + std::string(119, 'p') + "...: this path is longer"));
}

TEST_F(LastError, NamesTheFolderThatOthersMayWrite) {
  const std::string inner = folder() + "/a";
  ASSERT_EQ(mkdir(inner.c_str(), 0700), 0);
  ASSERT_EQ(mkdir((inner + "/b").c_str(), 0700), 0);
  const std::string path = inner + "/b/s";
  const auto told = [&path](const std::string &open) {
    return path + ": others could put a socket of theirs there, as they may write the folder " + open +
           " (Operation not permitted). Run chmod go-w on it, or have KS_SOCKET name a socket in a folder that only "
           "its owner writes";
  };
  for (const std::string &open : {inner + "/b", inner, folder()}) {
    ASSERT_EQ(chmod(open.c_str(), 0777), 0);
    EXPECT_EQ(at(path), told(open));
    ASSERT_EQ(chmod(open.c_str(), 0700), 0);
  }
}

TEST_F(LastError, SaysWhoListensInThePlaceOfTheService) {
  NEEDS_ROOT();
  ASSERT_EQ(chmod(folder().c_str(), 0777), 0);
  EXPECT_TRUE(while_served_by(kSomebody, socket_path(), [&] {
    EXPECT_EQ(chmod(folder().c_str(), 0755), 0);
    EXPECT_EQ(here(), socket_path() +
                          ": user 12345 listens there, who is neither root nor this user nor the folder's owner "
                          "(Operation not permitted). Nothing was sent. Find out who that is; KS_SOCKET names another "
                          "socket");
    return true;
  }));
}

TEST_F(LastError, SaysWhichUserMayNotConnectToWhat) {
  NEEDS_ROOT();
  service.start();
  ASSERT_EQ(chmod(folder().c_str(), 0755), 0);
  ASSERT_EQ(chmod(socket_path().c_str(), 0660), 0);
  ASSERT_EQ(chown(socket_path().c_str(), 0, 77), 0);
  EXPECT_TRUE(passes_in_child([&] {
    return setresuid(12345, 12345, 12345) == 0 &&
           here() == socket_path() +
                         ": user 12345 may not connect to this socket of mode 0660, user 0 and group 77 (Permission "
                         "denied). Add the user to the group, or change socket_mode or socket_group in the service's "
                         "configuration";
  }));
  ASSERT_EQ(chmod(folder().c_str(), 0700), 0);
  EXPECT_TRUE(passes_in_child([&] {
    return setresuid(12345, 12345, 12345) == 0 &&
           here() ==
               socket_path() +
                   ": user 12345 may not reach the folder of the socket (Permission denied). Have its owner allow "
                   "it (chmod o+x), or have KS_SOCKET name another socket";
  }));
}

TEST_F(LastError, TellsTheLimitOfAServiceThatDoesNotMove) {
  constexpr char kNotMoving[] =
      " (Connection timed out). It is stopped or overloaded: look after its process. The limit is receive_limit_ms in "
      "its configuration, 30 s until it has told";
  {
    const WithSocketHooks hooks({.connect = [] {
      errno = EAGAIN;
      return -1;
    }});
    EXPECT_EQ(here(), socket_path() + ": the keystore service took no connection within 30000 ms" + kNotMoving);
  }
  service.hello.receive_limit_ms = 130;
  service.handler = [&](int, const FakeService::Request &) {
    held.wait();
    return false;
  };
  const uint32_t queue = bound();
  EXPECT_EQ(exchange(queue, {1}).received, MTS_FAILED);
  EXPECT_EQ(why(), socket_path() +
                       ": the keystore service gave no reply within 130 ms, and may still do what was asked "
                       "(Connection timed out). It is stopped or busy: look after its process. receive_limit_ms in "
                       "its configuration is the limit");
  service.greeter = service.handler;
  EXPECT_EQ(exchange(queue, {1}).sent, MTS_FAILED);
  EXPECT_EQ(why(), socket_path() + ": the keystore service didn't greet within 130 ms" + kNotMoving);
  held.give();
}

#ifndef __SANITIZE_THREAD__
TEST_F(LastError, TellsWhyARequestDidNotGo) {
  service.hello.receive_limit_ms = 12'345;
  const uint32_t queue = bound();
  // By what becomes of each datagram: 0 lets it go.
  const auto told = [&](const std::vector<int> &errors) {
    EXPECT_TRUE(works(queue));
    size_t sent = 0;
    const WithSocketHooks hooks({.send = [&]() -> long {
      errno = sent < errors.size() ? errors[sent++] : 0;
      return errno == 0 ? SocketHooks::kPassOn : -1;
    }});
    EXPECT_EQ(exchange(queue, {1, 2, 3}).sent, MTS_FAILED);
    return why().substr(socket_path().size());
  };
  EXPECT_EQ(
      told({EAGAIN}),
      ": the keystore service took no request within 12345 ms (Connection timed out). It is stopped or overloaded: "
      "look after its process. The limit is receive_limit_ms in its configuration, 30 s until it has told");
  EXPECT_EQ(told({EMSGSIZE}),
            ": the request of 3 bytes is longer than the socket's send buffer (Message too long). Raise "
            "net.core.wmem_max to 98352 or more");
  for (const auto &[error, words] :
       {std::pair(EPIPE, "Broken pipe"), std::pair(ECONNRESET, "Connection reset by peer")}) {
    EXPECT_EQ(told({error, 0, error}),  // the greeting of another connection goes between them
              std::string(": the keystore service closed the connection before the request (") + words +
                  "). Try again; if it stays so, the service's log says why");
  }
  EXPECT_EQ(told({EIO}),
            ": the request couldn't be sent (Input/output error). Try again; if it stays so, look after the service");
}
#endif

TEST_F(LastError, TellsThatTheServiceTurnedTheCallerAway) {
  service.hello.result = KS_STORE_FULL;
  service.start();
  EXPECT_EQ(here(), socket_path() +
                        ": the keystore service turned the caller away with result 7 (Connection refused). Its log "
                        "says why");
  service.greeter = [](int, const FakeService::Request &) { return false; };
  EXPECT_EQ(here(), socket_path() +
                        ": the keystore service closed the connection at once (Connection reset by peer). There may "
                        "be too many: its log names the limit, of connections under [limits] in its configuration");
}

TEST_F(LastError, TellsThatSomethingElseListens) {
  service.greeter = [](int socket, const FakeService::Request &) {
    return FakeService::send_raw(socket, {'2', '2', '0', ' ', 'h', 'i'});
  };
  service.start();
  EXPECT_EQ(here(), socket_path() +
                        ": what listens there isn't a keystore service of this version (Protocol error). Have "
                        "KS_SOCKET name the service's socket; client and service have to be of one version");
}

TEST_F(LastError, TellsOfAReplyThatIsNone) {
  Octets answer = {1, 0, 0, 0, 5};
  service.handler = [&](int socket, const FakeService::Request &request) {
    return FakeService::reply(socket, request, answer);
  };
  const uint32_t queue = bound();
  EXPECT_EQ(exchange(queue, {5, 8}, {}, 66577).received, MTS_FAILED);
  EXPECT_EQ(why(), socket_path() +
                       ": the reply to message 66577 holds less, or more, than such a reply may (Bad message). Client "
                       "and service have to be of one version; if they are, the service is broken");
  answer = {1, 0};
  EXPECT_EQ(exchange(queue, {5, 8}, {}, 66577).received, MTS_FAILED);
  EXPECT_THAT(why(), HasSubstr(": what came on message 66577 is no reply to it (Protocol error). Client and"));
}

TEST_F(LastError, TellsThatTheServiceEndedMeanwhile) {
  service.handler = [](int, const FakeService::Request &) { return false; };
  EXPECT_EQ(exchange(bound(), {1}).received, MTS_FAILED);
  EXPECT_EQ(why(), socket_path() +
                       ": the keystore service ended before its reply, and may have done what was asked (Connection "
                       "reset by peer). See in its log why; the next exchange looks for it again");
}

TEST_F(LastError, TellsOfALackOfDescriptors) {
  service.start();
  EXPECT_TRUE(passes_in_child([&] {
    const rlimit none = {.rlim_cur = 0, .rlim_max = 0};
    return setrlimit(RLIMIT_NOFILE, &none) == 0 &&
           here() == socket_path() +
                         ": the process has no descriptor left for a connection (Too many open files). Close some, or "
                         "raise its limit (ulimit -n)";
  }));
}

TEST_F(LastError, TellsWhatTheSystemLacksForAConnection) {
  const struct {
    int error;
    const char *told;
  } kCases[] = {
      {ENFILE, "the system has no descriptor left for a connection (Too many open files in system). Raise fs.file-max"},
      {ENOMEM, "there is no memory for a connection (Cannot allocate memory). Free some"},
      {ENOBUFS, "there is no memory for a connection (No buffer space available). Free some"},
      {EIO, "no connection can be made (Input/output error). Start the service"},
  };
  for (const auto &row : kCases) {
    const WithSocketHooks hooks({.connect = [&] {
      errno = row.error;
      return -1;
    }});
    EXPECT_THAT(here(), StartsWith(socket_path() + ": " + row.told));
  }
}

TEST_F(LastError, TellsOfMoreApplicationIdsThanThereCanBe) {
  service.start();
  EXPECT_TRUE(passes_in_child([&] {
    uint32_t id = 1000;  // beside those of other tests
    while (id <= 1256 && bind_as(id) != MTS_FAILED) ++id;
    return id <= 1256 &&
           why() == socket_path() +
                        ": the process is bound under 256 application ids already (No space left on device). Use one "
                        "of them again";
  }));
}

TEST_F(LastError, TellsOfRequestsThatCanNotGo) {
  KsMtsMessage sent;
  EXPECT_EQ(send_sections(MTS_FAILED, {1}, {}, &sent), MTS_FAILED);
  EXPECT_THAT(why(), HasSubstr(": the process is bound to no keystore service (Bad file descriptor). Call ks_init "
                               "first, and go on when it succeeds"));
  const uint32_t queue = bound();
  const Octets vast(200'000);
  EXPECT_EQ(exchange(queue, {1}, {{vast.data(), 200'000}}).sent, MTS_FAILED);
  EXPECT_EQ(why(), socket_path() +
                       ": the request is longer than the 196608 bytes that one may have (Message too long). Send less "
                       "at a time");
  EXPECT_EQ(mts_recv(queue, nullptr, nullptr), MTS_FAILED);
  EXPECT_THAT(why(), HasSubstr("arguments that can't be (Invalid argument)"));
}

TEST_F(LastError, NamesThePathOfThatTime) {
  setenv("KS_SOCKET", "s", 1);
  EXPECT_EQ(bind_as(1), MTS_FAILED);
  setenv("KS_SOCKET", "/elsewhere", 1);
  EXPECT_THAT(why(), StartsWith("s: no keystore service is there"));
}

TEST_F(LastError, IsOfEachThreadAlone) {
  EXPECT_NE(here(), "");
  std::thread([] {
    EXPECT_EQ(why(), "");
    EXPECT_EQ(send_sections(0, {1}, {}, nullptr), MTS_FAILED);
    EXPECT_THAT(why(), HasSubstr("is bound to no keystore service"));
  }).join();
  EXPECT_THAT(why(), HasSubstr("no keystore service is there"));
}

TEST_F(LastError, GoesOnInAChild) {
  const std::string parents = here();
  EXPECT_TRUE(passes_in_child([&] {
    const bool inherited = why() == parents;
    service.start();
    const bool well = works(bind_as(1)) && why().empty();
    service.stop();
    return inherited && well && !here().empty();
  }));
  EXPECT_EQ(why(), parents);
}

TEST_F(LastError, IsCutToTheCallersMemory) {
  const std::string whole = here();
  char text[40];
  memset(text, 'x', sizeof text);
  EXPECT_EQ(mts_last_error_get(text, 20), text);
  EXPECT_EQ(std::string(text), whole.substr(0, 19));
  EXPECT_EQ(text[20], 'x');
  EXPECT_EQ(mts_last_error_get(text, 1), std::string());
  EXPECT_EQ(mts_last_error_get(text, 0), std::string());
  EXPECT_EQ(mts_last_error_get(nullptr, 40), std::string());
}

TEST_F(LastError, LeavesErrnoAsItWas) {
  close(open(socket_path().c_str(), O_CREAT | O_WRONLY, 0600));
  here();
  errno = 77;
  why();
  EXPECT_EQ(errno, 77);
}

}  // namespace
