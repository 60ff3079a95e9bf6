// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What docs/fleet-format.md shows, byte by byte.
#include "fleet/format.h"

#include <gtest/gtest.h>

#include <numeric>

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

constexpr FleetId kFleetOfPage{0x40, 0x41, 0x42, 0x43, 0x44, 0x45, 0x46, 0x47,
                               0x48, 0x49, 0x4a, 0x4b, 0x4c, 0x4d, 0x4e, 0x4f};

std::shared_ptr<const SecretBytes> key_of_page() {
  return SecretBytes::copy_of(vault_page.filled("master-key"));
}

vault::Sealer sealer() {
  return {*key_of_page(), kFleetOfPage};
}

// machine_key is a machine's own key: bytes from `first` on.
std::shared_ptr<const SecretBytes> machine_key(uint8_t first) {
  Octets key(32);
  std::iota(key.begin(), key.end(), first);
  return SecretBytes::copy_of(key);
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
  header.writers = {{.machine = "alpha",
                     .session = 0x5152535455565758,
                     .sequence = 2,
                     .public_key = public_key_of(machine_key(0x60).get())}};
  return header;
}

TEST(FleetFormat, HasKindsOfRecordsOfItsOwn) {
  EXPECT_EQ(static_cast<int>(RecordKind::kFleetHeader), 4);
  EXPECT_EQ(static_cast<int>(RecordKind::kFleetRow), 5);
  EXPECT_EQ(static_cast<int>(RecordKind::kHeartbeat), 6);
  EXPECT_EQ(static_cast<int>(RecordKind::kMirror), 7);
  EXPECT_EQ(static_cast<int>(RecordKind::kBoxedKey), 8);
  EXPECT_EQ(static_cast<int>(RecordKind::kFleetRestore), 10);
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
  EXPECT_EQ(front->fleet, kFleetOfPage);
  EXPECT_EQ(front->key, vault::key_id_of(*key_of_page()));
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
                       .keys = {vault::key_id_of(*key_of_page())}};
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

template <size_t size>
Octets octets(const std::array<uint8_t, size> &bytes) {
  return {bytes.begin(), bytes.end()};
}

TEST(FleetFormat, HasThePublicKeyAndTheFingerprintOfThePage) {
  EXPECT_EQ(octets(public_key_of(machine_key(0x60).get())), page.bytes("public-key"));
  EXPECT_EQ(public_key_of(nullptr), PublicKey{});
  EXPECT_EQ(octets(fingerprint_of(example_header().writers)), page.bytes("machines-fingerprint"));
}

TEST(FleetFormat, HasTheBoxedKeyOfThePage) {
  const Octets plain = page.filled("boxed-key"), sealed = page.filled("sealed-boxed-key");
  const std::optional<BoxedKey> box = open_box(sealed, "beta", sealer());
  ASSERT_TRUE(box);
  EXPECT_EQ(octets(box->key_id), Octets(plain.begin(), plain.begin() + 16));
  EXPECT_EQ(box->sender, "alpha");
  EXPECT_EQ(open_box(sealed, "gamma", sealer()), std::nullopt) << "it is beta's";
  const PublicKey alpha = public_key_of(machine_key(0x60).get()), beta = public_key_of(machine_key(0x20).get());
  EXPECT_EQ(octets(unbox_key(*box, *machine_key(0x20), alpha)), octets(machine_key(0x90)));
  EXPECT_EQ(unbox_key(*box, *machine_key(0x20), beta), nullptr) << "alpha alone can have made it";
  EXPECT_EQ(unbox_key(*box, *machine_key(0x21), alpha), nullptr) << "beta alone can open it";

  const std::optional<BoxedKey> again = box_key(*machine_key(0x90), "alpha", *machine_key(0x60), beta);
  ASSERT_TRUE(again);
  const std::optional<BoxedKey> opened = open_box(seal_box(*again, "beta", sealer()), "beta", sealer());
  ASSERT_TRUE(opened);
  EXPECT_EQ(octets(unbox_key(*opened, *machine_key(0x20), alpha)), octets(machine_key(0x90)));
  BoxedKey other = *again;
  other.key_id[0] ^= 1;
  EXPECT_EQ(unbox_key(other, *machine_key(0x20), alpha), nullptr) << "it says that it is another key";
}

TEST(FleetFormat, HasTheHeaderOfAChangeOfTheKey) {
  FleetHeader header = example_header();
  header.departed = {{.machine = "beta", .session = 1, .sequence = 7, .public_key = {5}}};
  header.key_change = {.key_id = vault::key_id_of(*machine_key(0x90)), .moved = 1, .begun_by = "alpha"};
  const Octets plain = encode_header(header);
  const Octets change = page.filled("key-change");
  ASSERT_GT(plain.size(), change.size());
  EXPECT_EQ(Octets(plain.end() - static_cast<ptrdiff_t>(change.size()), plain.end()), page.bytes("key-change"));
  const std::optional<FleetHeader> decoded = decode_header(plain);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->writers, header.writers);
  EXPECT_EQ(decoded->departed, header.departed);
  EXPECT_EQ(decoded->key_change, header.key_change);
  for (size_t size = 0; size < plain.size(); ++size) EXPECT_FALSE(decode_header(Bytes(plain).first(size))) << size;
}

TEST(FleetFormat, RefusesAHeaderOfAnotherShape) {
  const Octets plain = page.filled("fleet-header");
  for (size_t size = 0; size < plain.size(); ++size) {
    EXPECT_FALSE(decode_header(Bytes(plain).first(size))) << size;
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
  later.departed.push_back(later.writers.back());
  later.writers.pop_back();
  FleetHeader both = earlier;
  both.writers.push_back(later.departed.back());
  EXPECT_TRUE(later.follows(both)) << "beta has left";
  later.departed.back().sequence = 0;
  EXPECT_FALSE(later.follows(both)) << "and had made a change before";
  later.departed.clear();
  EXPECT_FALSE(later.follows(both)) << "beta is gone without having left";
  later.writers[0].sequence = 1;
  later.version = 9;
  EXPECT_FALSE(later.follows(earlier)) << "a change of alpha's is missing, however many others there are";
}

}  // namespace
}  // namespace ksd::fleet
