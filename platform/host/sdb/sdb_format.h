// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// sdb_format.h: what a page of LMDB's file holds.
#ifndef SDB_FORMAT_H
#define SDB_FORMAT_H

#include <cstddef>
#include <cstdint>

namespace sdb {

// LMDB's file format, version 1. Words are as wide as the machine's.
using PageNumber = size_t;
constexpr PageNumber kNoPage = ~PageNumber{0};

struct PageHead {
  PageNumber number;
  uint16_t pad;
  uint16_t flags;
  uint16_t lower;
  uint16_t upper;

  // An overflow page has one number in the place of the two bounds.
  size_t page_count() const { return lower | size_t{upper} << 16; }
};

enum : uint16_t { kBranch = 1, kLeaf = 2, kOverflow = 4, kHead = 8 };

struct Tree {
  uint32_t pad;  // of the first tree: the page size
  uint16_t flags;
  uint16_t depth;
  PageNumber branch_pages;
  PageNumber leaf_pages;
  PageNumber overflow_pages;
  size_t entries;
  PageNumber root;
};

enum { kFreePages, kEntries, kTreeCount };

struct Head {
  uint32_t magic;
  uint32_t version;
  void *address;
  size_t map_size;
  Tree trees[kTreeCount];
  PageNumber last_page;
  size_t txn_id;
};

struct Node {
  uint16_t low;
  uint16_t high;
  uint16_t flags;
  uint16_t key_size;
};

static_assert(sizeof(PageHead) == (sizeof(void *) == 8 ? 16 : 12));
static_assert(sizeof(Tree) == (sizeof(void *) == 8 ? 48 : 28));
static_assert(sizeof(Node) == 8);

constexpr uint32_t kMagic = 0xbeefc0de;
constexpr uint32_t kVersion = 1;
constexpr uint16_t kBigData = 1;
constexpr uint16_t kTreeFlags = 0xff;  // above them stand flags of the environment
constexpr unsigned kMaxDepth = 32;
constexpr size_t kMinPageSize = 512;
constexpr size_t kMaxPageSize = 65536;

}  // namespace sdb

#endif
