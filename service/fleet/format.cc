// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "fleet/format.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <functional>

#include "base/little_endian.h"
#include "fleet/engine.h"

namespace ksd::fleet {
namespace {

using vault::RecordKind;

constexpr std::array<uint8_t, 4> kMagic{'k', 's', 'f', '1'};
constexpr size_t kFrontSize = kMagic.size() + sizeof(FleetId) + sizeof(vault::KeyId);
constexpr size_t kMostKeys = 2;
constexpr std::string_view kFingerprintTitle = "ks-fleet-machines-1 ";
constexpr size_t kRowDigits = 16;

// Out writes fields one behind the other.
class Out {
 public:
  template <typename Number>
  Out &number(Number value) {
    bytes_.resize(bytes_.size() + sizeof value);
    put_little_endian(bytes_.data() + bytes_.size() - sizeof value, value);
    return *this;
  }
  template <typename Range>
  Out &bytes(const Range &range) {
    bytes_.insert(bytes_.end(), range.begin(), range.end());
    return *this;
  }
  Out &text(std::string_view text) { return number(static_cast<uint8_t>(text.size())).bytes(text); }
  std::vector<uint8_t> take() { return std::move(bytes_); }

 private:
  std::vector<uint8_t> bytes_;
};

// In reads them. Behind the end there are zeros, and ok says false.
class In {
 public:
  explicit In(Bytes bytes) : rest_(bytes) {}

  template <typename Number>
  Number number() {
    const Bytes bytes = take(sizeof(Number));
    return bytes.empty() ? Number{0} : get_little_endian<Number>(bytes.data());
  }
  template <typename Array>
  Array array() {
    Array out{};
    const Bytes bytes = take(out.size());
    std::copy(bytes.begin(), bytes.end(), out.begin());
    return out;
  }
  std::string text() {
    const Bytes bytes = take(number<uint8_t>());
    return {bytes.begin(), bytes.end()};
  }
  Bytes rest() const { return rest_; }
  bool ok() const { return ok_; }
  bool at_end() const { return ok_ && rest_.empty(); }

 private:
  Bytes take(size_t size) {
    ok_ = ok_ && rest_.size() >= size;
    if (!ok_) return {};
    const Bytes taken = rest_.first(size);
    rest_ = rest_.subspan(size);
    return taken;
  }

  Bytes rest_;
  bool ok_ = true;
};

bool is_owner_name(std::string_view name) {
  return !name.empty() && name.size() <= kLongestOwnerName;
}

std::optional<uint64_t> number_in(std::string_view digits) {
  uint64_t number = 0;
  for (const char c : digits) {
    const bool is_digit = c >= '0' && c <= '9';
    if (!is_digit && !(c >= 'a' && c <= 'f')) return std::nullopt;
    number = number << 4 | static_cast<uint64_t>(is_digit ? c - '0' : c - 'a' + 10);
  }
  return number;
}

// The place that heartbeat and box of a machine are bound to, for want of a row.
uint64_t place_of(std::string_view machine) {
  std::array<uint8_t, crypto_generichash_BYTES_MIN> hash;
  crypto_generichash(hash.data(), hash.size(), reinterpret_cast<const uint8_t *>(machine.data()), machine.size(),
                     nullptr, 0);
  return get_little_endian<uint64_t>(hash.data());
}

// put_marks writes how many there are, and each of them.
void put_marks(Out &out, const std::vector<WriterMark> &marks) {
  out.number(static_cast<uint8_t>(marks.size()));
  for (const WriterMark &mark : marks) {
    out.text(mark.machine).number(mark.session).number(mark.sequence).bytes(mark.public_key);
  }
}

// take_marks gives false for names that aren't machines', and for too many.
bool take_marks(In &in, size_t most, std::vector<WriterMark> &marks) {
  const size_t count = in.number<uint8_t>();
  if (count > most) return false;
  marks.reserve(count);
  for (size_t i = 0; i < count && in.ok(); ++i) {
    WriterMark &mark = marks.emplace_back();
    mark.machine = in.text();
    mark.session = in.number<uint64_t>();
    mark.sequence = in.number<uint64_t>();
    mark.public_key = in.array<PublicKey>();
    if (!is_machine_name(mark.machine)) return false;
  }
  return in.ok();
}

}  // namespace

bool is_machine_name(std::string_view name) {
  const auto allowed = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-';
  };
  return !name.empty() && name.size() <= kLongestMachineName && std::all_of(name.begin(), name.end(), allowed);
}

const WriterMark *FleetHeader::mark_of(std::string_view machine) const {
  const auto found =
      std::lower_bound(writers.begin(), writers.end(), machine,
                       [](const WriterMark &mark, std::string_view name) { return mark.machine < name; });
  return found == writers.end() || found->machine != machine ? nullptr : &*found;
}

const WriterMark *FleetHeader::departed_mark_of(std::string_view machine) const {
  const auto found = std::ranges::find(departed, machine, &WriterMark::machine);
  return found == departed.end() ? nullptr : &*found;
}

const WriterMark *FleetHeader::any_mark_of(std::string_view machine) const {
  const WriterMark *mark = mark_of(machine);
  return mark != nullptr ? mark : departed_mark_of(machine);
}

bool FleetHeader::follows(const FleetHeader &earlier) const {
  // Who left before so many others isn't remembered.
  const bool forgets = departed.size() == kMostDeparted;
  const auto is_behind = [&](const WriterMark &then) {
    const WriterMark *now = any_mark_of(then.machine);
    return now == nullptr ? !forgets : now->sequence < then.sequence;
  };
  return std::ranges::none_of(earlier.writers, is_behind) && std::ranges::none_of(earlier.departed, is_behind);
}

Fingerprint fingerprint_of(const std::vector<WriterMark> &writers) {
  Out out;
  out.bytes(kFingerprintTitle);
  for (const WriterMark &mark : writers) out.text(mark.machine).bytes(mark.public_key);
  const std::vector<uint8_t> text = out.take();
  Fingerprint fingerprint;
  crypto_generichash(fingerprint.data(), fingerprint.size(), text.data(), text.size(), nullptr, 0);
  return fingerprint;
}

Fingerprint fingerprint_of(const WriterMark &writer) {
  return fingerprint_of(std::vector{writer});
}

std::vector<uint8_t> encode_header(const FleetHeader &header) {
  Out out;
  out.number(header.version).number(header.incarnation).number(header.folder).bytes(header.before);
  out.number(header.table.last_id).number(header.table.last_version).number(header.table.entry_count);
  out.bytes(header.table.digest).number(header.writer);
  put_marks(out, header.writers);
  put_marks(out, header.departed);
  out.number(static_cast<uint8_t>(header.key_change ? 1 : 0));
  if (const auto &change = header.key_change) {
    out.bytes(change->key_id).number(change->moved).text(change->begun_by);
  }
  return out.take();
}

std::optional<FleetHeader> decode_header(Bytes plain) {
  In in(plain);
  FleetHeader header;
  header.version = in.number<uint64_t>();
  header.incarnation = in.number<uint64_t>();
  header.folder = in.number<uint64_t>();
  header.before = in.array<HeaderHash>();
  header.table.last_id = in.number<uint64_t>();
  header.table.last_version = in.number<uint64_t>();
  header.table.entry_count = in.number<uint64_t>();
  header.table.digest = in.array<vault::Digest>();
  header.writer = in.number<uint8_t>();
  if (!take_marks(in, kMostMachines, header.writers) || !take_marks(in, kMostDeparted, header.departed)) {
    return std::nullopt;
  }
  if (header.writer >= header.writers.size() + header.departed.size()) return std::nullopt;
  const auto is_in_order = [](const WriterMark &a, const WriterMark &b) { return a.machine < b.machine; };
  if (std::ranges::adjacent_find(header.writers, std::not_fn(is_in_order)) != header.writers.end()) return std::nullopt;
  const auto changes = in.number<uint8_t>();
  if (changes > 1) return std::nullopt;
  if (changes == 1) {
    FleetKeyChange &change = header.key_change.emplace();
    change.key_id = in.array<vault::KeyId>();
    change.moved = in.number<uint64_t>();
    change.begun_by = in.text();
    if (!is_machine_name(change.begun_by)) return std::nullopt;
  }
  if (!in.at_end()) return std::nullopt;
  return header;
}

std::vector<uint8_t> seal_header(const FleetHeader &header, const vault::KeyId &key, const vault::Sealer &sealer) {
  Out out;
  out.bytes(kMagic).bytes(sealer.vault_id()).bytes(key);
  out.bytes(sealer.seal(RecordKind::kFleetHeader, 0, encode_header(header)));
  return out.take();
}

std::optional<HeaderFront> header_front(Bytes stored) {
  if (stored.size() < kFrontSize || !std::equal(kMagic.begin(), kMagic.end(), stored.begin())) return std::nullopt;
  In in(stored.subspan(kMagic.size()));
  HeaderFront front;
  front.fleet = in.array<FleetId>();
  front.key = in.array<vault::KeyId>();
  front.sealed = in.rest();
  return front;
}

HeaderHash hash_of(Bytes stored) {
  HeaderHash hash;
  crypto_generichash(hash.data(), hash.size(), stored.data(), stored.size(), nullptr, 0);
  return hash;
}

std::string row_key(const RowPlace &place) {
  return fmt::format("{}{:016x}/{:016x}", kRowFolder, place.folder, place.id);
}

std::optional<RowPlace> row_place(std::string_view key) {
  constexpr std::string_view kFolder = kRowFolder;
  if (key.size() != kFolder.size() + 2 * kRowDigits + 1 || !key.starts_with(kFolder)) return std::nullopt;
  key.remove_prefix(kFolder.size());
  if (key[kRowDigits] != '/') return std::nullopt;
  const std::optional<uint64_t> folder = number_in(key.substr(0, kRowDigits));
  const std::optional<uint64_t> id = number_in(key.substr(kRowDigits + 1));
  if (!folder || !id) return std::nullopt;
  return RowPlace{*folder, *id};
}

std::shared_ptr<const SecretBytes> encode_row(const vault::EntryRow &row, std::string_view owner) {
  vault::EntryRow bare = row;
  bare.owner = 0;
  const std::shared_ptr<const SecretBytes> record = vault::encode_entry(bare);
  const std::shared_ptr<SecretBytes> plain = SecretBytes::allocate(1 + owner.size() + record->size());
  uint8_t *out = plain->writable().data();
  *out++ = static_cast<uint8_t>(owner.size());
  out = std::copy(owner.begin(), owner.end(), out);
  std::copy(record->bytes().begin(), record->bytes().end(), out);
  return plain;
}

std::optional<DecodedRow> decode_row(uint64_t id, Bytes plain) {
  In in(plain);
  DecodedRow decoded;
  decoded.owner = in.text();
  if (!in.ok() || !is_owner_name(decoded.owner)) return std::nullopt;
  const vault::RowPtr row = vault::decode_entry(id, in.rest());
  if (row == nullptr || row->owner != 0) return std::nullopt;
  decoded.row = *row;
  return decoded;
}

bool holds(const Heartbeat &beat, const vault::KeyId &key) {
  return std::ranges::find(beat.keys, key) != beat.keys.end();
}

std::vector<uint8_t> seal_heartbeat(const Heartbeat &beat, std::string_view machine, const vault::Sealer &sealer) {
  Out out;
  out.number(beat.session).number(beat.number).number(beat.version).number(uint8_t{beat.waits});
  out.number(static_cast<uint8_t>(beat.keys.size()));
  for (const vault::KeyId &key : beat.keys) out.bytes(key);
  return sealer.seal(RecordKind::kHeartbeat, place_of(machine), out.take());
}

std::optional<Heartbeat> open_heartbeat(Bytes sealed, std::string_view machine, const vault::Sealer &sealer) {
  const std::shared_ptr<const SecretBytes> plain = sealer.open(RecordKind::kHeartbeat, place_of(machine), sealed);
  if (plain == nullptr) return std::nullopt;
  In in(plain->bytes());
  Heartbeat beat;
  beat.session = in.number<uint64_t>();
  beat.number = in.number<uint64_t>();
  beat.version = in.number<uint64_t>();
  const auto waits = in.number<uint8_t>();
  const size_t keys = in.number<uint8_t>();
  if (waits > 1 || keys > kMostKeys) return std::nullopt;
  beat.waits = waits == 1;
  for (size_t i = 0; i < keys; ++i) beat.keys.push_back(in.array<vault::KeyId>());
  if (!in.at_end()) return std::nullopt;
  return beat;
}

PublicKey public_key_of(const SecretBytes *machine_key) {
  PublicKey key{};
  if (machine_key != nullptr && crypto_scalarmult_base(key.data(), machine_key->bytes().data()) != 0) key = {};
  return key;
}

std::optional<BoxedKey> box_key(const SecretBytes &master_key, const std::string &sender,
                                const SecretBytes &machine_key, const PublicKey &receiver) {
  BoxedKey boxed{.key_id = vault::key_id_of(master_key), .sender = sender};
  randombytes_buf(boxed.nonce.data(), boxed.nonce.size());
  const bool is_boxed = master_key.size() == vault::kMasterKeySize &&
                        crypto_box_easy(boxed.box.data(), master_key.bytes().data(), master_key.size(),
                                        boxed.nonce.data(), receiver.data(), machine_key.bytes().data()) == 0;
  if (!is_boxed) return std::nullopt;
  return boxed;
}

std::shared_ptr<const SecretBytes> unbox_key(const BoxedKey &boxed, const SecretBytes &machine_key,
                                             const PublicKey &sender) {
  const std::shared_ptr<SecretBytes> key = SecretBytes::allocate(vault::kMasterKeySize);
  const bool opens = crypto_box_open_easy(key->writable().data(), boxed.box.data(), boxed.box.size(),
                                          boxed.nonce.data(), sender.data(), machine_key.bytes().data()) == 0;
  return opens && vault::key_id_of(*key) == boxed.key_id ? key : nullptr;
}

std::vector<uint8_t> seal_box(const BoxedKey &box, std::string_view machine, const vault::Sealer &sealer) {
  Out out;
  out.bytes(box.key_id).text(box.sender).bytes(box.nonce).bytes(box.box);
  return sealer.seal(RecordKind::kBoxedKey, place_of(machine), out.take());
}

std::optional<BoxedKey> open_box(Bytes sealed, std::string_view machine, const vault::Sealer &sealer) {
  const std::shared_ptr<const SecretBytes> plain = sealer.open(RecordKind::kBoxedKey, place_of(machine), sealed);
  if (plain == nullptr) return std::nullopt;
  In in(plain->bytes());
  BoxedKey box;
  box.key_id = in.array<vault::KeyId>();
  box.sender = in.text();
  box.nonce = in.array<decltype(box.nonce)>();
  box.box = in.array<decltype(box.box)>();
  if (!in.at_end() || !is_machine_name(box.sender)) return std::nullopt;
  return box;
}

}  // namespace ksd::fleet
