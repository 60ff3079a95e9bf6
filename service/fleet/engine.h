// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// engine.h: what stands between the daemon of one machine and the store that all machines of its fleet share. The
// engine carries keys and values, and knows nothing of what is in them: every value is sealed.
//
// The engine isn't trusted. What it reports is checked by who asked; a report that makes no sense (an id that wasn't
// asked for, a second answer, a key twice in a revision) is to be passed over or counted as a failure, never believed.
#ifndef SERVICE_FLEET_ENGINE_H
#define SERVICE_FLEET_ENGINE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace ksd::fleet {

// Keys are told without the prefix that all of a fleet's have: "h" is the header, "e/" and two numbers of 16
// hexadecimal digits a row, "m/" and a name the heartbeat of a machine, "k/" and a name the next master key, for that
// machine alone, "r" says who restores.
inline constexpr char kHeaderKey[] = "h";
inline constexpr char kRestoreKey[] = "r";
inline constexpr char kRowFolder[] = "e/";
inline constexpr char kBeatFolder[] = "m/";
inline constexpr char kBoxFolder[] = "k/";

// The most that one commit holds. The engine's own limits lie above.
inline constexpr size_t kMostRowsPerCommit = 100;
inline constexpr size_t kMostBytesPerCommit = size_t{1} << 20;  // of keys and values together

// Revision counts the changes of the store, whoever makes them. 0 is before the first.
using Revision = uint64_t;

// RequestId tells requests apart. Whoever asks chooses them, and never uses one again.
using RequestId = uint64_t;

struct KeyValue {
  std::string key;
  std::vector<uint8_t> value;
  Revision mod_revision = 0;  // at which it was last put; without meaning in what is sent

  friend bool operator==(const KeyValue &, const KeyValue &) = default;
};

// ---- What the engine is asked for. Each is answered once, by one of the reports named; a time limit counts from when
// the engine is handed the request. ----

// Commit changes the store in one transaction, if the header is still the one of `header_revision`, and the key of a
// restore that of `restore_revision` (0: there is none; nothing: whatever is there). Committed, Refused, or Failed.
// Whether a commit that Failed with kUnknown has happened, or will, isn't known.
struct Commit {
  RequestId id = 0;
  std::optional<Revision> header_revision = 0;
  std::vector<KeyValue> puts;
  std::vector<std::string> deletes;
  std::chrono::milliseconds limit{};
  std::optional<Revision> restore_revision = std::nullopt;
};

// ReadHeader reads the header as it is at an instant between request and answer (a linearizable read). HeaderIs, or
// Failed.
struct ReadHeader {
  RequestId id = 0;
  std::chrono::milliseconds limit{};
};

// Load reads header and all rows, in whatever folder, as they are at one revision, by a linearizable read. LoadedRows
// as often as there are pages, in the order of the keys, and then Loaded; or, at any point, Failed. No heartbeats and
// boxes.
struct Load {
  RequestId id = 0;
};

// Watch asks for all changes below the prefix (header, rows, heartbeats and boxes) from `from` on, that included. There
// is one watch: a later one takes the place of the one before, of which nothing is reported any more. Changed, again
// and again, and at the end WatchBroken. Never Failed.
struct Watch {
  RequestId id = 0;
  Revision from = 0;
};

// Beat puts the heartbeat of `machine`, whatever is there. Committed, or Failed.
struct Beat {
  RequestId id = 0;
  std::string machine;
  std::vector<uint8_t> value;
  std::chrono::milliseconds limit{};
};

// ReadBeats reads what there is of each machine, heartbeats and boxes, by a linearizable read. BeatsAre, or Failed.
struct ReadBeats {
  RequestId id = 0;
  std::chrono::milliseconds limit{};
};

using Request = std::variant<Commit, ReadHeader, Load, Watch, Beat, ReadBeats>;

// ---- What the engine reports. ----

struct Committed {
  RequestId id = 0;
  Revision revision = 0;  // of the change
};

// Refused: header or restore isn't the one that was expected, and nothing has changed.
struct Refused {
  RequestId id = 0;
  std::optional<KeyValue> header;  // as it was then
  Revision revision = 0;           // of the store then
};

enum class Failure : uint8_t {
  kNotSent,   // nothing has left this machine, and nothing will
  kUnknown,   // it was sent, and may have happened or may happen yet
  kTooLarge,  // the store takes no request of that size
  kNoSpace,   // the store's quota is used up
  kDenied,    // the store doesn't let this machine do that
};

struct Failed {
  RequestId id = 0;
  Failure kind = Failure::kUnknown;
  std::string why;  // a line for the log: at most 200 printable bytes
};

struct HeaderIs {
  RequestId id = 0;
  std::optional<KeyValue> header;
  Revision revision = 0;  // of the store when it was read
};

struct LoadedRows {
  RequestId id = 0;
  std::vector<KeyValue> rows;
};

struct Loaded {
  RequestId id = 0;
  std::optional<KeyValue> header;
  Revision revision = 0;  // of all that was read
};

// Changed has all changes of one revision. Revisions come in their order, each once.
struct Changed {
  RequestId id = 0;  // of the watch
  Revision revision = 0;
  std::vector<KeyValue> puts;
  std::vector<std::string> deletes;
};

// WatchBroken: nothing more comes of this watch, and something may have been lost behind the last Changed.
struct WatchBroken {
  RequestId id = 0;
  Revision compacted =
      0;  // changes up to here aren't kept any more, so it can't go on where it stood; 0: another reason
};

struct BeatsAre {
  RequestId id = 0;
  std::vector<KeyValue> beats;
  Revision revision = 0;
};

// EngineGone: the engine's process has ended or can't be talked to. All that is under way is over, the watch included:
// kUnknown for what may have been sent. Another engine takes its place without being asked; requests before that fail
// with kNotSent.
struct EngineGone {
  std::string why;  // as in Failed
};

using Report =
    std::variant<Committed, Refused, Failed, HeaderIs, LoadedRows, Loaded, Changed, WatchBroken, BeatsAre, EngineGone>;

// Engine is the way to the engine, for one thread. Nothing here waits.
class Engine {
 public:
  virtual ~Engine() = default;

  // send hands a request over. Where it can't be, the answer is a report: Failed with kNotSent, or WatchBroken.
  virtual void send(Request request) = 0;

  // receive puts what has been reported since behind `reports`.
  virtual void receive(std::vector<Report> &reports) = 0;

  // file is what to wait at, for `events` of poll, before receive may have something. Both may change with every call
  // above. wait_at_most is when receive is to be called without that; nothing when that isn't needed.
  virtual int file() const = 0;
  virtual short events() const = 0;
  virtual std::optional<std::chrono::milliseconds> wait_at_most() const { return std::nullopt; }
};

}  // namespace ksd::fleet

#endif
