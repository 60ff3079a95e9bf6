// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/log_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <span>
#include <vector>

#include "base/fd.h"
#include "vault/files.h"

namespace ksd::vault {
namespace {

constexpr size_t kLogHeaderSize = 32, kFrameHeaderSize = 24;
constexpr uint32_t kLogMagic = 0x377f0682;  // the lowest bit says that checksums are over big-endian words

uint32_t big_endian(const uint8_t *at) {
  return uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | at[3];
}

uint32_t little_endian(const uint8_t *at) {
  return uint32_t{at[3]} << 24 | uint32_t{at[2]} << 16 | uint32_t{at[1]} << 8 | at[0];
}

// Checksum is the running one of the log: each frame's goes on from that of the frame before.
struct Checksum {
  uint32_t first = 0, second = 0;

  static Checksum at(const uint8_t *bytes) { return {big_endian(bytes), big_endian(bytes + 4)}; }

  void add(std::span<const uint8_t> bytes, bool big_endian_words) {
    const auto word = big_endian_words ? big_endian : little_endian;
    for (size_t i = 0; i + 8 <= bytes.size(); i += 8) {
      first += word(&bytes[i]) + second;
      second += word(&bytes[i + 4]) + first;
    }
  }

  friend bool operator==(const Checksum &, const Checksum &) = default;
};

// Frame is one page as a transaction wrote it.
struct Frame {
  bool of_this_log = false;  // bears the salt of the header: older ones lie behind, written back long ago
  bool ends_transaction = false;
  Checksum told;
};

class Reader {
 public:
  explicit Reader(int file) : file_(file) {}

  bool read_header() {
    std::array<uint8_t, kLogHeaderSize> header;
    if (!read(header, 0) || (big_endian(&header[0]) & ~1U) != kLogMagic) return false;
    big_endian_words_ = (big_endian(&header[0]) & 1) != 0;
    page_size_ = big_endian(&header[8]);
    std::copy_n(&header[16], salt_.size(), salt_.begin());
    last_.add(std::span(header).first(24), big_endian_words_);
    const bool is_size = page_size_ >= 512 && page_size_ <= 65536 && (page_size_ & (page_size_ - 1)) == 0;
    if (last_ != Checksum::at(&header[24]) || !is_size) return false;
    bytes_.resize(kFrameHeaderSize + page_size_);
    return true;
  }

  int64_t offset(int64_t number) const {
    return static_cast<int64_t>(kLogHeaderSize) + number * static_cast<int64_t>(bytes_.size());
  }

  // next reads a frame, false at the end, and tells in `follows` whether it goes on from the one before.
  bool next(Frame &frame, bool &follows) {
    if (!read(bytes_, offset(count_))) return false;
    ++count_;
    frame.of_this_log = std::equal(salt_.begin(), salt_.end(), &bytes_[8]);
    frame.ends_transaction = big_endian(&bytes_[4]) != 0;
    frame.told = Checksum::at(&bytes_[16]);
    last_.add(std::span(bytes_).first(8), big_endian_words_);
    last_.add(std::span(bytes_).subspan(kFrameHeaderSize), big_endian_words_);
    follows = frame.of_this_log && last_ == frame.told;
    last_ = frame.told;
    return true;
  }

 private:
  bool read(std::span<uint8_t> bytes, int64_t offset) const {
    return pread(file_, bytes.data(), bytes.size(), offset) == static_cast<ssize_t>(bytes.size());
  }

  int file_;
  bool big_endian_words_ = false;
  uint32_t page_size_ = 0;
  std::array<uint8_t, 8> salt_{};
  Checksum last_;
  std::vector<uint8_t> bytes_;
  int64_t count_ = 0;
};

std::optional<std::string> find_damage(Reader &reader) {
  Frame before;
  bool follows = true;
  std::optional<int64_t> broken;  // the first frame that isn't good
  Frame frame;
  for (int64_t number = 0; reader.next(frame, follows); ++number) {
    if (!follows && !broken) broken = number;
    if (broken && follows && number > *broken && before.of_this_log && before.ends_transaction) {
      return fmt::format("it is damaged at byte {}, and changes behind were on disk", reader.offset(*broken));
    }
    before = frame;
  }
  return std::nullopt;
}

}  // namespace

LogFile examine_log(const std::string &path) {
  LogFile log;
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat info {};
  if (!file || fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) return log;
  log.is_there = true;
  log.holds_frames = info.st_size > static_cast<off_t>(kLogHeaderSize + kFrameHeaderSize);
  if (!log.holds_frames) return log;
  Reader reader(file.get());
  log.damage = reader.read_header() ? find_damage(reader) : "its beginning is damaged";
  return log;
}

}  // namespace ksd::vault
