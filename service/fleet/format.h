// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// format.h: what the machines of a fleet store in the engine: header, rows and heartbeats, all sealed.
// docs/fleet-format.md shows them byte by byte.
#ifndef SERVICE_FLEET_FORMAT_H
#define SERVICE_FLEET_FORMAT_H

#include <cstdint>
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

inline constexpr size_t kMostMachines = 64;        // that have ever made a change, until one is taken out
inline constexpr size_t kLongestMachineName = 63;  // small letters, digits, '.', '_' and '-'
inline constexpr size_t kLongestOwnerName = 63;

bool is_machine_name(std::string_view name);

// WriterMark tells how many changes a machine has made. The session is drawn at each of its starts, so that two
// machines under one name are noticed.
struct WriterMark {
  std::string machine;
  uint64_t session = 0;
  uint64_t sequence = 0;

  friend bool operator==(const WriterMark &, const WriterMark &) = default;
};

// FleetHeader is the state of the fleet as a whole, and of which state it is the successor.
struct FleetHeader {
  uint64_t version = 0;             // one more with every change
  uint64_t incarnation = 1;         // one more with every restore
  uint64_t folder = 0;              // that the rows stand in; another one with every restore
  HeaderHash before{};              // of the header before; zero in the first of an incarnation
  vault::Header table;              // the digest is the sum of content marks
  std::vector<WriterMark> writers;  // ascending by name
  uint8_t writer = 0;               // which of them made this one

  const WriterMark *mark_of(std::string_view machine) const;
  const WriterMark &author() const { return writers[writer]; }

  // follows tells whether all that `earlier` tells of may have happened before this: no writer has made fewer changes.
  // Of two headers that have come apart, one doesn't follow the other unless each writer made up for what it lost.
  bool follows(const FleetHeader &earlier) const;
};

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

std::vector<uint8_t> seal_heartbeat(const Heartbeat &beat, std::string_view machine, const vault::Sealer &sealer);
std::optional<Heartbeat> open_heartbeat(Bytes sealed, std::string_view machine, const vault::Sealer &sealer);

}  // namespace ksd::fleet

#endif
