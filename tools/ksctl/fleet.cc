// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// fleet.cc: commands by which a machine comes to share the entries of others. The master key goes from one machine to
// another in two files that anybody may carry: a request with a public key, and an answer that only its machine can
// open. What a carrier could put in the place of either shows in its fingerprint, which the operator compares.
#include <fmt/format.h>
#include <sodium.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "administration.h"
#include "base/bytes.h"
#include "command.h"
#include "fingerprint.h"
#include "fleet_keys.h"
#include "growing_file.h"
#include "private_file.h"
#include "quietly.h"
#include "secret_input.h"
#include "service_link.h"
#include "vault/master_key.h"

namespace ksctl {
namespace {

namespace vault = ksd::vault;

constexpr std::string_view kRequestTitle = "ks-fleet-request-1 ";
constexpr std::string_view kAnswerTitle = "ks-fleet-answer-1 ";
constexpr size_t kMostText = 512;
constexpr size_t kMasterKeySize = 32;

using PublicKey = std::array<uint8_t, crypto_box_PUBLICKEYBYTES>;

// Answer is what an admitted machine gets: the key that this was boxed with, used once, and the box.
struct Answer {
  PublicKey sender{};
  std::array<uint8_t, crypto_box_NONCEBYTES> nonce{};
  std::array<uint8_t, crypto_box_MACBYTES + kMasterKeySize> box{};
};
static_assert(sizeof(Answer) == 32 + 24 + 16 + 32);

template <typename Content>
std::string to_line(std::string_view title, const Content &content) {
  std::array<char, sodium_base64_ENCODED_LEN(sizeof content, sodium_base64_VARIANT_ORIGINAL)> text{};
  sodium_bin2base64(text.data(), text.size(), reinterpret_cast<const uint8_t *>(&content), sizeof content,
                    sodium_base64_VARIANT_ORIGINAL);
  return fmt::format("{}{}\n", title, text.data());
}

// read_line reads a file that was made by to_line.
template <typename Content>
Content read_line(const std::string &path, std::string_view title, const char *what, const char *made_by) {
  const Secret file = read_private_file(path, kMostText);
  std::string_view line(reinterpret_cast<const char *>(file->bytes().data()), file->size());
  Content content;
  size_t size = 0;
  const char *end = nullptr;
  const bool good =
      line.starts_with(title) &&
      sodium_base642bin(reinterpret_cast<uint8_t *>(&content), sizeof content, line.data() + title.size(),
                        line.size() - title.size(), "\n", &size, &end, sodium_base64_VARIANT_ORIGINAL) == 0 &&
      size == sizeof content && end == line.data() + line.size();
  if (!good) {
    throw Failure(Exit::kFailed, fmt::format("{}: isn't {}; give the file that `ksctl {}` made", path, what, made_by));
  }
  return content;
}

// fingerprint_of words 128 bits as people compare them.
template <typename Content>
std::string fingerprint_of(std::string_view title, const Content &content, const PublicKey *with = nullptr) {
  std::array<uint8_t, 16> hash{};
  crypto_generichash_state state;
  crypto_generichash_init(&state, nullptr, 0, hash.size());
  crypto_generichash_update(&state, reinterpret_cast<const uint8_t *>(title.data()), title.size());
  if (with != nullptr) crypto_generichash_update(&state, with->data(), with->size());
  crypto_generichash_update(&state, reinterpret_cast<const uint8_t *>(&content), sizeof content);
  crypto_generichash_final(&state, hash.data(), hash.size());
  return to_words(hash);
}

// An answer's fingerprint is one of its request, too: it can't be that to another machine.
std::string fingerprint_of(const Answer &answer, const PublicKey &request) {
  return fingerprint_of(kAnswerTitle, answer, &request);
}

void compare(const Arguments &arguments, const std::string &fingerprint, const char *file, const char *shown_by) {
  if (arguments.text("--fingerprint") == fingerprint) return;
  throw Failure(
      Exit::kNotAllowed,
      fmt::format("{}: has another fingerprint than the one given; look at what `ksctl {}` showed on the other "
                  "machine. If that is what was given, somebody has exchanged the file",
                  arguments.text(file), shown_by));
}

void write_line(const std::string &path, const std::string &line) {
  constexpr mode_t kForAll = 0644;  // whoever carries it is another user
  GrowingFile file(path, kForAll);
  file.write(ksd::bytes_of(line));
  file.keep();
}

std::string_view text_of(ksd::Bytes bytes) {
  return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

void request(Session &session, const Arguments &arguments) {
  const std::string &path = arguments.text("REQUEST");
  PublicKey public_key{};
  const auto secret_key = ksd::SecretBytes::allocate(crypto_box_SECRETKEYBYTES);
  crypto_box_keypair(public_key.data(), secret_key->writable().data());
  write_private_file(arguments.text("--join-key-file"), text_of(secret_key->bytes()), false);
  try {
    write_line(path, to_line(kRequestTitle, public_key));
  } catch (...) {
    unlink(arguments.text("--join-key-file").c_str());
    throw;
  }
  session.output.fields(Object{{"file", path}, {"fingerprint", fingerprint_of(kRequestTitle, public_key)}});
}

void admit(Session &session, const Arguments &arguments) {
  const std::string &path = arguments.text("ANSWER");
  const auto receiver =
      read_line<PublicKey>(arguments.text("REQUEST"), kRequestTitle, "a request to join", "fleet request");
  compare(arguments, fingerprint_of(kRequestTitle, receiver), "REQUEST", "fleet request");
  const vault::MasterKey master = vault::read_master_key(
      {.file = arguments.text("--master-key-file"),
       .passphrase = arguments.has("--key-passphrase-fd") ? read_passphrase(arguments.descriptor("--key-passphrase-fd"),
                                                                            "Passphrase of the master key", false)
                                                          : nullptr},
      false);
  Answer answer;
  const auto sender_key = ksd::SecretBytes::allocate(crypto_box_SECRETKEYBYTES);
  crypto_box_keypair(answer.sender.data(), sender_key->writable().data());
  randombytes_buf(answer.nonce.data(), answer.nonce.size());
  const bool boxed = master.key->size() == kMasterKeySize &&
                     crypto_box_easy(answer.box.data(), master.key->bytes().data(), kMasterKeySize, answer.nonce.data(),
                                     receiver.data(), sender_key->bytes().data()) == 0;
  if (!boxed) {
    throw Failure(Exit::kFailed, fmt::format("{}: has a key that nothing can be sealed to", arguments.text("REQUEST")));
  }
  write_line(path, to_line(kAnswerTitle, answer));
  session.output.fields(Object{{"file", path}, {"fingerprint", fingerprint_of(answer, receiver)}});
}

void join(Session &session, const Arguments &arguments) {
  const std::string &from = arguments.text("ANSWER"), &to = arguments.text("--master-key-file");
  const std::string &key_file = arguments.text("--join-key-file");
  const auto answer = read_line<Answer>(from, kAnswerTitle, "an answer to a machine that wants to join", "fleet admit");
  const Secret own_key = read_private_file(key_file, crypto_box_SECRETKEYBYTES);
  PublicKey own_public_key{};
  if (own_key->size() != crypto_box_SECRETKEYBYTES ||
      crypto_scalarmult_base(own_public_key.data(), own_key->bytes().data()) != 0) {
    throw Failure(Exit::kFailed,
                  fmt::format("{}: isn't the key of a machine that wants to join; give what `ksctl fleet request` made",
                              key_file));
  }
  compare(arguments, fingerprint_of(answer, own_public_key), "ANSWER", "fleet admit");
  const auto master_key = ksd::SecretBytes::allocate(kMasterKeySize);
  if (crypto_box_open_easy(master_key->writable().data(), answer.box.data(), answer.box.size(), answer.nonce.data(),
                           answer.sender.data(), own_key->bytes().data()) != 0) {
    throw Failure(Exit::kFailed, fmt::format("{}: doesn't open; have the machine of the fleet answer again", from));
  }
  if (access(to.c_str(), F_OK) == 0) {
    throw Failure(Exit::kConflict, fmt::format("{}: is there already; move it away first, or name another file", to));
  }
  unlink((to + ".fleet").c_str());  // which told the fleet of a key before this one
  vault::write_new_key(to, *master_key, std::nullopt);
  unlink(key_file.c_str());  // it has done what it was for
  session.output.done(fmt::format("{}: the master key of the fleet", to), Object{{"file", to}});
}

std::string identity_in(const HostFleetReply &told) {
  std::string words;
  for (const uint8_t byte : told.id) words += fmt::format("{:02x}", byte);
  return words;
}

void fleet_status(Session &session, const Arguments &) {
  std::vector<uint8_t> reply;
  ServiceLink link(session.socket);
  const KsResult result = link.result_of(HOST_OP_FLEET, {}, &reply);
  HostFleetReply told{};
  const bool is_shared = result == KS_SUCCESS && reply.size() >= sizeof told;
  if (!is_shared && result != KS_NOT_FOUND) throw Failure(Exit::kFailed, "fleet status: the service couldn't tell");
  if (is_shared) std::copy_n(reply.begin(), sizeof told, reinterpret_cast<uint8_t *>(&told));
  const HostFleetKeysReply keys = is_shared ? fleet_keys(link, "fleet status") : HostFleetKeysReply{};
  const auto known = [&](Value value) { return is_shared ? value : Value(); };
  const bool is_loaded = told.age_ms != UINT64_MAX;
  const bool knows_machines = (keys.flags & HOST_FLEET_KEYS_LOADED) != 0;
  const bool changes_key = (keys.flags & HOST_FLEET_KEYS_CHANGE) != 0;
  session.output.fields(Object{{"shared", is_shared},
                               {"machine", known(text_in(told.machine))},
                               {"well", known((told.flags & HOST_FLEET_IS_WELL) != 0)},
                               {"left_alone", known((told.flags & HOST_FLEET_LEFT_ALONE) != 0)},
                               {"standing", known(text_in(told.standing))},
                               {"age_ms", known(is_loaded ? Value(told.age_ms) : Value())},
                               {"fleet", known(is_loaded ? Value(identity_in(told)) : Value())},
                               {"fingerprint", knows_machines ? Value(to_words(keys.machines)) : Value()},
                               {"changes_key", known(changes_key)},
                               {"version", known(told.version)},
                               {"incarnation", known(told.incarnation)},
                               {"commits", known(told.commits)},
                               {"lost", known(told.lost)},
                               {"unknown", known(told.unknown)},
                               {"loads", known(told.loads)}});
}

constexpr Parameter kJoinKeyFile{"--join-key-file", Kind::kFile,
                                 "Where this machine keeps the key to the answer until then", true};

constexpr Parameter kRequest[] = {{"REQUEST", Kind::kFile, "Where the request is to be written", true}, kJoinKeyFile};
constexpr Parameter kAdmit[] = {{"REQUEST", Kind::kFile, "The other machine's request", true},
                                {"ANSWER", Kind::kFile, "Where the answer is to be written", true},
                                {"--fingerprint", Kind::kText, "The request's, as the other machine showed it", true},
                                kMasterKeyFile,
                                {"--key-passphrase-fd", Kind::kDescriptor,
                                 "Read the passphrase that the master key is sealed under from this descriptor"}};
constexpr Parameter kJoin[] = {{"ANSWER", Kind::kFile, "The answer", true},
                               {"--fingerprint", Kind::kText, "The answer's, as the other machine showed it", true},
                               kJoinKeyFile,
                               {"--master-key-file", Kind::kFile, "Where the master key is to be written", true}};

constexpr char kComparing[] =
    "Compare fingerprints by another way than the one the files take: read them out, or look at both screens.";

}  // namespace

std::span<const Command> fleet_commands() {
  static constexpr Command kCommands[] = {
      {"fleet status", "Tell how the service and its fleet get on", {}, fleet_status, "For administrators."},
      {"fleet request", "Ask to share the entries of other machines", kRequest, quietly<request>, kComparing},
      {"fleet admit", "Give a machine that asks the master key, sealed for it alone", kAdmit, quietly<admit>,
       kComparing},
      {"fleet join", "Take the master key out of an answer", kJoin, quietly<join>, kComparing},
  };
  return kCommands;
}

}  // namespace ksctl
