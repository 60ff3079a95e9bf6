// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ring_file.h: writes history rings byte by byte, as a program would have left them.
#ifndef TESTS_TOOLS_KSCTL_RING_FILE_H
#define TESTS_TOOLS_KSCTL_RING_FILE_H

#include <sys/stat.h>

#include <cstdint>
#include <fstream>
#include <string>

namespace ks_test {

class RingFile {
 public:
  RingFile(const std::string &program, uint32_t pid, uint64_t start) : bytes_(128 + 1024 * 128, '\0') {
    put(0, "ksr1");
    put_number(4, 1, 4);
    put_number(8, 1024, 4);
    put_number(12, pid, 4);
    put_number(24, start, 8);
    put(64, program);
  }

  // report adds a record of subtype and text, message one of direction (4 sent, 3 received), result and opcode.
  void report(uint64_t time_ns, uint32_t thread, uint32_t subtype, const std::string &text) {
    add(time_ns, thread, 1, number(subtype) + text + '\0');
  }
  void message(uint64_t time_ns, uint32_t thread, uint32_t direction, uint32_t result, uint32_t opcode) {
    add(time_ns, thread, 2, number(direction) + number(result) + number(opcode) + number(1));
  }

  void put_number(size_t at, uint64_t value, size_t width) {
    for (size_t i = 0; i < width; ++i) bytes_[at + i] = static_cast<char>(value >> 8 * i);
  }
  void put(size_t at, const std::string &text) { bytes_.replace(at, text.size(), text); }
  static size_t slot(uint64_t position) { return 128 + position % 1024 * 128; }
  std::string &bytes() { return bytes_; }

  void write(const std::string &path) const {
    std::ofstream(path, std::ios::binary) << bytes_;
    chmod(path.c_str(), 0600);
  }

 private:
  static std::string number(uint32_t value) {
    std::string bytes;
    for (int i = 0; i < 4; ++i) bytes += static_cast<char>(value >> 8 * i);
    return bytes;
  }

  void add(uint64_t time_ns, uint32_t thread, uint16_t kind, std::string data) {
    for (bool first = true; first || !data.empty(); first = false) {
      const size_t at = slot(next_);
      put_number(at, next_ + 1, 8);
      put_number(at + 8, time_ns, 8);
      put_number(at + 16, first ? kind : 3, 2);
      put_number(at + 18, data.size(), 2);
      put_number(at + 20, first ? thread : 0, 4);
      put(at + 24, data.substr(0, 104));
      data.erase(0, 104);
      put_number(16, ++next_, 8);
    }
  }

  std::string bytes_;
  uint64_t next_ = 0;
};

}  // namespace ks_test

#endif
