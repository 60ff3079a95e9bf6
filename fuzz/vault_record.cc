// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// vault_record: arbitrary bytes as the plain text of a vault's entry and header, and as what is sealed and damaged.
//
//   input     damage: kind, position, pattern | bytes
//   property  whatever is decoded is encoded to the same bytes again; a sealed record opens to what was sealed, and not
//             at all when it was changed, cut, or stands in another row, kind or vault
#include "support/fuzz.h"
#include "vault/record.h"

namespace {

using fuzz::Bytes;
using fuzz::require;

enum Damage : uint8_t { kNone, kChanged, kCut, kOtherRow, kOtherKind, kOtherVault, kDamages };

constexpr uint64_t kRow = 7;

void check_entry(Bytes plain) {
  const ksd::vault::RowPtr row = ksd::vault::decode_entry(kRow, plain);
  if (row == nullptr) return;
  require(fuzz::same(ksd::vault::encode_entry(*row)->bytes(), plain), "an entry is encoded as it was decoded");
}

void check_header(Bytes plain) {
  const auto header = ksd::vault::decode_header(plain);
  if (!header) return;
  require(fuzz::same(ksd::vault::encode_header(*header), plain), "a header is encoded as it was decoded");
}

void check_seal(Damage damage, size_t position, uint8_t pattern, Bytes plain) {
  static const auto master_key = ksd::SecretBytes::copy_of(std::vector<uint8_t>(ksd::vault::kMasterKeySize, 1));
  static const ksd::vault::Sealer sealer(*master_key, {1});
  static const ksd::vault::Sealer other_vault(*master_key, {2});
  std::vector<uint8_t> sealed = sealer.seal(ksd::vault::RecordKind::kEntry, kRow, plain);
  if (damage == kChanged) sealed[position % sealed.size()] ^= pattern;
  if (damage == kCut) sealed.resize(position % sealed.size());
  const bool whole = damage == kNone || (damage == kChanged && pattern == 0);

  static fuzz::Guarded memory;
  const Bytes found(memory.copy(sealed), sealed.size());
  const auto opened = (damage == kOtherVault ? other_vault : sealer)
                          .open(damage == kOtherKind ? ksd::vault::RecordKind::kHeader : ksd::vault::RecordKind::kEntry,
                                damage == kOtherRow ? kRow + 1 + position : kRow, found);
  require((opened != nullptr) == whole, "a record opens where it was sealed, unchanged, and nowhere else");
  if (whole) require(fuzz::same(opened->bytes(), plain), "a record opens to what was sealed");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::Input input(data, size);
  const auto damage = static_cast<Damage>(input.byte() % kDamages);
  const size_t position = input.word();
  const uint8_t pattern = input.byte();
  static fuzz::Guarded memory;
  const Bytes given = input.bytes(size_t{128} * 1024);
  const Bytes plain(memory.copy(given), given.size());

  check_entry(plain);
  check_header(plain);
  check_seal(damage, position, pattern, plain);
  return 0;
}
