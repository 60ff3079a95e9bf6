// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The plug-in for pppd in a program that stands in for pppd: it has what the plug-in refers to, under pppd's names, and
// calls what the plug-in registers, against a service of its own.
#include <dlfcn.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <optional>

#include "published_vectors.h"
#include "service/library_suite.h"

extern "C" {
#define MPPE
#ifdef __clang__
#pragma clang diagnostic ignored "-Wkeyword-macro"
#endif
#define class class_ /* pppd's headers are C, have a field of this name */
#define bool bool_   /* and make this one a type themselves */
#include <pppd/pppd.h>
// behind the header that they need
#include <pppd/chap-new.h>
#include <pppd/chap_ms.h>
#include <pppd/fsm.h>
#include <pppd/ipcp.h>
#include <pppd/lcp.h>
#undef class
#undef bool
}

namespace {

std::vector<chap_digest_type *> registered;
std::vector<option_t *> added_options;
std::string logged;
std::optional<std::string> next_random;  // what the keystore is to have drawn next

}  // namespace

extern "C" {

u_char mppe_send_key[MPPE_MAX_KEY_LEN];
u_char mppe_recv_key[MPPE_MAX_KEY_LEN];
int mppe_keys_set;
lcp_options lcp_allowoptions[NUM_PPP];
ipcp_options ipcp_wantoptions[NUM_PPP];
int chap_mdtype_all = MDTYPE_MICROSOFT_V2 | MDTYPE_MICROSOFT | MDTYPE_MD5;
int (*chap_verify_hook)(char *, char *, int, chap_digest_type *, unsigned char *, unsigned char *, char *, int);
int (*chap_check_hook)(void);
int (*chap_passwd_hook)(char *, char *);
int (*allowed_address_hook)(u_int32_t);

void chap_register_digest(chap_digest_type *digest) {
  registered.push_back(digest);
}

void add_options(option_t *options) {
  added_options.push_back(options);
}

// pppd's directives %q and %v print text, made printable.
void error(char *format, ...) {
  std::string plain = format;
  for (size_t at = 0; (at = plain.find_first_of("qv", at)) != std::string::npos; ++at) {
    const size_t sign = plain.rfind('%', at);
    if (sign != std::string::npos && plain.find_first_not_of(".*", sign + 1) == at) plain[at] = 's';
  }
  char line[1024];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(line, sizeof line, plain.c_str(), arguments);
  va_end(arguments);
  logged += std::string(line) + "\n";
}

// Stands before the library's, so that the client's challenge can be that of the standard.
KsResult ks_generate_random_number(uint8_t *output, uint8_t count, uint32_t request_word) {
  if (next_random) {
    next_random->copy(reinterpret_cast<char *>(output), count);
    next_random.reset();
    return KS_SUCCESS;
  }
  const auto real = reinterpret_cast<decltype(&ks_generate_random_number)>(dlsym(RTLD_NEXT, __func__));
  return real(output, count, request_word);
}

}  // extern "C"

namespace {

using testing::HasSubstr;
using testing::StartsWith;
namespace mschap = published::mschap;

std::string of_hex(const char *digits) {
  const published::ByteString bytes = published::unhex(digits);
  return {bytes.begin(), bytes.end()};
}

const std::string kChallenge = of_hex(mschap::kAuthenticatorChallenge);
const std::string kPeerChallenge = of_hex(mschap::kPeerChallenge);
const std::string kNtResponse = of_hex(mschap::kNtResponse);
// RFC 3079, section 3.5: the server's send key. The other direction's is what FreeRADIUS derives.
const std::string kServerSends = of_hex("8b7cdc149b993a1ba118cb153f56dccb");
const std::string kClientSends = of_hex("d5f0e9521e3ea9589645e86051c82226");
const std::string kDenied = "E=691 R=0 C=5B5D7C7D7B3F2F3E3C2C602132262628 V=3 M=Access denied";

std::string response_of(const std::string &peer_challenge, const std::string &nt_response) {
  return peer_challenge + std::string(8, '\0') + nt_response + std::string(1, '\0');
}

// with_length is how pppd hands over challenges and responses, with room for the longest.
std::string with_length(const std::string &value) {
  std::string text(1 + 255, '\0');
  text[0] = static_cast<char>(value.size());
  return text.replace(1, value.size(), value);
}

unsigned char *bytes_of(std::string &text) {
  return reinterpret_cast<unsigned char *>(text.data());
}

std::string key(const u_char *bytes) {
  return {reinterpret_cast<const char *>(bytes), MPPE_MAX_KEY_LEN};
}

// The plug-in is loaded once, as pppd does, and a process has one keystore.
class Plugin : public ks_test::LibrarySuite {
 protected:
  static void SetUpTestSuite() {
    lcp_allowoptions[0].chap_mdtype = MDTYPE_MICROSOFT_V2 | MDTYPE_MICROSOFT | MDTYPE_MD5;
    void *const plugin = dlopen(KS_PPP_PLUGIN, RTLD_NOW | RTLD_GLOBAL);
    ASSERT_NE(plugin, nullptr) << dlerror();
    reinterpret_cast<void (*)()>(dlsym(plugin, "plugin_init"))();
    EXPECT_STREQ(static_cast<const char *>(dlsym(plugin, "pppd_version")), VERSION);

    LibrarySuite::SetUpTestSuite();
    keep("mschap-User", mschap::kPassword);
    keep("mschap-", mschap::kPassword);
    keep("mschap-other", mschap::kOtherPassword);
    keep("aes-key", mschap::kPassword);
  }

  Plugin() {
    logged.clear();
    next_random.reset();
    mppe_keys_set = 0;
    set_option("ks-prefix", default_prefix());
    set_option("ks-secret", "");
  }

  static void keep(const char *name, const std::string &secret) {
    ASSERT_EQ(ks_store_secret_and_metadata(name, nullptr, reinterpret_cast<const uint8_t *>(secret.data()),
                                           static_cast<uint16_t>(secret.size()), nullptr, 0),
              KS_SUCCESS);
  }

  static const option_t *option(const std::string &name) {
    for (const option_t *option = added_options.at(0); option->name != nullptr; ++option) {
      if (option->name == name) return option;
    }
    return nullptr;
  }

  static void set_option(const std::string &name, const std::string &value) {
    ASSERT_NE(option(name)->flags & OPT_STATIC, 0u);
    ASSERT_LT(value.size(), static_cast<size_t>(option(name)->upper_limit));
    strcpy(static_cast<char *>(option(name)->addr), value.c_str());
  }

  static const std::string &default_prefix() {
    static const std::string prefix = static_cast<const char *>(option("ks-prefix")->addr);
    return prefix;
  }

  static chap_digest_type &digest() { return *registered.at(0); }

  // verify asks whether a peer's response is right; `message` is what goes back to the peer.
  bool verify(std::string name, const std::string &challenge, const std::string &response) {
    std::string sent = with_length(challenge);
    std::string received = with_length(response);
    char text[256] = "";
    const int accepted =
        chap_verify_hook(name.data(), nullptr, 7, &digest(), bytes_of(sent), bytes_of(received), text, sizeof text);
    message = text;
    return accepted != 0;
  }

  bool verify_published(const std::string &name = mschap::kUserName) {
    return verify(name, kChallenge, response_of(kPeerChallenge, kNtResponse));
  }

  static std::string respond(int id, std::string name, const std::string &challenge) {
    std::string received = with_length(challenge);
    unsigned char response[MAX_RESPONSE_LEN] = {};
    unsigned char priv[64] = {};
    char no_password[1] = "";
    digest().make_response(response, id, name.data(), bytes_of(received), no_password, 0, priv);
    return {reinterpret_cast<char *>(response + 1), response[0]};
  }

  static bool succeeds(int id, std::string text, size_t len) {
    return digest().check_success(id, bytes_of(text), static_cast<int>(len)) != 0;
  }

  static bool succeeds(int id, const std::string &text) { return succeeds(id, text, text.size()); }

  std::string message;
};

TEST_F(Plugin, StandsInFrontOfMsChap2AndAgreesOnNothingElse) {
  EXPECT_EQ(registered.size(), 1u);
  EXPECT_EQ(digest().code, CHAP_MICROSOFT_V2);
  EXPECT_EQ(lcp_allowoptions[0].chap_mdtype, MDTYPE_MICROSOFT_V2);
  EXPECT_EQ(chap_mdtype_all, MDTYPE_MICROSOFT_V2);
  EXPECT_EQ(chap_check_hook(), 1);
  char password[] = "left over";
  EXPECT_EQ(chap_passwd_hook(nullptr, password), 1);
  EXPECT_STREQ(password, "");
  EXPECT_NE(option("ks-prefix")->flags & OPT_PRIV, 0u);
  EXPECT_NE(option("ks-secret")->flags & OPT_PRIV, 0u);
}

TEST_F(Plugin, AcceptsThePublishedResponseAndProvesThatItKnowsThePassword) {
  EXPECT_TRUE(verify_published()) << logged;
  EXPECT_EQ(message, std::string(mschap::kAuthenticatorResponse) + " M=Access granted");
  EXPECT_EQ(mppe_keys_set, 1);
  EXPECT_EQ(key(mppe_send_key), kServerSends);
  EXPECT_EQ(key(mppe_recv_key), kClientSends);
}

TEST_F(Plugin, LeavesTheDomainOutOfTheUsersName) {
  EXPECT_TRUE(verify_published("BIGCO\\User")) << logged;
}

TEST_F(Plugin, DeniesAWrongResponseAndTakesTheKeysAway) {
  ASSERT_TRUE(verify_published());
  std::string wrong = kNtResponse;
  wrong.back() ^= 1;
  EXPECT_FALSE(verify("User", kChallenge, response_of(kPeerChallenge, wrong)));
  EXPECT_EQ(message, kDenied);
  EXPECT_EQ(mppe_keys_set, 0);
  EXPECT_EQ(logged, "");
}

TEST_F(Plugin, DeniesAnotherUserAndOneThatIsNotThereAlike) {
  EXPECT_FALSE(verify_published("other"));
  EXPECT_EQ(message, kDenied);
  EXPECT_FALSE(verify_published("nobody"));
  EXPECT_EQ(message, kDenied);
  EXPECT_EQ(logged, "The keystore has no secret mschap-nobody\n");
  set_option("ks-secret", "mschap-");
  EXPECT_FALSE(verify("", kChallenge, respond(2, "", kChallenge)));
  EXPECT_EQ(message, kDenied);
  EXPECT_FALSE(verify_published("DOMAIN\\"));
  EXPECT_FALSE(verify_published(std::string(25, 'u')));
  EXPECT_EQ(message, kDenied);
  EXPECT_THAT(logged, HasSubstr("uuu can't be the name of a secret, which has at most 31 bytes"));
}

TEST_F(Plugin, TakesNoSecretForAPasswordThatLacksThePrefix) {
  EXPECT_FALSE(verify_published("aes-key"));
  set_option("ks-prefix", "");
  std::string response = respond(1, "aes-key", kChallenge);
  EXPECT_TRUE(verify("aes-key", kChallenge, response)) << "the prefix isn't what kept it out";
}

TEST_F(Plugin, DeniesResponsesAndChallengesOfAnotherLength) {
  const std::string whole = response_of(kPeerChallenge, kNtResponse);
  for (const std::string &response : {whole.substr(1), whole + '\0', std::string()}) {
    EXPECT_FALSE(verify("User", kChallenge, response));
    EXPECT_EQ(message, kDenied);
  }
  for (const std::string &challenge : {kChallenge.substr(1), kChallenge + '\0', std::string()}) {
    EXPECT_FALSE(verify("User", challenge, whole));
    EXPECT_THAT(message, StartsWith("E=691 R=0 C="));
  }
}

TEST_F(Plugin, DeniesOtherDigests) {
  chap_digest_type md5{};
  md5.code = CHAP_MD5;
  char name[] = "User";
  char text[256] = "";
  std::string challenge = with_length(kChallenge);
  std::string response = with_length(response_of(kPeerChallenge, kNtResponse));
  EXPECT_EQ(chap_verify_hook(name, nullptr, 7, &md5, bytes_of(challenge), bytes_of(response), text, sizeof text), 0);
  EXPECT_THAT(logged, HasSubstr("use require-mschap-v2"));
}

TEST_F(Plugin, DrawsAChallengeForEachPeer) {
  std::string first = with_length("");
  std::string second = with_length("");
  digest().generate_challenge(bytes_of(first));
  digest().generate_challenge(bytes_of(second));
  EXPECT_EQ(first[0], KS_CHALLENGE_SIZE);
  EXPECT_EQ(second[0], KS_CHALLENGE_SIZE);
  EXPECT_NE(first, second);
}

TEST_F(Plugin, AnswersThePublishedChallenge) {
  next_random = kPeerChallenge;
  EXPECT_EQ(respond(9, "User", kChallenge), response_of(kPeerChallenge, kNtResponse)) << logged;
  EXPECT_EQ(mppe_keys_set, 0) << "before the peer has proved that it knows the password";

  EXPECT_TRUE(succeeds(9, std::string(mschap::kAuthenticatorResponse) + " M=Welcome"));
  EXPECT_EQ(mppe_keys_set, 1);
  EXPECT_EQ(key(mppe_send_key), kClientSends);
  EXPECT_EQ(key(mppe_recv_key), kServerSends);
}

TEST_F(Plugin, AnswersAChallengeThatComesAgainAsBefore) {
  const std::string first = respond(9, "User", kChallenge);
  EXPECT_EQ(respond(9, "User", kChallenge), first);
  std::string another = kChallenge;
  another.back() ^= 1;
  EXPECT_NE(respond(9, "User", another), first);
  EXPECT_NE(respond(10, "User", kChallenge), first);
}

TEST_F(Plugin, AnswersNoChallengeOfItsOwn) {
  next_random = kPeerChallenge;
  ASSERT_FALSE(respond(8, "User", kChallenge).empty());
  std::string challenge = with_length("");
  digest().generate_challenge(bytes_of(challenge));
  EXPECT_EQ(respond(9, "User", challenge.substr(1, KS_CHALLENGE_SIZE)), "");
  EXPECT_THAT(logged, HasSubstr("the peer asks us what we ask it"));
  EXPECT_FALSE(succeeds(9, mschap::kAuthenticatorResponse)) << "with the proof for what was answered before";
}

TEST_F(Plugin, RefusesAPeerThatDoesNotKnowThePassword) {
  next_random = kPeerChallenge;
  ASSERT_EQ(respond(9, "User", kChallenge).size(), static_cast<size_t>(MS_CHAP2_RESPONSE_LEN));
  const std::string right = mschap::kAuthenticatorResponse;
  std::string wrong = right;
  wrong.back() ^= 1;
  EXPECT_FALSE(succeeds(9, wrong));
  EXPECT_FALSE(succeeds(9, right, right.size() - 1));
  EXPECT_FALSE(succeeds(9, ""));
  EXPECT_FALSE(succeeds(8, right));
  EXPECT_EQ(mppe_keys_set, 0);
  EXPECT_TRUE(succeeds(9, right));
}

TEST_F(Plugin, AnswersWithTheSecretThatTheOptionNames) {
  set_option("ks-secret", "aes-key");
  next_random = kPeerChallenge;
  EXPECT_EQ(respond(9, "User", kChallenge), response_of(kPeerChallenge, kNtResponse)) << logged;
  EXPECT_TRUE(succeeds(9, mschap::kAuthenticatorResponse));

  set_option("ks-secret", std::string(32, 'n'));
  EXPECT_EQ(respond(10, "User", kChallenge), "");
  EXPECT_THAT(logged, HasSubstr("can't be the name of a secret, which has at most 31 bytes"));
}

TEST_F(Plugin, AnswersNothingToAChallengeOfAnotherLengthOrWithoutAPassword) {
  EXPECT_EQ(respond(9, "User", kChallenge.substr(8)), "");
  EXPECT_EQ(respond(9, "nobody", kChallenge), "");
  EXPECT_FALSE(succeeds(9, mschap::kAuthenticatorResponse));
}

TEST_F(Plugin, DeniesWithoutAKeystoreAndGoesOnWhenItIsBack) {
  ASSERT_TRUE(verify_published());
  service->kill();
  EXPECT_FALSE(verify_published());
  EXPECT_EQ(message, kDenied);
  EXPECT_THAT(logged, HasSubstr("The keystore failed on mschap-User"));
  EXPECT_THAT(logged, HasSubstr("no keystore service"));
  EXPECT_EQ(respond(9, "User", kChallenge), "");
  std::string challenge = with_length(kChallenge);
  digest().generate_challenge(bytes_of(challenge));
  EXPECT_EQ(challenge[0], 0);
  EXPECT_FALSE(verify("User", "", ""));

  service->start();
  EXPECT_TRUE(verify_published());
  EXPECT_EQ(respond(9, "User", kChallenge).size(), static_cast<size_t>(MS_CHAP2_RESPONSE_LEN));
}

TEST_F(Plugin, LetsAPeerHaveTheAddressThatTheOptionsGiveIt) {
  ipcp_wantoptions[0].hisaddr = 0;
  EXPECT_EQ(allowed_address_hook(0), -1);
  EXPECT_EQ(allowed_address_hook(5), -1);
  ipcp_wantoptions[0].hisaddr = 5;
  EXPECT_EQ(allowed_address_hook(5), 1);
  EXPECT_EQ(allowed_address_hook(6), -1);
}

}  // namespace
