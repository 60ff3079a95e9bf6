// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/record.h"

#include <algorithm>

#include "base/little_endian.h"

namespace ksd::vault {
namespace {

// version 8, owner 4, length of name 1, of alias 1, of secret 4, of metadata 4; then these four
constexpr size_t kEntryHead = 8 + 4 + 1 + 1 + 4 + 4;
constexpr size_t kHeaderSize = 8 + 8 + 8 + sizeof(Digest);
constexpr uint8_t kInUse = 1;

}  // namespace

std::shared_ptr<const std::vector<uint8_t>> metadata_of(Bytes bytes) {
  static const auto none = std::make_shared<const std::vector<uint8_t>>();
  return bytes.empty() ? none : std::make_shared<const std::vector<uint8_t>>(bytes.begin(), bytes.end());
}

size_t encoded_size(const EntryRow &row) {
  const size_t alias = row.alias ? KS_NAME_HEADER_SIZE + row.alias->name.size() : 0;
  return kEntryHead + KS_NAME_HEADER_SIZE + row.name.name.size() + alias + row.bytes();
}

std::shared_ptr<const SecretBytes> encode_entry(const EntryRow &row) {
  const std::vector<uint8_t> name = wire_name(row.name);
  const std::vector<uint8_t> alias = row.alias ? wire_name(*row.alias) : std::vector<uint8_t>();
  const Bytes secret = row.secret->bytes();

  const auto plain = SecretBytes::allocate(kEntryHead + name.size() + alias.size() + row.bytes());
  uint8_t *out = plain->writable().data();
  put_little_endian(out, row.version);
  put_little_endian(out + 8, uint32_t{row.owner});
  put_little_endian(out + 12, static_cast<uint8_t>(name.size()));
  put_little_endian(out + 13, static_cast<uint8_t>(alias.size()));
  put_little_endian(out + 14, static_cast<uint32_t>(secret.size()));
  put_little_endian(out + 18, static_cast<uint32_t>(row.metadata->size()));
  out = std::copy(name.begin(), name.end(), out + kEntryHead);
  out = std::copy(alias.begin(), alias.end(), out);
  out = std::copy(secret.begin(), secret.end(), out);
  std::copy(row.metadata->begin(), row.metadata->end(), out);
  return plain;
}

RowPtr decode_entry(uint64_t id, Bytes plain) {
  if (plain.size() < kEntryHead) return nullptr;
  const uint8_t *head = plain.data();
  const size_t name_size = get_little_endian<uint8_t>(head + 12);
  const size_t alias_size = get_little_endian<uint8_t>(head + 13);
  const size_t secret_size = get_little_endian<uint32_t>(head + 14);
  const size_t metadata_size = get_little_endian<uint32_t>(head + 18);
  if (plain.size() != kEntryHead + name_size + alias_size + secret_size + metadata_size) return nullptr;

  const auto name = entry_name(plain.subspan(kEntryHead, name_size));
  const auto alias = entry_name(plain.subspan(kEntryHead + name_size, alias_size));
  if (!name || (alias_size != 0 && !alias)) return nullptr;
  const Bytes metadata = plain.last(metadata_size);

  const auto row = std::make_shared<EntryRow>();
  row->id = id;
  row->version = get_little_endian<uint64_t>(head);
  row->generation = row->version;
  row->owner = get_little_endian<uint32_t>(head + 8);
  row->name = *name;
  if (alias) row->alias = std::make_shared<const EntryName>(*alias);
  row->secret = SecretBytes::copy_of(plain.subspan(kEntryHead + name_size + alias_size, secret_size));
  row->metadata = metadata_of(metadata);
  return row;
}

std::vector<uint8_t> encode_header(const Header &header) {
  std::vector<uint8_t> plain(kHeaderSize);
  put_little_endian(plain.data(), header.last_id);
  put_little_endian(plain.data() + 8, header.last_version);
  put_little_endian(plain.data() + 16, header.entry_count);
  std::copy(header.digest.begin(), header.digest.end(), plain.begin() + 24);
  if (header.in_use) plain.push_back(kInUse);
  return plain;
}

std::optional<Header> decode_header(Bytes plain) {
  const bool is_marked = plain.size() == kHeaderSize + 1 && plain.back() == kInUse;
  if (plain.size() != kHeaderSize && !is_marked) return std::nullopt;
  Header header;
  header.in_use = is_marked;
  header.last_id = get_little_endian<uint64_t>(plain.data());
  header.last_version = get_little_endian<uint64_t>(plain.data() + 8);
  header.entry_count = get_little_endian<uint64_t>(plain.data() + 16);
  std::copy_n(plain.begin() + 24, header.digest.size(), header.digest.begin());
  return header;
}

}  // namespace ksd::vault
