// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// requests: datagrams of several callers, one after the other, through frame, dispatcher and handlers to the vault.
//
//   input     first byte: 255 to have the vault opened anew at the end | messages: flags and caller, then either a
//   whole
//             datagram with its length in front, or opcode, size of the descriptor, and payload with its length in
//             front; the opcode of the latter is that of an administration message, if the flags say so
//   property  every reply has a shape that its message has; what a VDC holds changes no reply that others get; the
//             table stays dense and without doubles, and is the same after the vault was opened anew
//
// Each input runs in two worlds that differ in what VDC 9 holds, and in nothing else.
#include <spdlog/spdlog.h>

#include <filesystem>
#include <map>
#include <set>
#include <string>

#include "crypto/self_test.h"
#include "handlers/dispatch.h"
#include "handlers/service.h"
#include "server/administration.h"
#include "server/frame.h"
#include "support/fuzz.h"
#include "vault/vault.h"

namespace {

using fuzz::require;
using ksd::Bytes;
using ksd::EntryName;
using Octets = std::vector<uint8_t>;

enum Flag : uint8_t { kCaller = 3, kWholeDatagram = 4, kSentLarger = 8, kAdministration = 16 };

const ksd::Caller kCallers[] = {
    {.uid = 1000, .pid = 1, .counted_as = 1000, .vdc_id = 7, .administrator = false},
    {.uid = 1001, .pid = 2, .counted_as = 1001, .vdc_id = 8, .administrator = false},
    {.uid = 1002, .pid = 3, .counted_as = 1002, .vdc_id = std::nullopt, .administrator = false},
    {.uid = 0, .pid = 4, .counted_as = 0, .vdc_id = std::nullopt, .administrator = true},
};

// ---- What a reply may look like.

constexpr int kAnySize = -1;    // of the data of a success
constexpr int kNoData = -2;     // a result alone
constexpr int kEmptyData = -3;  // a result and a length of 0, whatever the result

const std::map<uint32_t, int> kShapes{
    {66561, kAnySize}, {66562, kNoData},  {66563, kNoData},  {66564, kEmptyData}, {66565, 1},        {66566, kAnySize},
    {66567, kAnySize}, {66568, kNoData},  {66569, kNoData},  {66570, 1},          {66571, kAnySize}, {66572, 24},
    {66573, 42},       {66574, 516},      {66575, 16},       {66576, 16},         {66577, kAnySize}, {66578, kAnySize},
    {66579, kAnySize}, {66580, kAnySize}, {66581, 16},       {66582, 20},         {66583, 16},       {66584, 20},
    {66585, kAnySize}, {66586, kAnySize}, {66587, kAnySize}, {66588, kAnySize},   {66593, 3},        {66594, kNoData},
    {17, kAnySize},  // a part of a backup, which is an administrator's
};

// Administration messages that an administrator has: head, and size of the records behind it, whose number is at offset
// `count_at`.
struct AdministrationShape {
  size_t head;
  size_t record = 0;
  size_t count_at = 4;
};
const std::map<uint32_t, AdministrationShape> kAdministrationShapes{
    {2, {1144}}, {3, {88, 56}}, {4, {24, 776}},  {5, {16, 32}}, {6, {16, 24}}, {7, {8, 56}},   {8, {24, 256, 16}},
    {9, {16}},   {16, {48}},    {18, {4}},       {19, {24}},    {20, {400}},   {21, {8, 136}}, {22, {256}},
    {23, {256}}, {24, {136}},   {25, {872, 36}}, {26, {576}},   {27, {576}},   {28, {24}},     {29, {16, 72}},
};

uint32_t word_at(Bytes reply, size_t offset) {
  uint32_t word;
  memcpy(&word, reply.data() + offset, sizeof word);
  return word;
}

void check_administration_shape(const AdministrationShape &shape, Bytes reply) {
  if (word_at(reply, 0) != 1) return require(reply.size() == 4, "a refusal is a result alone");
  require(reply.size() >= shape.head, "a success has its head");
  const size_t count = shape.record == 0 ? 0 : word_at(reply, shape.count_at);
  require(reply.size() == shape.head + count * shape.record, "there are as many records as the head says");
  if (shape.head != 16 || shape.record == 0) return;
  require(count <= 256 && word_at(reply, 12) == shape.record, "a page is none too long and says what is on it");
  for (size_t i = 1; i < count; ++i) {
    require(word_at(reply, 16 + (i - 1) * shape.record) < word_at(reply, 16 + i * shape.record), "a page ascends");
  }
}

void check_shape(uint32_t opcode, Bytes reply, const ksd::Caller &caller) {
  require(reply.size() >= 4, "a reply has a result");
  const uint32_t result = word_at(reply, 0);
  const auto of_administration = kAdministrationShapes.find(opcode);
  if (caller.administrator && of_administration != kAdministrationShapes.end()) {
    return check_administration_shape(of_administration->second, reply);
  }
  const auto shape = kShapes.find(opcode);
  if (shape == kShapes.end()) return require(reply.size() == 4 && result == 26, "an unknown message is refused");
  require(result >= 1 && result <= 27, "a result is one of those there are");
  if (shape->second == kNoData) return require(reply.size() == 4, "the reply is a result alone");
  if (result != 1 && shape->second != kEmptyData) return require(reply.size() == 4, "a refusal is a result alone");
  require(reply.size() >= 6, "a success has a length");
  const size_t length = reply[4] | size_t{reply[5]} << 8;
  require(reply.size() == 6 + length, "a reply has the data that it says it has");
  const int expected = shape->second == kEmptyData ? 0 : shape->second;
  require(expected == kAnySize || length == static_cast<size_t>(expected), "the data has the message's size");
}

// ---- A world.

// new_folder gives the path of a folder in memory, where there is one.
std::string new_folder() {
  std::string path = std::string(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + "/ks-fuzz-XXXXXX";
  require(mkdtemp(path.data()) != nullptr, "there is a folder");
  return path;
}

Octets octets(std::string_view text) {
  return {text.begin(), text.end()};
}

// ManyVisitors is a crowd of more users than a page has room for.
class ManyVisitors : public ksd::server::Crowd {
 public:
  ksd::server::Places places() override { return {.connections = 700, .users = 601}; }
  std::vector<ksd::server::Visitor> visitors(uid_t from, size_t most) override {
    std::vector<ksd::server::Visitor> found;
    for (uid_t uid = from; uid < 600 && found.size() < most; ++uid) found.emplace_back().uid = uid;
    if (found.size() < most) found.emplace_back().uid = HOST_ALL_UNMAPPED;
    return found;
  }
  std::optional<ksd::server::MessageCountList> messages_of(uid_t uid) override {
    if (uid >= 600) return std::nullopt;
    return ksd::server::MessageCountList(ksd::kOpcodeCount);
  }
};

class World {
 public:
  explicit World(std::string of_vdc_9) : of_vdc_9_(std::move(of_vdc_9)) { open(); }
  World(const World &) = delete;
  World &operator=(const World &) = delete;
  ~World() {
    service_.reset();
    std::filesystem::remove_all(folder_);
  }

  // begin puts into the table what is in it at the beginning of each input.
  void begin() {
    if (store().epoch() == epoch_at_begin_) return;
    while (const auto name = store().at(0)) require(store().remove(*name) == KS_SUCCESS, "an entry can be removed");
    put({0x30, 7, "key"}, "0123456789abcdef", "of 7");
    put({0x31, 7, "aid"}, "0123456789abcdef0123456789abcdef", "pac of 7");
    put({0x30, 8, "key"}, "01234567", "of 8");
    put({0x30, 9, of_vdc_9_}, of_vdc_9_ + "-secret.", of_vdc_9_ + " metadata");
    epoch_at_begin_ = store().epoch();
  }

  Octets answer(uint32_t opcode, Bytes message, size_t descriptor_size, const ksd::Caller &caller) {
    const ksd::handlers::Request request{opcode, message, descriptor_size, caller};
    if (!administration_->answer(request, crowd_, sessions_, reply_)) dispatcher_.answer(*service_, request, reply_);
    return fuzz::own(reply_.payload());
  }

  using Content = std::map<std::string, std::pair<Octets, Octets>>;

  // content is everything there is, once it has been found to be in order.
  Content content() const {
    Content all;
    const size_t count = store().count();
    require(store().usage().entries == count, "the entries are counted");
    for (size_t i = 0; i < count; ++i) {
      const auto name = store().at(static_cast<uint16_t>(i));
      require(name.has_value(), "the table is dense");
      const auto entry = store().find(*name);
      require(entry && entry->secret && entry->secret->size() > 0 && entry->metadata, "every entry has a secret");
      const Octets wire = ksd::wire_name(*name);
      all[{wire.begin(), wire.end()}] = {fuzz::own(entry->secret->bytes()), *entry->metadata};
    }
    require(all.size() == count, "no two entries have one name");
    require(!store().at(static_cast<uint16_t>(count)), "there is nothing behind the end");
    return all;
  }

  void reopen() {
    sessions_.backup.end();
    service_.reset();
    open();
    epoch_at_begin_ = kNever;
  }

 private:
  void open() {
    ksd::vault::VaultOptions options;
    options.path = folder_ + "/vault.db";
    options.master_key_file = folder_ + "/master.key";
    options.limits = kLimits;
    auto vault = ksd::vault::open_vault(options);
    static const ksd::crypto::AlgorithmSet usable = ksd::crypto::start();
    ksd::vault::Vault &opened = *vault;
    service_ = std::make_unique<ksd::handlers::Service>(std::move(vault), usable);
    administration_ = std::make_unique<ksd::server::Administration>(*service_, opened, nullptr, config_, reloader_);
  }
  ksd::vault::Store &store() const { return service_->store(); }
  void put(const EntryName &name, std::string_view secret, std::string_view metadata) {
    require(store().put(name, std::nullopt, octets(secret), octets(metadata), 4711) == KS_SUCCESS, "an entry fits");
  }

  static inline const ksd::vault::Limits kLimits{
      .entries = 12, .entries_per_user = 6, .bytes = 20000, .bytes_per_user = 9000};

  static constexpr uint64_t kNever = UINT64_MAX;

  std::string of_vdc_9_;
  std::string folder_ = new_folder();
  std::unique_ptr<ksd::handlers::Service> service_;
  uint64_t epoch_at_begin_ = kNever;
  ManyVisitors crowd_;
  ksd::server::CurrentConfig config_{ksd::config::Config{}};
  ksd::server::Notifier notifier_;
  bool config_is_good_ = false;  // every other time it is read again
  ksd::server::Reloader reloader_{"ksd.toml",
                                  [this] {
                                    config_is_good_ = !config_is_good_;
                                    return ksd::config::parse_config(config_is_good_ ? "" : "[nonsense]\n");
                                  },
                                  [](const ksd::config::Config &) { return false; }, notifier_};
  std::unique_ptr<ksd::server::Administration> administration_;
  ksd::server::Sessions sessions_;
  ksd::handlers::Dispatcher dispatcher_;
  ksd::handlers::Reply reply_;
};

// ---- The datagrams.

Octets next_datagram(fuzz::Input &input, uint8_t flags) {
  if (flags & kWholeDatagram) return fuzz::own(input.bytes(input.word()));
  HostWireHeader header = {.magic = HOST_WIRE_MAGIC,
                           .version = HOST_WIRE_VERSION,
                           .descriptor_size = 0,
                           .opcode = (flags & kAdministration ? 1u : 66561u) + input.byte(),
                           .token = 1,
                           .node = 0,
                           .sap = 0,
                           .app_uuid = 0,
                           .payload_size = 0};
  header.descriptor_size = input.byte();
  const Bytes payload = input.bytes(input.word());
  header.payload_size = static_cast<uint32_t>(payload.size());
  Octets datagram = fuzz::own({reinterpret_cast<const uint8_t *>(&header), sizeof header});
  datagram.insert(datagram.end(), payload.begin(), payload.end());
  return datagram;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  spdlog::set_level(spdlog::level::off);
  static World world("north");
  static World other_world("south");
  static fuzz::Guarded memory;
  world.begin();
  other_world.begin();

  fuzz::Input input(data, size);
  const bool opens_anew = input.byte() == 255;
  bool differs = false;  // the worlds, since an administrator has been at the entries of VDC 9
  while (!input.empty()) {
    const uint8_t flags = input.byte();
    const ksd::Caller &caller = kCallers[flags & kCaller];
    const Octets datagram = next_datagram(input, flags);
    const Bytes received(memory.copy(datagram), datagram.size());
    const ksd::server::Frame frame = ksd::server::read_frame(received, received.size() + (flags & kSentLarger ? 1 : 0));
    if (frame.verdict != ksd::server::Verdict::kGood) continue;

    const uint32_t opcode = frame.header.opcode;
    const Octets reply = world.answer(opcode, frame.message, frame.header.descriptor_size, caller);
    check_shape(opcode, reply, caller);
    differs |= caller.administrator;
    if (differs) continue;
    const Octets other_reply = other_world.answer(opcode, frame.message, frame.header.descriptor_size, caller);
    const bool random = opcode == 66561 || opcode == 66574;  // the latter's block is filled up with random bytes
    require(random ? reply.size() == other_reply.size() : reply == other_reply,
            "what VDC 9 holds shows to nobody else");
  }

  const World::Content content = world.content();
  if (opens_anew) {
    world.reopen();
    require(world.content() == content, "the vault holds what the table showed");
  }
  return 0;
}
