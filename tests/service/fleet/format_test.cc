// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What docs/fleet-format.md shows, byte by byte.
#include "fleet/format.h"

#include <gtest/gtest.h>

#include "docs/page.h"
#include "vault/backup.h"
#include "vault_files/vault_files.h"

namespace ksd::fleet {
namespace {

using docs::Octets;
using vault::bytes_of;
using vault::RecordKind;
using vault::secret_name;

const docs::Page page("fleet-format.md");
const docs::Page vault_page("vault-format.md");

constexpr FleetId kFleet{0x40, 0x41, 0x42, 0x43, 0x44, 0x45, 0x46, 0x47,
                         0x48, 0x49, 0x4a, 0x4b, 0x4c, 0x4d, 0x4e, 0x4f};

std::shared_ptr<const SecretBytes> master_key() {
  return SecretBytes::copy_of(vault_page.filled("master-key"));
}

vault::Sealer sealer() {
  return {*master_key(), kFleet};
}

Octets octets(const std::shared_ptr<const SecretBytes> &plain) {
  return plain == nullptr ? Octets() : Octets(plain->bytes().begin(), plain->bytes().end());
}

vault::EntryRow example() {
  return vault::example_row(1, 1);
}

FleetHeader example_header() {
  FleetHeader header;
  header.version = 2;
  header.table = {.last_id = 1, .last_version = 1, .entry_count = 1};
  for (size_t i = 0; i < header.before.size(); ++i) header.before[i] = static_cast<uint8_t>(0x80 + i);
  header.table.add(sealer().content_mark(1, encode_row(example(), "radius")->bytes()));
  header.writers = {{.machine = "alpha", .session = 0x5152535455565758, .sequence = 2}};
  return header;
}

TEST(FleetFormat, HasTheRowOfThePage) {
  EXPECT_EQ(octets(encode_row(example(), "radius")), page.bytes("fleet-row"));
  EXPECT_EQ(octets(sealer().open(RecordKind::kFleetRow, 1, page.filled("sealed-fleet-row"))), page.bytes("fleet-row"));
  EXPECT_EQ(sealer().open(RecordKind::kFleetRow, 2, page.filled("sealed-fleet-row")), nullptr);
  EXPECT_EQ(sealer().open(RecordKind::kEntry, 1, page.filled("sealed-fleet-row")), nullptr);

  const std::optional<DecodedRow> decoded = decode_row(1, page.filled("fleet-row"));
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->owner, "radius");
  EXPECT_EQ(decoded->row.name, secret_name("wifi"));
  EXPECT_EQ(decoded->row.owner, 0u) << "user numbers are each machine's own";
}

TEST(FleetFormat, MarksTheContentOfARow) {
  const vault::Digest mark = sealer().content_mark(1, page.filled("fleet-row"));
  EXPECT_EQ(Octets(mark.begin(), mark.end()), page.bytes("content-mark"));
  Octets other = page.filled("fleet-row");
  other.back() ^= 1;  // of the same id and version
  EXPECT_NE(sealer().content_mark(1, other), mark);
}

TEST(FleetFormat, HasTheHeaderOfThePage) {
  EXPECT_EQ(encode_header(example_header()), page.bytes("fleet-header"));
  const Octets stored = page.filled("stored-header");
  const std::optional<HeaderFront> front = header_front(stored);
  ASSERT_TRUE(front);
  EXPECT_EQ(front->fleet, kFleet);
  EXPECT_EQ(front->key, vault::key_id_of(*master_key()));
  EXPECT_EQ(octets(sealer().open(RecordKind::kFleetHeader, 0, front->sealed)), page.bytes("fleet-header"));
  const HeaderHash hash = hash_of(stored);
  EXPECT_EQ(Octets(hash.begin(), hash.end()), page.bytes("header-hash"));

  const Octets again = seal_header(example_header(), front->key, sealer());
  EXPECT_EQ(again, page.bytes("stored-header").with_any(36, stored.size() - 36))
      << "what is sealed is sealed anew each time";
}

TEST(FleetFormat, HasTheHeartbeatOfThePage) {
  const Heartbeat beat{.session = 0x5152535455565758,
                       .number = 3,
                       .version = 2,
                       .waits = false,
                       .keys = {vault::key_id_of(*master_key())}};
  EXPECT_EQ(open_heartbeat(page.filled("sealed-heartbeat"), "alpha", sealer()), beat);
  EXPECT_EQ(open_heartbeat(page.filled("sealed-heartbeat"), "beta", sealer()), std::nullopt);
  EXPECT_EQ(open_heartbeat(seal_heartbeat(beat, "beta", sealer()), "beta", sealer()), beat);
}

// A backup of a fleet is a vault's, with the owners in it.
TEST(FleetFormat, HasTheOwnersOfThePageInABackup) {
  constexpr size_t kHead = 48;
  const auto key = SecretBytes::copy_of(Octets(32, 9));
  const vault::BackupOpening opening = vault::encode_opening({}, vault::BackupForm::kOfFleet);
  vault::Snapshot snapshot;
  snapshot.owners = {{1000, "radius"}, {0xf0000000, "others"}};
  vault::BackupWriter writer(std::move(snapshot), 0, *key, opening);
  Octets part(vault::kSealedPartSize);
  part.resize(writer.next(part.data()));
  crypto_secretstream_xchacha20poly1305_state stream;
  crypto_secretstream_xchacha20poly1305_init_pull(&stream, writer.stream_header().data(), key->bytes().data());
  Octets plain(part.size() - crypto_secretstream_xchacha20poly1305_ABYTES);
  uint8_t tag = 0;
  ASSERT_EQ(crypto_secretstream_xchacha20poly1305_pull(&stream, plain.data(), nullptr, &tag, part.data(), part.size(),
                                                       opening.data(), opening.size()),
            0);
  const Octets owners = vault_page.filled("backup-owners");
  ASSERT_GT(plain.size(), kHead + owners.size());
  EXPECT_EQ(Octets(plain.begin() + kHead, plain.begin() + kHead + static_cast<ptrdiff_t>(owners.size())), owners);
}

TEST(FleetFormat, RefusesAHeaderOfAnotherShape) {
  const Octets plain = page.filled("fleet-header");
  for (size_t size = 0; size < plain.size(); ++size) {
    EXPECT_EQ(decode_header(Bytes(plain).first(size)), std::nullopt) << size;
  }
  Octets other = plain;
  other.push_back(0);
  EXPECT_EQ(decode_header(other), std::nullopt);
  other = plain;
  other[112] = 1;  // there is no such writer
  EXPECT_EQ(decode_header(other), std::nullopt);
  other = plain;
  other[115] = 'A';  // no name of a machine
  EXPECT_EQ(decode_header(other), std::nullopt);
}

TEST(FleetFormat, RefusesARowOfAnotherShape) {
  const Octets plain = page.filled("fleet-row");
  for (size_t size = 0; size < plain.size(); ++size) {
    EXPECT_FALSE(decode_row(1, Bytes(plain).first(size))) << size;
  }
  Octets other(plain.begin() + 7, plain.end());
  other.insert(other.begin(), 0);  // nobody's
  EXPECT_FALSE(decode_row(1, other));
}

TEST(FleetFormat, KnowsTheKeysOfRows) {
  const std::string key = "e/0123456789abcdef/00000000000000ab";
  const RowPlace place{.folder = 0x0123456789abcdef, .id = 0xab};
  EXPECT_EQ(row_key(place), key);
  EXPECT_EQ(row_place(key), place);
  for (const char *other : {"", "e/", "e/00000000000000ab", "e/0123456789abcdef/00000000000000AB",
                            "e/0123456789abcdef/000000000000000ab", "e/0123456789abcdef/0000000000000 ab",
                            "e/0123456789abcdef000000000000000000ab", "e/0123456789abcdeF/00000000000000ab", "h"}) {
    EXPECT_EQ(row_place(other), std::nullopt) << other;
  }
}

TEST(FleetFormat, TellsWhichHeaderMayFollowOnWhich) {
  FleetHeader earlier = example_header(), later = earlier;
  later.writers.push_back({.machine = "beta", .session = 1, .sequence = 1});
  EXPECT_TRUE(later.follows(earlier));
  EXPECT_FALSE(earlier.follows(later)) << "beta's change is missing";
  later.writers[0].sequence = 1;
  later.version = 9;
  EXPECT_FALSE(later.follows(earlier)) << "a change of alpha's is missing, however many others there are";
}

}  // namespace
}  // namespace ksd::fleet
