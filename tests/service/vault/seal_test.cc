// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/seal.h"

#include <gtest/gtest.h>

#include "vault/record.h"
#include "vault_files/vault_files.h"

namespace ksd::vault {
namespace {

std::shared_ptr<const SecretBytes> master_key(uint8_t fill) {
  return SecretBytes::copy_of(std::vector<uint8_t>(kMasterKeySize, fill));
}

constexpr VaultId kVault{1, 2, 3}, kOtherVault{1, 2, 4};

EntryRow example() {
  return example_row(5, 17);
}

TEST(Sealer, OpensWhatItSealed) {
  const Sealer sealer(*master_key(1), kVault);
  const auto sealed = sealer.seal(RecordKind::kEntry, 5, bytes_of("plain"));
  const auto opened = sealer.open(RecordKind::kEntry, 5, sealed);

  ASSERT_NE(opened, nullptr);
  EXPECT_EQ(std::vector<uint8_t>(opened->bytes().begin(), opened->bytes().end()), bytes_of("plain"));
  EXPECT_NE(sealed, sealer.seal(RecordKind::kEntry, 5, bytes_of("plain"))) << "the same text is sealed anew each time";
}

TEST(Sealer, RefusesARecordWithAnyBitFlipped) {
  const Sealer sealer(*master_key(1), kVault);
  auto sealed = sealer.seal(RecordKind::kEntry, 5, encode_entry(example())->bytes());
  for (size_t i = 0; i < sealed.size(); ++i) {
    for (unsigned bit = 0; bit < 8; ++bit) {
      sealed[i] ^= static_cast<uint8_t>(1u << bit);
      ASSERT_EQ(sealer.open(RecordKind::kEntry, 5, sealed), nullptr) << "byte " << i << " bit " << bit;
      sealed[i] ^= static_cast<uint8_t>(1u << bit);
    }
  }
  ASSERT_NE(sealer.open(RecordKind::kEntry, 5, sealed), nullptr);
}

TEST(Sealer, RefusesARecordOfAnyOtherLength) {
  const Sealer sealer(*master_key(1), kVault);
  auto sealed = sealer.seal(RecordKind::kEntry, 5, bytes_of("plain"));
  for (size_t size = 0; size < sealed.size(); ++size) {
    EXPECT_EQ(sealer.open(RecordKind::kEntry, 5, {sealed.data(), size}), nullptr);
  }
  sealed.push_back(0);
  EXPECT_EQ(sealer.open(RecordKind::kEntry, 5, sealed), nullptr);
}

TEST(Sealer, RefusesARecordInAnotherPlace) {
  const Sealer sealer(*master_key(1), kVault);
  const auto sealed = sealer.seal(RecordKind::kEntry, 5, bytes_of("plain"));

  EXPECT_EQ(sealer.open(RecordKind::kEntry, 6, sealed), nullptr);
  EXPECT_EQ(sealer.open(RecordKind::kHeader, 5, sealed), nullptr);
  EXPECT_EQ(Sealer(*master_key(1), kOtherVault).open(RecordKind::kEntry, 5, sealed), nullptr);
  EXPECT_EQ(Sealer(*master_key(2), kVault).open(RecordKind::kEntry, 5, sealed), nullptr);
}

TEST(Sealer, TellsMasterKeysApartWithoutGivingThemAway) {
  EXPECT_EQ(key_id_of(*master_key(1)), key_id_of(*master_key(1)));
  EXPECT_NE(key_id_of(*master_key(1)), key_id_of(*master_key(2)));
  EXPECT_NE(key_id_of(*master_key(1))[0], 1);
}

TEST(Header, KnowsWhenRowsAreTakenOutOrPutBackInAnotherVersion) {
  const Sealer sealer(*master_key(1), kVault);
  Header header;
  header.add(sealer.mark(1, 10));
  header.add(sealer.mark(2, 11));
  const Digest both = header.digest;
  header.take_out(sealer.mark(2, 11));
  EXPECT_NE(header.digest, both);
  header.add(sealer.mark(2, 12));
  EXPECT_NE(header.digest, both);
  header.take_out(sealer.mark(2, 12));
  header.add(sealer.mark(2, 11));
  EXPECT_EQ(header.digest, both);
}

TEST(EntryText, IsReadBackWhole) {
  const EntryRow row = example();
  const RowPtr read = decode_entry(5, encode_entry(row)->bytes());

  ASSERT_NE(read, nullptr);
  EXPECT_EQ(read->id, 5u);
  EXPECT_EQ(read->version, 17u);
  EXPECT_EQ(read->owner, 1000u);
  EXPECT_EQ(read->name, row.name);
  EXPECT_EQ(*read->alias, *row.alias);
  EXPECT_EQ(read->bytes(), row.bytes());
  EXPECT_EQ(*read->metadata, *row.metadata);
}

TEST(EntryText, IsRefusedWhenCutShortOrTooLong) {
  const auto plain = encode_entry(example());
  for (size_t size = 0; size < plain->size(); ++size) EXPECT_EQ(decode_entry(5, plain->bytes().first(size)), nullptr);
  std::vector<uint8_t> longer(plain->bytes().begin(), plain->bytes().end());
  longer.push_back(0);
  EXPECT_EQ(decode_entry(5, longer), nullptr);
}

TEST(EntryText, IsRefusedWithNamesThatAreNone) {
  constexpr size_t kNameTag = 22;  // behind version, owner and sizes
  EntryRow without_alias = example();
  without_alias.alias.reset();
  const size_t alias_tag = kNameTag + wire_name(without_alias.name).size();
  const auto decoded = [](const EntryRow &row, size_t tag_at) {
    const auto plain = encode_entry(row);
    std::vector<uint8_t> other(plain->bytes().begin(), plain->bytes().end());
    other[tag_at] = 0xee;
    return decode_entry(5, other);
  };
  EXPECT_EQ(decoded(without_alias, kNameTag), nullptr);
  EXPECT_EQ(decoded(example(), kNameTag), nullptr);
  EXPECT_EQ(decoded(example(), alias_tag), nullptr);
}

}  // namespace
}  // namespace ksd::vault
