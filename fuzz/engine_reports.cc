// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// engine_reports: arbitrary bytes as what an engine says to the daemon, or a daemon to its engine.
//
//   input     bytes that arrive at once, one less (in one byte) | the stream
//   property  each frame is refused, or read as what gives the same bytes when it is written; a reason is a line that a
//             log may have; frames are the same however the stream is cut; what is held stays below what is allowed
#include "link/frames.h"
#include "support/fuzz.h"

namespace {

using fuzz::require;
using ksd::Bytes;
using Octets = std::vector<uint8_t>;

Octets with_size(Bytes frame) {
  const auto size = static_cast<uint32_t>(frame.size());
  Octets all{static_cast<uint8_t>(size), static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size >> 16),
             static_cast<uint8_t>(size >> 24)};
  all.insert(all.end(), frame.begin(), frame.end());
  return all;
}

template <typename Message>
void check(const std::optional<Message> &message, Bytes frame) {
  if (!message) return;
  Octets written;
  require(append(*message, written), "what was read can be written");
  require(written == with_size(frame), "what was read gives the same bytes");
}

void check_frame(Bytes frame) {
  static fuzz::Guarded memory;
  const Bytes alone(memory.copy(frame), frame.size());
  const auto report = ksd::link::read_from_engine(alone);
  check(report, alone);
  check(ksd::link::read_to_engine(alone), alone);
  if (!report) return;
  if (const auto *failed = std::get_if<ksd::fleet::Failed>(&*report)) {
    require(failed->why == ksd::link::one_line(failed->why), "a reason is one line");
  }
}

// frames_of takes the stream in pieces of so many bytes, and gives all frames up to where it breaks.
std::vector<Octets> frames_of(Bytes stream, size_t piece) {
  ksd::link::Incoming incoming;
  std::vector<Octets> frames;
  while (!stream.empty()) {
    const auto room = incoming.room();
    require(!room.empty() && room.size() <= ksd::link::kMostFrame + 65536, "there is room, and not too much");
    const size_t size = std::min({piece, room.size(), stream.size()});
    std::copy_n(stream.begin(), size, room.begin());
    incoming.added(size);
    stream = stream.subspan(size);
    while (const auto frame = incoming.next()) frames.push_back(fuzz::own(*frame));
    if (incoming.broken()) break;
  }
  return frames;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::Input input(data, size);
  const size_t piece = size_t{input.byte()} + 1;
  const Bytes stream = input.rest();
  const std::vector<Octets> frames = frames_of(stream, piece);
  require(frames == frames_of(stream, SIZE_MAX), "how the stream is cut makes no difference");
  for (const Octets &frame : frames) check_frame(frame);
  return 0;
}
