// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// page.h: the bytes that a page of docs/ shows, for tests that hold the code to them.
//
//   ```bytes NAME
//   6b 77 73 31  .. ..      ; pairs of digits; ".." is a byte of any value; a comment ends the line
//   00*12                   ; twelve bytes
//   ```
#ifndef TESTS_SUPPORT_DOCS_PAGE_H
#define TESTS_SUPPORT_DOCS_PAGE_H

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <fstream>
#include <map>
#include <optional>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace docs {

using Octets = std::vector<uint8_t>;

// Pattern is a block of a page: bytes, some of which may have any value.
class Pattern {
 public:
  Pattern() = default;
  explicit Pattern(const std::string &text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
      std::istringstream words(line.substr(0, line.find(';')));
      for (std::string word; words >> word;) add(word);
    }
  }

  size_t size() const { return bytes_.size(); }

  // filled gives the bytes, with `any` in the place of those of any value.
  Octets filled(uint8_t any = 0xee) const {
    Octets out;
    for (const std::optional<uint8_t> &byte : bytes_) out.push_back(byte.value_or(any));
    return out;
  }

  // from gives what stands at `offset` and behind it.
  Pattern from(size_t offset) const {
    Pattern rest;
    rest.bytes_.assign(bytes_.begin() + static_cast<ptrdiff_t>(offset), bytes_.end());
    return rest;
  }

  // with_any gives the same with `length` bytes of any value at `offset`.
  Pattern with_any(size_t offset, size_t length) const {
    Pattern changed = *this;
    for (size_t i = offset; i < offset + length; ++i) changed.bytes_.at(i).reset();
    return changed;
  }

  friend bool operator==(const Octets &actual, const Pattern &page) {
    const auto fits = [](uint8_t byte, const std::optional<uint8_t> &wanted) { return byte == wanted.value_or(byte); };
    return actual.size() == page.size() && std::equal(actual.begin(), actual.end(), page.bytes_.begin(), fits);
  }

  friend void PrintTo(const Pattern &page, std::ostream *out) {
    constexpr char kDigits[] = "0123456789abcdef";
    *out << page.size() << " bytes:";
    for (const std::optional<uint8_t> &byte : page.bytes_) {
      *out << ' ' << (byte ? kDigits[*byte >> 4] : '.') << (byte ? kDigits[*byte & 15] : '.');
    }
  }

 private:
  void add(const std::string &word) {
    const bool any = word.starts_with("..");
    if (word.size() < 2 || (!any && (!std::isxdigit(word[0]) || !std::isxdigit(word[1])))) refuse(word);
    size_t count = 1;
    if (word.size() > 2) {
      if (word[2] != '*') refuse(word);
      count = std::stoul(word.substr(3));
    }
    const auto value =
        any ? std::nullopt : std::optional(static_cast<uint8_t>(std::stoul(word.substr(0, 2), nullptr, 16)));
    bytes_.insert(bytes_.end(), count, value);
  }
  [[noreturn]] static void refuse(const std::string &word) { throw std::runtime_error("no byte: \"" + word + "\""); }

  std::vector<std::optional<uint8_t>> bytes_;
};

// Page is a page of docs/, with its fenced blocks of one kind by name. It is read when it is first asked, so that one
// of a whole program that can't be read fails its tests.
class Page {
 public:
  explicit Page(const std::string &name) : path_(KS_SOURCE_DIR "/docs/" + name) {}

  // text gives the block that begins with "```KIND NAME".
  const std::string &text(const std::string &kind, const std::string &name) const {
    const auto found = read().find(kind + " " + name);
    if (found == blocks_.end()) throw std::runtime_error(path_ + ": has no block " + kind + " " + name);
    return found->second;
  }

  Pattern bytes(const std::string &name) const { return Pattern(text("bytes", name)); }
  Octets filled(const std::string &name) const { return bytes(name).filled(); }

  // names gives the names of all blocks of bytes that end so, less the ending, in the order of the page.
  std::vector<std::string> names(const std::string &ending = "") const {
    read();
    std::vector<std::string> found;
    for (const std::string &title : order_) {
      if (title.starts_with("bytes ") && title.ends_with(ending)) {
        found.push_back(title.substr(6, title.size() - 6 - ending.size()));
      }
    }
    return found;
  }

 private:
  using Blocks = std::map<std::string, std::string>;

  const Blocks &read() const {
    if (!blocks_.empty()) return blocks_;
    std::ifstream file(path_);
    if (!file) throw std::runtime_error(path_ + ": can't be read");
    std::string *block = nullptr;
    for (std::string line; std::getline(file, line);) {
      if (!line.starts_with("```")) {
        if (block != nullptr) *block += line + "\n";
      } else if (block != nullptr || line == "```") {
        block = nullptr;
      } else {
        block = begin(line.substr(3));
      }
    }
    return blocks_;
  }

  // A fence without a name, as of an example in C, has a block of no interest.
  std::string *begin(const std::string &title) const {
    if (title.find(' ') == std::string::npos) return &ignored_;
    if (blocks_.contains(title)) throw std::runtime_error(path_ + ": has two blocks " + title);
    order_.push_back(title);
    return &blocks_[title];
  }

  std::string path_;
  mutable Blocks blocks_;
  mutable std::vector<std::string> order_;
  mutable std::string ignored_;
};

}  // namespace docs

#endif
