// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// frames.h: what the daemon and its engine say to each other over a stream of bytes between the two. Neither believes
// the other: a frame is read as a whole or refused.
//
//   frame    size of what follows, 4 bytes | kind, 1 byte | fields in the order of their struct
//   fields   numbers little endian (4 bytes for counts and sizes, 8 for the rest) | texts and values: size, bytes |
//            lists: count, elements | what may be missing: a byte, 0 or 1, then what there is
//
// The kind is the place in the variant; bit 7 is set in what the engine says. The daemon speaks first, by Start.
#ifndef SERVICE_LINK_FRAMES_H
#define SERVICE_LINK_FRAMES_H

#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "base/bytes.h"
#include "fleet/engine.h"

namespace ksd::link {

// Raised with every change here and in fleet/engine.h that the other side has to know of.
inline constexpr uint64_t kVersion = 2;

inline constexpr size_t kMostFrame = size_t{2} << 20;  // with its size in front
inline constexpr size_t kMostPage = size_t{1} << 20;   // of keys and values; a row that is larger comes alone
inline constexpr size_t kMostItems = 8192;             // of a list
inline constexpr size_t kMostWhy = 200;

// Start says where the store is. Without ca, certificate and key, which are paths of files, there is no TLS.
struct Start {
  uint64_t version = kVersion;
  std::vector<std::string> endpoints = {};  // "host:port"
  std::string prefix = {};                  // of all keys, with the slash at its end
  std::string ca = {};
  std::string certificate = {};
  std::string key = {};
};

// Started says that the engine has taken the Start. Nothing is known of the store yet.
struct Started {
  uint64_t version = kVersion;
};

// Stopped says why the engine ends, before it does.
struct Stopped {
  std::string why;
};

using ToEngine =
    std::variant<Start, fleet::Commit, fleet::ReadHeader, fleet::Load, fleet::Watch, fleet::Beat, fleet::ReadBeats>;
using FromEngine =
    std::variant<Started, fleet::Committed, fleet::Refused, fleet::Failed, fleet::HeaderIs, fleet::LoadedRows,
                 fleet::Loaded, fleet::Changed, fleet::WatchBroken, fleet::BeatsAre, Stopped>;

// append puts the frame of a message behind `out`, or leaves it as it was and gives false when it would be too large.
bool append(const ToEngine &message, std::vector<uint8_t> &out);
bool append(const FromEngine &message, std::vector<uint8_t> &out);

// read takes a frame without its size in front. Nothing for one that isn't as it has to be.
std::optional<ToEngine> read_to_engine(Bytes frame);
std::optional<FromEngine> read_from_engine(Bytes frame);

// one_line makes a text fit to be told as the reason of something: short and printable.
std::string one_line(std::string_view text);

// Incoming cuts what arrives into frames. It holds little more than the largest of them that is on its way.
class Incoming {
 public:
  // room is where the next bytes go; added says how many have come.
  std::span<uint8_t> room();
  void added(size_t size) { end_ += size; }

  // next gives the next frame that is complete, without its size. It stays until room or next is called again.
  std::optional<Bytes> next();

  // broken tells that a size was announced that no frame has. Nothing can be read behind it.
  bool broken() const { return broken_; }

 private:
  size_t wanted() const;

  std::vector<uint8_t> buffer_;
  size_t begin_ = 0;
  size_t end_ = 0;
  bool broken_ = false;
};

}  // namespace ksd::link

#endif
