// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "fleet/format.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "base/little_endian.h"
#include "fleet/engine.h"

namespace ksd::fleet {
namespace {

using vault::RecordKind;

constexpr std::array<uint8_t, 4> kMagic{'k', 's', 'f', '1'};
constexpr size_t kFrontSize = kMagic.size() + sizeof(FleetId) + sizeof(vault::KeyId);
constexpr size_t kBeatSize = 8 + 8 + 8 + 1 + 1;
constexpr size_t kMostKeys = 2;
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

// The place that a heartbeat is bound to, for want of a row.
uint64_t place_of(std::string_view machine) {
  std::array<uint8_t, crypto_generichash_BYTES_MIN> hash;
  crypto_generichash(hash.data(), hash.size(), reinterpret_cast<const uint8_t *>(machine.data()), machine.size(),
                     nullptr, 0);
  return get_little_endian<uint64_t>(hash.data());
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

bool FleetHeader::follows(const FleetHeader &earlier) const {
  return std::all_of(earlier.writers.begin(), earlier.writers.end(), [&](const WriterMark &then) {
    const WriterMark *now = mark_of(then.machine);
    return now != nullptr && now->sequence >= then.sequence;
  });
}

std::vector<uint8_t> encode_header(const FleetHeader &header) {
  Out out;
  out.number(header.version).number(header.incarnation).number(header.folder).bytes(header.before);
  out.number(header.table.last_id).number(header.table.last_version).number(header.table.entry_count);
  out.bytes(header.table.digest).number(header.writer).number(static_cast<uint8_t>(header.writers.size()));
  for (const WriterMark &mark : header.writers) out.text(mark.machine).number(mark.session).number(mark.sequence);
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
  const size_t writers = in.number<uint8_t>();
  if (writers > kMostMachines || header.writer >= writers) return std::nullopt;
  header.writers.reserve(writers);
  for (size_t i = 0; i < writers && in.ok(); ++i) {
    WriterMark &mark = header.writers.emplace_back();
    mark.machine = in.text();
    mark.session = in.number<uint64_t>();
    mark.sequence = in.number<uint64_t>();
    if (!is_machine_name(mark.machine)) return std::nullopt;
    if (i > 0 && header.writers[i - 1].machine >= mark.machine) return std::nullopt;
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

std::vector<uint8_t> seal_heartbeat(const Heartbeat &beat, std::string_view machine, const vault::Sealer &sealer) {
  Out out;
  out.number(beat.session).number(beat.number).number(beat.version).number(uint8_t{beat.waits});
  out.number(static_cast<uint8_t>(beat.keys.size()));
  for (const vault::KeyId &key : beat.keys) out.bytes(key);
  return sealer.seal(RecordKind::kHeartbeat, place_of(machine), out.take());
}

std::optional<Heartbeat> open_heartbeat(Bytes sealed, std::string_view machine, const vault::Sealer &sealer) {
  const std::shared_ptr<const SecretBytes> plain = sealer.open(RecordKind::kHeartbeat, place_of(machine), sealed);
  if (plain == nullptr || plain->size() < kBeatSize) return std::nullopt;
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

}  // namespace ksd::fleet
