// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "last_error.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host_mts.h"

namespace mts {

[[gnu::tls_model("initial-exec")]] constinit thread_local Failure last_failure{};

namespace {

// Text is a line in the making, in the caller's memory.
class Text {
 public:
  Text(char *out, size_t size) : out_(out), left_(size) { out_[0] = '\0'; }

  [[gnu::format(printf, 2, 3)]] void add(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int written = vsnprintf(out_, left_, format, arguments);
    va_end(arguments);
    if (written < 0) return;
    const size_t used = static_cast<size_t>(written) < left_ ? static_cast<size_t>(written) : left_ - 1;
    out_ += used;
    left_ -= used;
  }

 private:
  char *out_;
  size_t left_;
};

// Paths that no socket's length bounds are cut to this.
constexpr int kShownPath = 120;

// The C library's own words, which need neither locale nor memory.
const char *system_word(uint32_t error) {
  const char *word = strerrordesc_np(static_cast<int>(error));
  return word == nullptr ? "unknown error" : word;
}

// Each function below adds what was met, and returns what to do about it.

constexpr char kStartService[] =
    "Start the service, ksd, or run the program under `ks-session --`; KS_SOCKET names another socket";
constexpr char kNotMoving[] =
    "It is stopped or overloaded: look after its process. The limit is receive_limit_ms in its configuration, 30 s "
    "until it has told";
constexpr char kNoMemory[] = "Free some, or raise the process's limits";

const char *tell_want(uint32_t error, Text &text) {
  switch (error) {
    case EMFILE:
      text.add("the process has no descriptor left for a connection");
      return "Close some, or raise its limit (ulimit -n)";
    case ENFILE:
      text.add("the system has no descriptor left for a connection");
      return "Raise fs.file-max, or end what holds so many";
    case ENOMEM:
    case ENOBUFS:
      text.add("there is no memory for a connection");
      return kNoMemory;
    default:
      text.add("no connection can be made");
      return kStartService;
  }
}

// The folder `level` steps above the socket's own, as it is known without links and dots.
void add_folder(const char *path, uint32_t level, Text &text) {
  char folder[PATH_MAX] = ".";
  if (const char *slash = strrchr(path, '/')) {
    snprintf(folder, sizeof folder, "%.*s", slash == path ? 1 : static_cast<int>(slash - path), path);
  }
  for (uint32_t i = 0; i < level && strlen(folder) + sizeof "/.." <= sizeof folder; i++) strcat(folder, "/..");
  char real[PATH_MAX];
  text.add("%.*s", kShownPath, realpath(folder, real) == nullptr ? folder : real);
}

const char *tell_folder(const Failure &failure, Text &text) {
  switch (failure.error) {
    case EPERM:
      text.add("others could put a socket of theirs there, as they may write the folder ");
      add_folder(failure.path, failure.obstacle.detail, text);
      return "Run chmod go-w on it, or have KS_SOCKET name a socket in a folder that only its owner writes";
    case ENOENT:
      text.add("no keystore service is there: the folder doesn't exist");
      return kStartService;
    case EACCES:
      text.add("user %u may not reach the folder of the socket", geteuid());
      return "Have its owner allow it (chmod o+x), or have KS_SOCKET name another socket";
    default:
      return tell_want(failure.error, text);
  }
}

const char *tell_connect(const Failure &failure, Text &text) {
  struct stat status = {};
  const bool seen = stat(failure.path, &status) == 0;
  if (seen && !S_ISSOCK(status.st_mode)) {
    text.add("this isn't a socket");
    return "Have KS_SOCKET name the service's socket";
  }
  switch (failure.error) {
    case ENOENT:
      text.add("no keystore service is there");
      return kStartService;
    case ECONNREFUSED:
      text.add("no keystore service listens at the socket any more");
      return "Start the service, ksd, again; its log says why it ended";
    case EPROTOTYPE:
      text.add("this socket is of another kind than a keystore service's");
      return "Have KS_SOCKET name the service's socket";
    case EACCES:
      text.add("user %u may not connect to this socket of mode %04o, user %u and group %u", geteuid(),
               status.st_mode & 07777, status.st_uid, status.st_gid);
      return "Add the user to the group, or change socket_mode or socket_group in the service's configuration";
    case ETIMEDOUT:
      text.add("the keystore service took no connection within %u ms", failure.obstacle.detail);
      return kNotMoving;
    default:
      return tell_want(failure.error, text);
  }
}

const char *tell_greeting(const Failure &failure, Text &text) {
  switch (failure.error) {
    case ECONNREFUSED:
      text.add("the keystore service turned the caller away with result %u", failure.obstacle.detail);
      return "Its log says why";
    case ECONNRESET:
    case EPIPE:
      text.add("the keystore service closed the connection at once");
      return "There may be too many: its log names the limit, of connections under [limits] in its configuration";
    case ETIMEDOUT:
      text.add("the keystore service didn't greet within %u ms", failure.obstacle.detail);
      return kNotMoving;
    case EPROTO:
      text.add("what listens there isn't a keystore service of this version");
      return "Have KS_SOCKET name the service's socket; client and service have to be of one version";
    default:
      return tell_want(failure.error, text);
  }
}

const char *tell_connecting(const Failure &failure, Text &text) {
  switch (failure.obstacle.step) {
    case host::Step::kPath:
      text.add("this path is longer than the %zu bytes that a socket's may have", host::kSocketPathSize - 1);
      return "Have KS_SOCKET name a shorter one, through a symbolic link if need be";
    case host::Step::kFolder:
      return tell_folder(failure, text);
    case host::Step::kSocket:
      return tell_want(failure.error, text);
    case host::Step::kConnect:
      return tell_connect(failure, text);
    case host::Step::kPeer:
      if (failure.error != EPERM) return tell_want(failure.error, text);
      text.add("user %u listens there, who is neither root nor this user nor the folder's owner",
               failure.obstacle.detail);
      return "Nothing was sent. Find out who that is; KS_SOCKET names another socket";
    case host::Step::kGreet:
      return tell_greeting(failure, text);
  }
  return "";
}

const char *tell_call(const Failure &failure, Text &text) {
  switch (failure.error) {
    case EBADF:
      text.add("the process is bound to no keystore service");
      return "Call ks_init first, and go on when it succeeds";
    case EMSGSIZE:
      text.add("the request is longer than the %u bytes that one may have", HOST_WIRE_MAX_PAYLOAD);
      return "Send less at a time";
    case ENOSPC:
      text.add("the process is bound under 256 application ids already");
      return "Use one of them again";
    default:
      text.add("the exchange was called with arguments that can't be");
      return "Call the library's own operations";
  }
}

const char *tell_take(const Failure &failure, Text &text) {
  if (failure.error != EMFILE) return tell_want(failure.error, text);
  text.add("the process has 4096 exchanges under way");
  return "Have fewer threads exchange at a time";
}

const char *tell_send(const Failure &failure, Text &text) {
  switch (failure.error) {
    case ETIMEDOUT:
      text.add("the keystore service took no request within %u ms", failure.detail);
      return kNotMoving;
    case EMSGSIZE:
      text.add("the request of %u bytes is longer than the socket's send buffer", failure.detail);
      return "Raise net.core.wmem_max to 98352 or more";
    case EPIPE:
    case ECONNRESET:
      text.add("the keystore service closed the connection before the request");
      return "Try again; if it stays so, the service's log says why";
    default:
      text.add("the request couldn't be sent");
      return "Try again; if it stays so, look after the service";
  }
}

const char *tell_receive(const Failure &failure, Text &text) {
  switch (failure.error) {
    case ETIMEDOUT:
      text.add("the keystore service gave no reply within %u ms, and may still do what was asked", failure.detail);
      return "It is stopped or busy: look after its process. receive_limit_ms in its configuration is the limit";
    case ECONNRESET:
      text.add("the keystore service ended before its reply, and may have done what was asked");
      return "See in its log why; the next exchange looks for it again";
    case EBADF:
      text.add("the program closed the library's connection, or gave its number to another file");
      return "Have it close only what it opened; the next exchange makes a new connection";
    case EBADMSG:
      text.add("the reply to message %u holds less, or more, than such a reply may", failure.detail);
      return "Client and service have to be of one version; if they are, the service is broken";
    case EPROTO:
    case EMSGSIZE:
      text.add("what came on message %u is no reply to it", failure.detail);
      return "Client and service have to be of one version; if they are, the service is broken";
    case ENOMEM:
      text.add("there is no memory for the reply, though the service did what was asked");
      return kNoMemory;
    default:
      text.add("no reply could be received");
      return "Try again; if it stays so, look after the service";
  }
}

const char *tell(const Failure &failure, Text &text) {
  switch (failure.step) {
    case Step::kNone:
      break;
    case Step::kCall:
      return tell_call(failure, text);
    case Step::kTake:
      return tell_take(failure, text);
    case Step::kConnect:
      return tell_connecting(failure, text);
    case Step::kSend:
      return tell_send(failure, text);
    case Step::kReceive:
      return tell_receive(failure, text);
  }
  return "";
}

// A path that is too long for a socket isn't kept: it is what the environment still says.
void add_path(const char *path, Text &text) {
  if (path[0] == '\0') path = secure_getenv("KS_SOCKET");
  if (path == nullptr || path[0] == '\0') path = HOST_DEFAULT_SOCKET;
  const bool cut = strlen(path) > static_cast<size_t>(kShownPath);
  text.add("%.*s%s: ", kShownPath, path, cut ? "..." : "");
}

}  // namespace

}  // namespace mts

KS_EXPORT const char *mts_last_error_get(char *out, size_t size) {
  if (out == nullptr || size == 0) return "";
  const int caller_errno = errno;
  const mts::Failure failure = mts::last_failure;
  mts::Text text(out, size);
  if (failure.step != mts::Step::kNone) {
    mts::add_path(failure.path == nullptr ? "" : failure.path, text);
    const char *next = mts::tell(failure, text);
    text.add(" (%s). %s", mts::system_word(failure.error), next);
  }
  errno = caller_errno;
  return out;
}
