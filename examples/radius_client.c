/* SPDX-FileCopyrightText: 2026 The ks developers
 * SPDX-License-Identifier: Apache-2.0 */

/* Asks a RADIUS server whether a user's password is right (RFC 2865, with the Message-Authenticator of RFC 3579). The
 * secret that client and server share stays in the keystore, which computes everything that takes it: the digests that
 * hide the password, and those that prove whom request and reply come from.
 *
 *   ksctl secret put radius
 *   radius_client 192.0.2.1:1812 radius alice          (the password comes from the terminal, or from a pipe)
 *
 * A reply without a Message-Authenticator isn't believed. Servers send one since 2024; an older FreeRADIUS, as in
 * Debian 12, does so with `update reply { &Message-Authenticator := 0x00 }` in post-auth and in its Post-Auth-Type
 * REJECT.
 *
 * Exit status: 0 accepted, 1 no answer that can be believed, 2 wrong use, 3 rejected, 4 the server asks for more. */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <host_mts.h>
#include <ks_api.h>
#include <netdb.h>
#include <poll.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

enum { kAccepted = 0, kFailed = 1, kWrongUse = 2, kRejected = 3, kChallenged = 4 };

/* A packet: code, identifier, length (2 bytes, big-endian), authenticator (16), attributes (type, length, value). */
enum { kCodeRequest = 1, kCodeAccept = 2, kCodeReject = 3, kCodeChallenge = 11 };
enum { kLengthAt = 2, kAuthenticatorAt = 4, kAuthenticatorSize = 16, kHeaderSize = 20, kLongestPacket = 4096 };
enum { kUserName = 1, kUserPassword = 2, kReplyMessage = 18, kNasIdentifier = 32, kMessageAuthenticator = 80 };
enum { kLongestValue = 253, kLongestPassword = 128, kBlockSize = 16 };

/* RADIUS has packets of up to 4,096 bytes; the keystore digests up to 1,024 at once, and nothing in pieces. */
enum { kLongestDigested = 1024 };

enum { kSends = 3, kDefaultWaitMs = 5000, kLongestWaitMs = 600000 };

static const char kNas[] = "ks-radius-client";

typedef struct {
  uint8_t bytes[kLongestPacket];
  size_t len;
} Packet;

static void say(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  fputs("radius_client: ", stderr);
  vfprintf(stderr, format, arguments);
  fputc('\n', stderr);
  va_end(arguments);
}

/* computed says why the keystore didn't compute, unless it did. */
static bool computed(KsResult result, const char *secret) {
  char why[512] = "";
  if (result == KS_SUCCESS) return true;
  if (mts_last_error_get != NULL) mts_last_error_get(why, sizeof why);
  if (result == KS_NOT_FOUND) {
    say("the keystore has no secret '%s'; store it with `ksctl secret put %s`", secret, secret);
  } else {
    say("the keystore answered: %s (%u)%s%s", kserr2str(result), (unsigned)result, why[0] != '\0' ? "; " : "", why);
  }
  return false;
}

/* --- building a request */

static void put_length(Packet *packet) {
  packet->bytes[kLengthAt] = (uint8_t)(packet->len >> 8);
  packet->bytes[kLengthAt + 1] = (uint8_t)packet->len;
}

/* add_attribute appends an attribute whose value is to be written by the caller, and gives the place of the value. The
 * attributes of a request come to less than 600 bytes at their longest. */
static uint8_t *add_attribute(Packet *packet, uint8_t type, size_t value_len) {
  uint8_t *attribute = packet->bytes + packet->len;
  attribute[0] = type;
  attribute[1] = (uint8_t)(2 + value_len);
  packet->len += 2 + value_len;
  return attribute + 2;
}

/* hide writes a password as User-Password has it: filled up to whole blocks with zeros, each block combined with the
 * digest of the secret and what stands before it, first the authenticator, then the hidden block before. */
static bool hide(const char *secret, const uint8_t *authenticator, const uint8_t *password, size_t password_len,
                 uint8_t *hidden) {
  const uint8_t *before = authenticator;
  size_t at;
  for (at = 0; at < password_len; at += kBlockSize) {
    uint8_t mask[KS_MD5_SIZE];
    size_t i;
    if (!computed(ks_md5_hash(secret, NULL, 0, before, kBlockSize, mask), secret)) return false;
    for (i = 0; i < kBlockSize; ++i) {
      hidden[at + i] = (uint8_t)(mask[i] ^ (at + i < password_len ? password[at + i] : 0));
    }
    before = hidden + at;
  }
  return true;
}

/* build_request makes an Access-Request. Message-Authenticator stands first, so that nothing that an attacker chooses
 * comes before it. */
static bool build_request(const char *secret, const char *user, const uint8_t *password, size_t password_len,
                          Packet *request) {
  const size_t hidden_len = (password_len + kBlockSize - 1) / kBlockSize * kBlockSize;
  uint8_t *const authenticator = request->bytes + kAuthenticatorAt;
  uint8_t *message_authenticator;
  uint8_t mac[KS_MD5_SIZE];

  request->len = kHeaderSize;
  request->bytes[0] = kCodeRequest;
  /* The authenticator must not be told beforehand, and an identifier that can't be makes forging harder. */
  if (!computed(ks_generate_random_number(request->bytes + 1, 1, 0), secret)) return false;
  if (!computed(ks_generate_random_number(authenticator, kAuthenticatorSize, 0), secret)) return false;

  message_authenticator = add_attribute(request, kMessageAuthenticator, sizeof mac);
  memset(message_authenticator, 0, sizeof mac);
  memcpy(add_attribute(request, kUserName, strlen(user)), user, strlen(user));
  if (!hide(secret, authenticator, password, password_len, add_attribute(request, kUserPassword, hidden_len))) {
    return false;
  }
  memcpy(add_attribute(request, kNasIdentifier, strlen(kNas)), kNas, strlen(kNas));
  put_length(request);

  if (!computed(ks_hmac_md5(secret, request->bytes, (uint16_t)request->len, mac), secret)) return false;
  memcpy(message_authenticator, mac, sizeof mac);
  return true;
}

/* --- believing a reply */

/* find_attributes walks over a reply's attributes, which have to fill it, and gives the place of the value of the only
 * Message-Authenticator. The result is what is wrong with the reply, or NULL. */
static const char *find_attributes(const Packet *reply, size_t *mac_at) {
  size_t at = kHeaderSize;
  *mac_at = 0;
  while (at < reply->len) {
    const size_t left = reply->len - at;
    if (left < 2 || reply->bytes[at + 1] < 2) return "an attribute is shorter than its own header";
    if (reply->bytes[at + 1] > left) return "an attribute goes on behind the packet's end";
    if (reply->bytes[at] == kMessageAuthenticator) {
      if (reply->bytes[at + 1] != 2 + KS_MD5_SIZE) return "its Message-Authenticator has not 16 bytes";
      if (*mac_at != 0) return "it has two Message-Authenticators";
      *mac_at = at + 2;
    }
    at += reply->bytes[at + 1];
  }
  /* The response authenticator alone can be forged (CVE-2024-3596), so there is no doing without the other. */
  return *mac_at == 0 ? "it has no Message-Authenticator" : NULL;
}

/* check_form tells what is wrong with a reply as far as it can be seen without the secret, or NULL. It cuts off what
 * stands behind the packet. */
static const char *check_form(const Packet *request, Packet *reply, size_t *mac_at) {
  const uint8_t *bytes = reply->bytes;
  size_t length;
  if (reply->len < kHeaderSize) return "it is shorter than a header";
  if (bytes[1] != request->bytes[1]) return "its identifier is another request's";
  if (bytes[0] != kCodeAccept && bytes[0] != kCodeReject && bytes[0] != kCodeChallenge) return "its code is no reply's";
  length = (size_t)bytes[kLengthAt] << 8 | bytes[kLengthAt + 1];
  if (length < kHeaderSize) return "its length is less than a header's";
  if (length > reply->len) return "it is shorter than its length says";
  reply->len = length;
  if (length > kLongestDigested) return "it is longer than the 1024 bytes that the keystore can check";
  return find_attributes(reply, mac_at);
}

/* equal compares two digests in a time that doesn't tell where they differ. */
static bool equal(const uint8_t *a, const uint8_t *b) {
  uint8_t difference = 0;
  size_t i;
  for (i = 0; i < KS_MD5_SIZE; ++i) difference = (uint8_t)(difference | (a[i] ^ b[i]));
  return difference == 0;
}

/* check_origin asks the keystore whether who sent the reply knows the secret and has seen the request. Both digests
 * take the request's authenticator in the place of the reply's own. `*wrong` is what is wrong, or NULL; the result is
 * false when the keystore doesn't answer. */
static bool check_origin(const char *secret, const Packet *request, const Packet *reply, size_t mac_at,
                         const char **wrong) {
  Packet asked = *reply;
  uint8_t digest[KS_MD5_SIZE];
  *wrong = NULL;
  memcpy(asked.bytes + kAuthenticatorAt, request->bytes + kAuthenticatorAt, kAuthenticatorSize);
  if (!computed(ks_md5_hash(secret, asked.bytes, (uint16_t)asked.len, NULL, 0, digest), secret)) return false;
  if (!equal(digest, reply->bytes + kAuthenticatorAt)) *wrong = "its Response Authenticator is wrong";

  memset(asked.bytes + mac_at, 0, KS_MD5_SIZE);
  if (!computed(ks_hmac_md5(secret, asked.bytes, (uint16_t)asked.len, digest), secret)) return false;
  if (*wrong == NULL && !equal(digest, reply->bytes + mac_at)) *wrong = "its Message-Authenticator is wrong";
  return true;
}

/* --- asking */

static int64_t now_ms(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

/* receive waits until `deadline` for a datagram. The result is false when none came; `*why` tells what did, if
 * anything. */
static bool receive(int server, int64_t deadline, Packet *reply, const char **why) {
  while (true) {
    struct pollfd readable = {server, POLLIN, 0};
    const int64_t left = deadline - now_ms();
    ssize_t got;
    if (left <= 0 || poll(&readable, 1, (int)left) == 0) return false;
    got = recv(server, reply->bytes, sizeof reply->bytes, MSG_DONTWAIT);
    if (got >= 0) {
      reply->len = (size_t)got;
      return true;
    }
    if (errno == ECONNREFUSED) *why = "nothing listens there";
  }
}

/* ask sends the request, up to three times in `wait_ms`, until a reply comes that can be believed. Others are passed
 * over, as anybody can send them. */
static bool ask(int server, const char *secret, const Packet *request, int wait_ms, Packet *reply) {
  const char *why = "the server doesn't answer: is this machine one of its clients, and is the secret its own?";
  const int64_t start = now_ms();
  int sent;
  for (sent = 1; sent <= kSends; ++sent) {
    if (send(server, request->bytes, request->len, 0) < 0 && errno != ECONNREFUSED) {
      say("can't send: %s", strerror(errno));
      return false;
    }
    while (receive(server, start + (int64_t)wait_ms * sent / kSends, reply, &why)) {
      size_t mac_at;
      const char *wrong = check_form(request, reply, &mac_at);
      if (wrong == NULL && !check_origin(secret, request, reply, mac_at, &wrong)) return false;
      if (wrong == NULL) return true;
      say("passed over a reply: %s", wrong);
      why = wrong;
    }
  }
  say("no answer that can be believed in %d ms: %s", wait_ms, why);
  return false;
}

/* --- the command line */

/* connect_to gives a socket that takes datagrams from this server alone, or -1. */
static int connect_to(const char *server) {
  const struct addrinfo hints = {.ai_family = AF_UNSPEC, .ai_socktype = SOCK_DGRAM};
  struct addrinfo *addresses, *address;
  char host[256];
  const char *colon = strrchr(server, ':');
  const char *port = colon != NULL ? colon + 1 : "1812";
  const size_t host_len = colon != NULL ? (size_t)(colon - server) : strlen(server);
  int failed, fd = -1;
  if (host_len >= sizeof host) {
    say("the name of the server is too long");
    return -1;
  }
  memcpy(host, server, host_len);
  host[host_len] = '\0';
  failed = getaddrinfo(host, port, &hints, &addresses);
  if (failed != 0) {
    say("%s, port %s: %s", host, port, gai_strerror(failed));
    return -1;
  }
  for (address = addresses; address != NULL && fd < 0; address = address->ai_next) {
    fd = socket(address->ai_family, address->ai_socktype, address->ai_protocol);
    if (fd >= 0 && connect(fd, address->ai_addr, address->ai_addrlen) < 0) {
      close(fd);
      fd = -1;
    }
  }
  if (fd < 0) say("%s, port %s: %s", host, port, strerror(errno));
  freeaddrinfo(addresses);
  return fd;
}

/* read_line reads standard input to its end, or at a terminal a line without showing it. A newline at its end isn't
 * part of it. The result is its length, at most `size`. */
static size_t read_line(uint8_t *line, size_t size) {
  struct termios shown, hidden;
  const bool terminal = tcgetattr(STDIN_FILENO, &shown) == 0;
  size_t len = 0;
  ssize_t got = 1;
  if (terminal) {
    fputs("Password: ", stderr);
    hidden = shown;
    hidden.c_lflag &= ~(tcflag_t)ECHO;
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
  }
  while (len < size && got > 0 && !(terminal && len > 0 && line[len - 1] == '\n')) {
    got = read(STDIN_FILENO, line + len, size - len);
    if (got > 0) len += (size_t)got;
  }
  if (terminal) {
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &shown);
    fputc('\n', stderr);
  }
  if (len > 0 && line[len - 1] == '\n') --len;
  return len;
}

/* show prints a reply, with its messages in a form that a terminal doesn't obey. */
static int show(const Packet *reply) {
  size_t at, i;
  puts(reply->bytes[0] == kCodeAccept   ? "Access-Accept"
       : reply->bytes[0] == kCodeReject ? "Access-Reject"
                                        : "Access-Challenge: the server asks for more than a password");
  for (at = kHeaderSize; at < reply->len; at += reply->bytes[at + 1]) {
    if (reply->bytes[at] != kReplyMessage) continue;
    fputs("Reply-Message: ", stdout);
    for (i = 2; i < reply->bytes[at + 1]; ++i) {
      const uint8_t byte = reply->bytes[at + i];
      printf(byte >= 0x20 && byte < 0x7f ? "%c" : "\\x%02x", byte);
    }
    putchar('\n');
  }
  return reply->bytes[0] == kCodeAccept ? kAccepted : reply->bytes[0] == kCodeReject ? kRejected : kChallenged;
}

int main(int argc, char **argv) {
  uint8_t password[kLongestPassword + 2]; /* with a newline, or one byte too many */
  Packet request, reply;
  size_t password_len;
  int server, wait_ms = kDefaultWaitMs;
  bool answered;
  if (argc == 5) wait_ms = atoi(argv[4]);
  if (argc < 4 || argc > 5 || wait_ms < kSends || wait_ms > kLongestWaitMs) {
    fprintf(stderr, "usage: %s SERVER[:PORT] SECRET USER [MILLISECONDS TO WAIT] <PASSWORD\n", argv[0]);
    return kWrongUse;
  }
  const char *const secret = argv[2], *const user = argv[3];
  if (strlen(user) == 0 || strlen(user) > kLongestValue) {
    say("a user name has 1 to %d bytes", kLongestValue);
    return kWrongUse;
  }
  password_len = read_line(password, sizeof password);
  if (password_len == 0 || password_len > kLongestPassword) {
    say("a password has 1 to %d bytes", kLongestPassword);
    return kWrongUse;
  }

  if (!computed(ks_init(0, 1, 0), secret) || !build_request(secret, user, password, password_len, &request)) {
    return kFailed;
  }
  server = connect_to(argv[1]);
  if (server < 0) return kFailed;
  answered = ask(server, secret, &request, wait_ms, &reply);
  close(server);
  return answered ? show(&reply) : kFailed;
}
