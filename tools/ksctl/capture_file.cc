// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "capture_file.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <vector>

#include "failure.h"

namespace ksctl {
namespace {

constexpr uint32_t kSectionHeader = 0x0a0d0d0a;
constexpr uint32_t kByteOrder = 0x1a2b3c4d;
constexpr uint32_t kInterface = 1;
constexpr uint32_t kPacket = 6;
constexpr uint16_t kLinkType = 147;         // for private use, the first
constexpr uint32_t kNanoseconds = 0x10009;  // option 9, one byte
constexpr uint32_t kEndOfOptions = 0;

// PcapngBlock is put together here: type, length, body in words, and the length again.
class PcapngBlock {
 public:
  explicit PcapngBlock(uint32_t type) { word(type), word(0); }

  void word(uint32_t value) { bytes({reinterpret_cast<const uint8_t *>(&value), sizeof value}); }
  void bytes(std::span<const uint8_t> more) { bytes_.insert(bytes_.end(), more.begin(), more.end()); }

  std::span<const uint8_t> end() {
    bytes_.resize((bytes_.size() + 3) / 4 * 4);
    const auto size = static_cast<uint32_t>(bytes_.size() + sizeof(uint32_t));
    std::memcpy(bytes_.data() + sizeof size, &size, sizeof size);
    word(size);
    return bytes_;
  }

 private:
  std::vector<uint8_t> bytes_;
};

}  // namespace

CaptureFile::CaptureFile(const std::string &path)
    : file_(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600)) {
  if (!file_ && errno == EEXIST) {
    throw Failure(Exit::kConflict, fmt::format("{}: is there already; remove it or name another file", path));
  }
  PcapngBlock section(kSectionHeader);
  section.word(kByteOrder);
  section.word(1);  // version 1.0
  section.word(UINT32_MAX);
  section.word(UINT32_MAX);  // of a length that isn't known
  PcapngBlock interface(kInterface);
  interface.word(kLinkType);
  interface.word(0);  // nothing is cut
  interface.word(kNanoseconds);
  interface.word(9);  // 10^-9 s
  interface.word(kEndOfOptions);
  if (file_ && append(section.end()) && append(interface.end())) return;
  const int why = errno;
  if (file_) unlink(path.c_str());
  throw Failure(Exit::kFailed, fmt::format("{}: can't be made: {}; name another file", path, std::strerror(why)));
}

void CaptureFile::record(CapturedHead head, std::span<const uint8_t> datagram) {
  if (error_ != 0) {
    ++lost_;
    return;
  }
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const uint64_t time = static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
  head.size = static_cast<uint32_t>(datagram.size());
  const auto size = static_cast<uint32_t>(sizeof head + datagram.size());
  PcapngBlock packet(kPacket);
  packet.word(0);  // the only interface
  packet.word(static_cast<uint32_t>(time >> 32));
  packet.word(static_cast<uint32_t>(time));
  packet.word(size);
  packet.word(size);
  packet.bytes({reinterpret_cast<const uint8_t *>(&head), sizeof head});
  packet.bytes(datagram);
  if (append(packet.end())) {
    ++recorded_;
  } else {
    ++lost_;
  }
}

bool CaptureFile::append(std::span<const uint8_t> block) {
  size_t done = 0;
  while (done < block.size()) {
    const ssize_t written = write(file_.get(), block.data() + done, block.size() - done);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) {
      error_ = written < 0 ? errno : ENOSPC;
      if (ftruncate(file_.get(), end_) != 0) return false;  // a reader stops at what is cut
      errno = error_;
      return false;
    }
    done += static_cast<size_t>(written);
  }
  end_ += static_cast<off_t>(block.size());
  return true;
}

}  // namespace ksctl
