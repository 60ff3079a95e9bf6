// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// sdb_image.h: the file of a small database, as bytes whose place is known.
#ifndef SDB_IMAGE_H
#define SDB_IMAGE_H

#include <cstring>
#include <fstream>

#include "sdb_fixture.h"

// Where LMDB keeps what. Words are as wide as the machine's.
inline constexpr size_t kWord = sizeof(size_t);
inline constexpr size_t kPage = 4096;

inline constexpr size_t kFlags = kWord + 2;  // of a page; in front of them stands its number
inline constexpr size_t kLower = kWord + 4;
inline constexpr size_t kUpper = kWord + 6;
inline constexpr size_t kOffsets = kWord + 8;

inline constexpr size_t kMagic = kOffsets;  // of a head, which takes the first two pages
inline constexpr size_t kVersion = kMagic + 4;
inline constexpr size_t kMapSize = kVersion + 4 + kWord;
inline constexpr size_t kPagesTree = kMapSize + kWord;
inline constexpr size_t kTreeSize = 8 + 5 * kWord;
inline constexpr size_t kEntriesTree = kPagesTree + kTreeSize;
inline constexpr size_t kLastPage = kEntriesTree + kTreeSize;
inline constexpr size_t kTxn = kLastPage + kWord;

inline constexpr size_t kTreeFlags = 4;  // of a tree; in front of them stands the page size
inline constexpr size_t kTreeDepth = 6;
inline constexpr size_t kTreeRoot = 8 + 4 * kWord;

inline constexpr size_t kNodeFlags =
    4;  // of a node; in front of them stands the size of its value, or part of a page number
inline constexpr size_t kNodeKeySize = 6;
inline constexpr size_t kNodeKey = 8;

class SdbImage : public Sdb {
 protected:
  // The file as bytes, from its start to its last page in use.
  struct Image {
    std::string bytes;

    template <typename Number>
    Number get(size_t at) const {
      Number number;
      memcpy(&number, bytes.data() + at, sizeof number);
      return number;
    }
    template <typename Number>
    void set(size_t at, Number number) {
      memcpy(bytes.data() + at, &number, sizeof number);
    }
    size_t word(size_t at) const { return get<size_t>(at); }
    uint16_t half(size_t at) const { return get<uint16_t>(at); }

    // The head that counts.
    size_t head() const { return word(kTxn) > word(kPage + kTxn) ? 0 : kPage; }
    size_t last_page() const { return word(head() + kLastPage); }
    size_t root(size_t tree) const { return word(head() + tree + kTreeRoot) * kPage; }
    size_t node(size_t page, size_t index) const { return page + half(page + kOffsets + 2 * index); }
    size_t nodes(size_t page) const { return (half(page + kLower) - kOffsets) / 2; }
    size_t data(size_t node) const { return node + kNodeKey + half(node + kNodeKeySize); }
    // The first leaf of the entries, and the page whose number stands in the node.
    size_t leaf() const { return child(node(root(kEntriesTree), 0)); }
    size_t child(size_t node) const { return (half(node) | size_t{half(node + 2)} << 16) * kPage; }
    // The entry whose value lies on pages of its own, and the first of them.
    size_t large() const {
      const size_t page = root(kEntriesTree);
      for (size_t i = 0; i < nodes(page); ++i) {
        const size_t leaf = child(node(page, i));
        for (size_t j = 0; j < nodes(leaf); ++j) {
          if (half(node(leaf, j) + kNodeFlags) == 1) return node(leaf, j);
        }
      }
      return 0;
    }
    size_t large_page() const { return word(data(large())) * kPage; }
    // The first list of free pages.
    size_t free_node() const { return node(root(kPagesTree), 0); }
    size_t free_list() const { return data(free_node()); }
  };

  // Two levels of pages, a value on pages of its own, and free pages. Children do it: this process never has the
  // database open.
  Image fill() {
    EXPECT_EQ(in_child([&] {
                if (open() != 0) return 1;
                for (unsigned i = 0; i < 300; ++i) stage("key " + std::to_string(1000 + i), std::string(100, 'v'));
                stage("large", std::string(20000, 'L'));
                if (done() != 0) return 2;
                for (unsigned i = 0; i < 300; i += 3) stage_delete("key " + std::to_string(1000 + i));
                return done() == 0 ? 0 : 3;
              }),
              0);
    return load();
  }

  Image load() {
    size_ = std::filesystem::file_size(data_file);
    std::ifstream file(data_file, std::ios::binary);
    Image image{std::string(2 * kPage, '\0')};
    file.read(image.bytes.data(), static_cast<std::streamsize>(image.bytes.size()));
    image.bytes.resize((image.last_page() + 1) * kPage);
    file.seekg(0).read(image.bytes.data(), static_cast<std::streamsize>(image.bytes.size()));
    return image;
  }

  void lay_down(const Image &image) {
    std::ofstream(data_file, std::ios::binary)
        .write(image.bytes.data(), static_cast<std::streamsize>(image.bytes.size()));
    std::filesystem::resize_file(data_file, size_);
  }

  uintmax_t size_ = 0;
};

#endif
