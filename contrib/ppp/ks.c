/* SPDX-FileCopyrightText: 2026 The ks developers
 * SPDX-License-Identifier: Apache-2.0 */

/* ks.c: a plug-in for pppd that does MS-CHAPv2 (RFC 2759) with passwords in the keystore, as the side that answers and
 * as the side that asks, and gives MPPE its keys (RFC 3079). README.md tells how to set it up.
 *
 * pppd looks digests up from the one that was registered last, and registers its own before it reads options, so that
 * this one is found in the place of pppd's. */
#define MPPE /* have the headers declare the keys */
#include <ks_api.h>
#include <openssl/sha.h>
#include <pppd/pppd.h>
/* these need the one above */
#include <pppd/chap-new.h>
#include <pppd/chap_ms.h>
#include <pppd/fsm.h>
#include <pppd/ipcp.h>
#include <pppd/lcp.h>
#include <stdio.h>
#include <string.h>

/* Optional: the host's message service tells why an exchange failed. */
#include <host_mts.h>

/* pppd refuses a plug-in that was built for another version. */
char pppd_version[] = VERSION;

/* A response: peer challenge (16), 8 bytes of zeros, NT response (24), flags. In front of it and of a challenge stands
 * the length in a byte. */
enum { kPeerChallengeAt = MS_CHAP2_PEER_CHALLENGE, kNtResponseAt = MS_CHAP2_NTRESP };
enum { kApplication = 0x707070 };

/* The names of users' passwords begin with `prefix`, so that peers can't claim to be some other secret. pppd cuts what
 * it puts into a fixed place: there is room for names that are too long, so that they are noticed. */
static char prefix[MAXNAMELEN] = "mschap-";
static char own_password[MAXNAMELEN];

static option_t options[] = {
    {.name = "ks-prefix",
     .type = o_string,
     .addr = prefix,
     .flags = OPT_PRIV | OPT_STATIC,
     .upper_limit = sizeof prefix,
     .description = "What stands before a user's name in the name of the password in the keystore"},
    {.name = "ks-secret",
     .type = o_string,
     .addr = own_password,
     .flags = OPT_PRIV | OPT_STATIC,
     .upper_limit = sizeof own_password,
     .description = "Name of our own password in the keystore"},
    {.name = NULL},
};

/* What we answered last: a challenge that comes again is answered as before, and the peer has to prove that it knows
 * the password as well. */
static struct {
  int id;
  uint8_t challenge[KS_CHALLENGE_SIZE];
  uint8_t response[MS_CHAP2_RESPONSE_LEN];
  char secret[KS_NAME_MAX + 1];
  char expected[KS_AUTHENTICATOR_RESPONSE_SIZE];
  bool answered;
} last;

/* The last challenge of ours. */
static uint8_t asked[KS_CHALLENGE_SIZE];

/* computed logs why the keystore didn't compute, unless it did; `what` is the secret, or what else it was asked for. */
static bool computed(KsResult result, const char *what) {
  char why[512] = "";
  if (result == KS_SUCCESS) return 1;
  if (mts_last_error_get != NULL) mts_last_error_get(why, sizeof why);
  if (result == KS_NOT_FOUND) {
    error("The keystore has no secret %q", what);
  } else {
    error("The keystore failed on %q: %s (%d) %s", what, kserr2str(result), (int)result, why);
  }
  return 0;
}

/* started starts the library at the first call: pppd loads plug-ins before it knows whether it needs them. */
static bool started(void) {
  static bool done;
  if (!done) done = computed(ks_init(0, kApplication, 0), "its start");
  return done;
}

/* account gives the part of a name that is hashed and looked up: what stands behind a Windows domain. */
static char *account(char *name) {
  char *const backslash = strrchr(name, '\\');
  return backslash != NULL ? backslash + 1 : name;
}

/* put_name writes the name of a secret, `before` and `name`. */
static bool put_name(const char *before, const char *name, char *secret) {
  const int len = snprintf(secret, KS_NAME_MAX + 1, "%s%s", before, name);
  if (*name != '\0' && len <= KS_NAME_MAX) return 1;
  error("%q%q can't be the name of a secret, which has at most %d bytes", before, name, KS_NAME_MAX);
  return 0;
}

/* start_key derives the key of one direction from the master key (RFC 3079, section 3.3). Its name is told from the
 * client's point of view. */
static void start_key(const uint8_t *master_key, bool client_sends, uint8_t *key) {
  static const char *const magic[] = {
      "On the client side, this is the receive key; on the server side, it is the send key.",
      "On the client side, this is the send key; on the server side, it is the receive key."};
  enum { kPadSize = 40, kMagicSize = 84 };
  uint8_t text[KS_MASTER_KEY_SIZE + 2 * kPadSize + kMagicSize];
  uint8_t digest[SHA_DIGEST_LENGTH];
  uint8_t *const pad1 = text + KS_MASTER_KEY_SIZE;
  memcpy(text, master_key, KS_MASTER_KEY_SIZE);
  memset(pad1, 0, kPadSize);
  memcpy(pad1 + kPadSize, magic[client_sends], kMagicSize);
  memset(pad1 + kPadSize + kMagicSize, 0xf2, kPadSize);
  SHA1(text, sizeof text, digest);
  memcpy(key, digest, MPPE_MAX_KEY_LEN);
  explicit_bzero(text, sizeof text);
  explicit_bzero(digest, sizeof digest);
}

/* give_keys has the keystore derive the master key and MPPE use what follows from it. */
static bool give_keys(const char *secret, const uint8_t *nt_response, bool client) {
  uint8_t master_key[KS_MASTER_KEY_SIZE];
  if (!computed(ks_GetMasterKey(secret, nt_response, master_key), secret)) return 0;
  start_key(master_key, client, mppe_send_key);
  start_key(master_key, !client, mppe_recv_key);
  mppe_keys_set = 1;
  explicit_bzero(master_key, sizeof master_key);
  return 1;
}

static void generate_challenge(unsigned char *challenge) {
  /* Without random bytes there is an empty challenge, to which nothing is a right answer. */
  const bool drawn = started() && computed(ks_generate_random_number(asked, sizeof asked, 0), "random bytes");
  *challenge = drawn ? sizeof asked : 0;
  memcpy(challenge + 1, asked, *challenge);
}

/* --- the side that asks */

/* verified tells whether a response is right; then `success` is the proof that we know the password, too. */
static bool verified(char *name, const unsigned char *challenge, const unsigned char *response, char *success) {
  char secret[KS_NAME_MAX + 1];
  char *const login = account(name);
  const uint8_t *const peer_challenge = response + 1 + kPeerChallengeAt;
  const uint8_t *const nt_response = response + 1 + kNtResponseAt;
  uint8_t expected[KS_NT_RESPONSE_SIZE];
  uint8_t difference = 0;
  size_t i;
  if (challenge[0] != KS_CHALLENGE_SIZE || response[0] != MS_CHAP2_RESPONSE_LEN) return 0;
  if (!started() || !put_name(prefix, login, secret)) return 0;
  ++challenge;
  if (!computed(ks_GenerateNTResponse(secret, challenge, peer_challenge, login, expected), secret)) return 0;
  /* in a time that doesn't tell where they differ */
  for (i = 0; i < sizeof expected; ++i) difference = (uint8_t)(difference | (expected[i] ^ nt_response[i]));
  if (difference != 0) return 0;
  return computed(ks_GenerateAuthenticatorResponse(secret, nt_response, peer_challenge, challenge, login,
                                                   (uint8_t *)success),
                  secret) &&
         give_keys(secret, nt_response, 0);
}

static int verify_response(int id, char *name, unsigned char *secret, int secret_len, unsigned char *challenge,
                           unsigned char *response, char *message, int message_space) {
  char success[KS_AUTHENTICATOR_RESPONSE_SIZE];
  char hex[2 * KS_CHALLENGE_SIZE + 1] = "";
  size_t i;
  (void)id, (void)secret, (void)secret_len;
  mppe_keys_set = 0;
  if (verified(name, challenge, response, success)) {
    snprintf(message, (size_t)message_space, "%.*s M=Access granted", (int)sizeof success, success);
    return 1;
  }
  /* The same for every reason: who asks doesn't learn which users there are. */
  for (i = 0; i < challenge[0] && i < KS_CHALLENGE_SIZE; ++i) snprintf(hex + 2 * i, 3, "%02X", challenge[1 + i]);
  snprintf(message, (size_t)message_space, "E=691 R=0 C=%s V=3 M=Access denied", hex);
  return 0;
}

/* verify stands before the look into chap-secrets, which has nothing to tell here. */
static int verify(char *name, char *own_name, int id, struct chap_digest_type *type, unsigned char *challenge,
                  unsigned char *response, char *message, int message_space) {
  (void)own_name;
  if (type->code == CHAP_MICROSOFT_V2) {
    return verify_response(id, name, NULL, 0, challenge, response, message, message_space);
  }
  error("The keystore authenticates by MS-CHAPv2 alone: use require-mschap-v2");
  snprintf(message, (size_t)message_space, "Access denied");
  return 0;
}

/* allowed lets an authenticated peer have the address that the options give it: there is no line in chap-secrets that
 * could. */
static int allowed(u_int32_t address) {
  const u_int32_t given = ipcp_wantoptions[0].hisaddr;
  return given != 0 && given == address ? 1 : -1;
}

/* --- the side that answers */

/* answered answers a new challenge, and keeps what the peer has to prove then. */
static bool answered(int id, char *own_name, const unsigned char *challenge) {
  char *const login = account(own_name);
  uint8_t *const nt_response = last.response + kNtResponseAt;
  uint8_t *const peer_challenge = last.response + kPeerChallengeAt;
  last.id = id;
  memcpy(last.challenge, challenge, sizeof last.challenge);
  memset(last.response, 0, sizeof last.response);
  if (memcmp(challenge, asked, sizeof asked) == 0) {
    error("MS-CHAPv2: the peer asks us what we ask it: our answer would be its own");
    return 0;
  }
  if (!started()) return 0;
  if (!(*own_password != '\0' ? put_name("", own_password, last.secret) : put_name(prefix, login, last.secret)))
    return 0;
  return computed(ks_generate_random_number(peer_challenge, KS_CHALLENGE_SIZE, 0), last.secret) &&
         computed(ks_GenerateNTResponse(last.secret, challenge, peer_challenge, login, nt_response), last.secret) &&
         computed(ks_GenerateAuthenticatorResponse(last.secret, nt_response, peer_challenge, challenge, login,
                                                   (uint8_t *)last.expected),
                  last.secret);
}

static void make_response(unsigned char *response, int id, char *own_name, unsigned char *challenge, char *secret,
                          int secret_len, unsigned char *priv) {
  (void)secret, (void)secret_len, (void)priv;
  const bool again = last.answered && last.id == id && challenge[0] == sizeof last.challenge &&
                     memcmp(last.challenge, challenge + 1, sizeof last.challenge) == 0;
  if (!again) last.answered = challenge[0] == sizeof last.challenge && answered(id, own_name, challenge + 1);
  /* pppd has no other way to hear of a failure than an empty response, which the peer refuses. */
  *response = last.answered ? sizeof last.response : 0;
  memcpy(response + 1, last.response, *response);
}

/* check_success tells whether the peer has proved that it knows the password. Keys come from here: there is no use for
 * them before. */
static int check_success(int id, unsigned char *message, int len) {
  mppe_keys_set = 0;
  if (!last.answered || id != last.id || len < (int)sizeof last.expected ||
      memcmp(message, last.expected, sizeof last.expected) != 0) {
    error("MS-CHAPv2: the peer does not prove that it knows the password");
    return 0;
  }
  return give_keys(last.secret, last.response + kNtResponseAt, 1);
}

static void handle_failure(unsigned char *message, int len) {
  error("MS-CHAPv2 authentication failed: %.*v", len, message);
}

/* A password that we don't have: the response is made without it. */
static int no_password(char *login, char *password) {
  (void)login;
  if (password != NULL) password[0] = '\0';
  return 1;
}

static int can_authenticate(void) {
  return 1;
}

static struct chap_digest_type digest = {
    .code = CHAP_MICROSOFT_V2,
    .generate_challenge = generate_challenge,
    .verify_response = verify_response,
    .make_response = make_response,
    .check_success = check_success,
    .handle_failure = handle_failure,
};

void plugin_init(void) {
  add_options(options);
  chap_register_digest(&digest);
  chap_verify_hook = verify;
  chap_check_hook = can_authenticate;
  chap_passwd_hook = no_password;
  allowed_address_hook = allowed;
  /* Nothing else is to be agreed on with an empty password. */
  lcp_allowoptions[0].chap_mdtype &= MDTYPE_MICROSOFT_V2;
  chap_mdtype_all = MDTYPE_MICROSOFT_V2;
}
