// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "link/frames.h"

#include <algorithm>
#include <concepts>
#include <cstring>
#include <string_view>
#include <type_traits>
#include <utility>

#include "base/little_endian.h"

namespace ksd::link {
namespace {

constexpr uint8_t kFromEngine = 0x80;
constexpr size_t kSizeField = sizeof(uint32_t);

// ---- The fields of each message, for writing and for reading. ----

template <typename Message, typename Other>
concept Is = std::same_as<std::remove_const_t<Message>, Other>;

template <typename Pass, typename Message>
void pass_fields(Pass &pass, Message &m) {
  if constexpr (Is<Message, Start>) {
    pass(m.version, m.endpoints, m.prefix, m.ca, m.certificate, m.key);
  } else if constexpr (Is<Message, Started>) {
    pass(m.version);
  } else if constexpr (Is<Message, Stopped>) {
    pass(m.why);
  } else if constexpr (Is<Message, fleet::KeyValue>) {
    pass(m.key, m.value, m.mod_revision);
  } else if constexpr (Is<Message, fleet::Commit>) {
    pass(m.id, m.header_revision, m.puts, m.deletes, m.limit, m.restore_revision);
  } else if constexpr (Is<Message, fleet::ReadHeader> || Is<Message, fleet::ReadBeats>) {
    pass(m.id, m.limit);
  } else if constexpr (Is<Message, fleet::Load>) {
    pass(m.id);
  } else if constexpr (Is<Message, fleet::Watch>) {
    pass(m.id, m.from);
  } else if constexpr (Is<Message, fleet::Beat>) {
    pass(m.id, m.machine, m.value, m.limit);
  } else if constexpr (Is<Message, fleet::Committed>) {
    pass(m.id, m.revision);
  } else if constexpr (Is<Message, fleet::Refused> || Is<Message, fleet::HeaderIs> || Is<Message, fleet::Loaded>) {
    pass(m.id, m.header, m.revision);
  } else if constexpr (Is<Message, fleet::Failed>) {
    pass(m.id, m.kind, m.why);
  } else if constexpr (Is<Message, fleet::LoadedRows>) {
    pass(m.id, m.rows);
  } else if constexpr (Is<Message, fleet::Changed>) {
    pass(m.id, m.revision, m.puts, m.deletes);
  } else if constexpr (Is<Message, fleet::WatchBroken>) {
    pass(m.id, m.compacted);
  } else {
    static_assert(Is<Message, fleet::BeatsAre>);
    pass(m.id, m.beats, m.revision);
  }
}

class Writer {
 public:
  explicit Writer(std::vector<uint8_t> &out) : out_(out) {}

  template <typename... Fields>
  void operator()(const Fields &...fields) {
    (put(fields), ...);
  }

 private:
  template <std::unsigned_integral Number>
  void number(Number value) {
    const size_t at = out_.size();
    out_.resize(at + sizeof value);
    put_little_endian(out_.data() + at, value);
  }
  void put(uint64_t value) { number(value); }
  void put(std::chrono::milliseconds time) { number(static_cast<uint64_t>(std::max<int64_t>(time.count(), 0))); }
  void put(fleet::Failure kind) { number(static_cast<uint8_t>(kind)); }
  void put(const std::string &text) { put_bytes(bytes_of(text)); }
  void put(const std::vector<uint8_t> &value) { put_bytes(value); }
  void put_bytes(Bytes bytes) {
    number(static_cast<uint32_t>(bytes.size()));
    out_.insert(out_.end(), bytes.begin(), bytes.end());
  }
  void put(const fleet::KeyValue &row) { pass_fields(*this, row); }
  template <typename Element>
  void put(const std::vector<Element> &list) {
    number(static_cast<uint32_t>(list.size()));
    for (const Element &element : list) put(element);
  }
  template <typename Value>
  void put(const std::optional<Value> &value) {
    number(static_cast<uint8_t>(value ? 1 : 0));
    if (value) put(*value);
  }

  std::vector<uint8_t> &out_;
};

// Reader takes fields off the front of a frame. Once one isn't there, nothing more is.
class Reader {
 public:
  explicit Reader(Bytes frame) : rest_(frame) {}

  template <typename... Fields>
  void operator()(Fields &...fields) {
    (take(fields), ...);
  }

  bool read_all() const { return good_ && rest_.empty(); }

 private:
  Bytes bytes(size_t size) {
    if (size > rest_.size()) good_ = false;
    if (!good_) return {};
    const Bytes taken = rest_.first(size);
    rest_ = rest_.subspan(size);
    return taken;
  }
  template <std::unsigned_integral Number>
  Number number() {
    const Bytes taken = bytes(sizeof(Number));
    return taken.empty() ? Number{0} : get_little_endian<Number>(taken.data());
  }
  void require(bool condition) { good_ &= condition; }

  void take(uint64_t &out) { out = number<uint64_t>(); }
  void take(std::chrono::milliseconds &out) {
    constexpr uint64_t kMost = 3'600'000;
    const auto count = number<uint64_t>();
    require(count <= kMost);
    out = std::chrono::milliseconds(good_ ? count : 0);
  }
  void take(fleet::Failure &out) {
    const auto kind = number<uint8_t>();
    require(kind <= static_cast<uint8_t>(fleet::Failure::kDenied));
    if (good_) out = static_cast<fleet::Failure>(kind);
  }
  void take(std::string &out) {
    const Bytes taken = bytes(number<uint32_t>());
    out.assign(taken.begin(), taken.end());
  }
  void take(std::vector<uint8_t> &out) {
    const Bytes taken = bytes(number<uint32_t>());
    out.assign(taken.begin(), taken.end());
  }
  void take(fleet::KeyValue &out) { pass_fields(*this, out); }
  template <typename Element>
  void take(std::vector<Element> &out) {
    const auto count = number<uint32_t>();
    require(count <= kMostItems);
    for (uint32_t i = 0; i < count && good_; ++i) take(out.emplace_back());
  }
  template <typename Value>
  void take(std::optional<Value> &out) {
    const auto is_there = number<uint8_t>();
    require(is_there <= 1);
    out.reset();
    if (good_ && is_there == 1) take(out.emplace());
  }

  Bytes rest_;
  bool good_ = true;
};

template <typename... Messages>
bool append_any(const std::variant<Messages...> &message, uint8_t direction, std::vector<uint8_t> &out) {
  const size_t begin = out.size();
  out.resize(begin + kSizeField);
  out.push_back(static_cast<uint8_t>(message.index() | direction));
  Writer writer(out);
  std::visit([&](const auto &m) { pass_fields(writer, m); }, message);
  const size_t size = out.size() - begin;
  if (size > kMostFrame) {
    out.resize(begin);
    return false;
  }
  put_little_endian(out.data() + begin, static_cast<uint32_t>(size - kSizeField));
  return true;
}

template <typename Message>
bool is_in_order(const Message &message) {
  if constexpr (std::same_as<Message, fleet::Failed> || std::same_as<Message, Stopped>)
    return message.why == one_line(message.why);
  return true;
}

template <typename Variant, size_t... Index>
std::optional<Variant> read_any(size_t kind, Bytes fields, std::index_sequence<Index...>) {
  std::optional<Variant> found;
  const auto read_as = [&]<size_t At>() {
    if (kind != At) return;
    std::variant_alternative_t<At, Variant> message;
    Reader reader(fields);
    pass_fields(reader, message);
    if (reader.read_all() && is_in_order(message)) found.emplace(std::in_place_index<At>, std::move(message));
  };
  (read_as.template operator()<Index>(), ...);
  return found;
}

template <typename Variant>
std::optional<Variant> read(Bytes frame, uint8_t direction) {
  if (frame.empty() || (frame[0] & kFromEngine) != direction) return std::nullopt;
  const size_t kind = frame[0] & ~kFromEngine;
  return read_any<Variant>(kind, frame.subspan(1), std::make_index_sequence<std::variant_size_v<Variant>>());
}

}  // namespace

bool append(const ToEngine &message, std::vector<uint8_t> &out) {
  return append_any(message, 0, out);
}

bool append(const FromEngine &message, std::vector<uint8_t> &out) {
  return append_any(message, kFromEngine, out);
}

std::optional<ToEngine> read_to_engine(Bytes frame) {
  return read<ToEngine>(frame, 0);
}

std::optional<FromEngine> read_from_engine(Bytes frame) {
  return read<FromEngine>(frame, kFromEngine);
}

std::string one_line(std::string_view text) {
  std::string line(text.substr(0, kMostWhy));
  for (char &c : line) {
    if (c < 0x20 || c > 0x7e) c = '?';
  }
  return line;
}

// wanted is how large the frame is, with its size, that begins the buffer; at first only its size is.
size_t Incoming::wanted() const {
  if (end_ - begin_ < kSizeField) return kSizeField;
  return kSizeField + get_little_endian<uint32_t>(buffer_.data() + begin_);
}

std::span<uint8_t> Incoming::room() {
  constexpr size_t kUsual = size_t{64} << 10;
  if (begin_ != 0) {
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= std::exchange(begin_, 0);
  }
  const size_t size = std::max({kUsual, end_ + 1, broken_ ? 0 : std::min(wanted(), kMostFrame)});
  if (size != buffer_.size()) buffer_.resize(size);
  if (buffer_.capacity() > 4 * size) buffer_.shrink_to_fit();
  return std::span(buffer_).subspan(end_);
}

std::optional<Bytes> Incoming::next() {
  const size_t size = wanted();
  if (size > kMostFrame) broken_ = true;
  if (broken_ || end_ - begin_ < size) return std::nullopt;
  const Bytes frame = Bytes(buffer_).subspan(begin_ + kSizeField, size - kSizeField);
  begin_ += size;
  return frame;
}

}  // namespace ksd::link
