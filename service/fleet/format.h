// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// format.h: what the machines of a fleet store in the engine: header, rows, heartbeats and boxes, all sealed.
// docs/fleet-format.md shows them byte by byte.
#ifndef SERVICE_FLEET_FORMAT_H
#define SERVICE_FLEET_FORMAT_H

#include <sodium.h>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/bytes.h"
#include "vault/record.h"
#include "vault/seal.h"

namespace ksd::fleet {

// FleetId binds every sealed record to its fleet.
using FleetId = vault::VaultId;

// HeaderHash is the BLAKE2b of 32 bytes of a header as it is stored.
using HeaderHash = vault::Digest;

inline constexpr size_t kMostMachines = 64;        // at a time
inline constexpr size_t kMostDeparted = 64;        // that are remembered
inline constexpr size_t kLongestMachineName = 63;  // small letters, digits, '.', '_' and '-'
inline constexpr size_t kLongestOwnerName = 63;

bool is_machine_name(std::string_view name);

// PublicKey is what others box a key to for one machine. Zeros stand for a machine that has none.
using PublicKey = std::array<uint8_t, crypto_box_PUBLICKEYBYTES>;

// WriterMark tells who a machine is, and how many changes it has made. The session is drawn at each of its starts, so
// that two machines under one name are noticed.
struct WriterMark {
  std::string machine;
  uint64_t session = 0;
  uint64_t sequence = 0;
  PublicKey public_key{};

  friend bool operator==(const WriterMark &, const WriterMark &) = default;
};

// FleetKeyChange is a change of the master key that is under way.
struct FleetKeyChange {
  vault::KeyId key_id{};  // of the next key
  uint64_t moved = 0;     // rows up to this id are sealed under the next key, all others under the present one
  std::string begun_by;   // a machine

  friend bool operator==(const FleetKeyChange &, const FleetKeyChange &) = default;
};

// FleetHeader is the state of the fleet as a whole, and of which state it is the successor.
struct FleetHeader {
  uint64_t version = 0;             // one more with every change
  uint64_t incarnation = 1;         // one more with every restore
  uint64_t folder = 0;              // that the rows stand in; another one with every restore
  HeaderHash before{};              // of the header before; zero in the first of an incarnation
  vault::Header table;              // the digest is the sum of content marks
  std::vector<WriterMark> writers;  // the fleet's machines, ascending by name
  // Machines that have left or were taken out, in that order, unless they are back. Without them nobody could tell
  // whether a machine that is missing has left, or its changes were taken back.
  std::vector<WriterMark> departed = {};
  std::optional<FleetKeyChange> key_change = std::nullopt;
  uint8_t writer = 0;  // which of the writers, or behind them of the departed, made this one

  // mark_of gives a machine of the fleet, departed_mark_of one that has left it, any_mark_of either. Null: neither.
  const WriterMark *mark_of(std::string_view machine) const;
  const WriterMark *departed_mark_of(std::string_view machine) const;
  const WriterMark *any_mark_of(std::string_view machine) const;
  const WriterMark &author() const {
    return writer < writers.size() ? writers[writer] : departed[writer - writers.size()];
  }

  // follows tells whether all that `earlier` tells of may have happened before this: no machine has made fewer changes.
  // Of two headers that have come apart, one doesn't follow the other unless each machine made up for what it lost.
  bool follows(const FleetHeader &earlier) const;
};

// Fingerprint stands for what people compare.
using Fingerprint = std::array<uint8_t, 16>;

// fingerprint_of stands for all machines of a fleet and their public keys, or for one of them.
Fingerprint fingerprint_of(const std::vector<WriterMark> &writers);
Fingerprint fingerprint_of(const WriterMark &writer);

std::vector<uint8_t> encode_header(const FleetHeader &header);
std::optional<FleetHeader> decode_header(Bytes plain);

// HeaderFront is what stands before a sealed header in the clear.
struct HeaderFront {
  FleetId fleet{};
  vault::KeyId key{};
  Bytes sealed;
};

std::vector<uint8_t> seal_header(const FleetHeader &header, const vault::KeyId &key, const vault::Sealer &sealer);
std::optional<HeaderFront> header_front(Bytes stored);
HeaderHash hash_of(Bytes stored);

// RowPlace is where a row stands. Rows of a restore are written into a folder of their own, which nobody reads before a
// header names it.
struct RowPlace {
  uint64_t folder = 0;
  uint64_t id = 0;

  friend bool operator==(const RowPlace &, const RowPlace &) = default;
};

// row_key gives the key of a row; row_place the other way round, or nothing for what is no such key.
std::string row_key(const RowPlace &place);
std::optional<RowPlace> row_place(std::string_view key);

// A row is the record of the vault, with the owner as a name in front: user numbers are each machine's own.
std::shared_ptr<const SecretBytes> encode_row(const vault::EntryRow &row, std::string_view owner);

struct DecodedRow {
  vault::EntryRow row;  // without owner and generation, which are each machine's own
  std::string owner;
};
std::optional<DecodedRow> decode_row(uint64_t id, Bytes plain);

// Heartbeat is what a machine says of itself every few seconds, or when it needs to be let in.
struct Heartbeat {
  uint64_t session = 0;
  uint64_t number = 0;   // one more with every one of a session
  uint64_t version = 0;  // of the header that the machine has reached
  bool waits = false;    // others came before it again and again, and are asked to pause
  std::vector<vault::KeyId> keys;

  friend bool operator==(const Heartbeat &, const Heartbeat &) = default;
};

bool holds(const Heartbeat &beat, const vault::KeyId &key);

std::vector<uint8_t> seal_heartbeat(const Heartbeat &beat, std::string_view machine, const vault::Sealer &sealer);
std::optional<Heartbeat> open_heartbeat(Bytes sealed, std::string_view machine, const vault::Sealer &sealer);

// BoxedKey is the next master key for one machine, which alone can open it, from another, which alone can have made it.
struct BoxedKey {
  vault::KeyId key_id{};
  std::string sender;
  std::array<uint8_t, crypto_box_NONCEBYTES> nonce{};
  std::array<uint8_t, vault::kMasterKeySize + crypto_box_MACBYTES> box{};
};

// public_key_of gives the public key that belongs to a machine's own one; zeros for none.
PublicKey public_key_of(const SecretBytes *machine_key);

// box_key gives nothing for a public key that nothing can be boxed to.
std::optional<BoxedKey> box_key(const SecretBytes &master_key, const std::string &sender,
                                const SecretBytes &machine_key, const PublicKey &receiver);

// unbox_key gives nothing unless the box was made by `sender`, for this machine, and holds the key that it says.
std::shared_ptr<const SecretBytes> unbox_key(const BoxedKey &boxed, const SecretBytes &machine_key,
                                             const PublicKey &sender);

std::vector<uint8_t> seal_box(const BoxedKey &box, std::string_view machine, const vault::Sealer &sealer);
std::optional<BoxedKey> open_box(Bytes sealed, std::string_view machine, const vault::Sealer &sealer);

}  // namespace ksd::fleet

#endif
