// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "sdb_lookup.h"

#include <cstring>

#include "sdb_database.h"
#include "sdb_format.h"

namespace sdb {

namespace {

// Another process may write while this one reads: the compiler must not take a number twice, once to check and once to
// use it.
template <typename Number>
Number load(const uint8_t *at) {
  Number number;
  memcpy(&number, at, sizeof number);
  asm volatile("" : "+r"(number));
  return number;
}

int compare(const MDB_val &a, const MDB_val &b) {
  const int order = memcmp(a.mv_data, b.mv_data, a.mv_size < b.mv_size ? a.mv_size : b.mv_size);
  if (order != 0) return order;
  return a.mv_size < b.mv_size ? -1 : a.mv_size > b.mv_size ? 1 : 0;
}

// Page is one whose head has been checked.
struct Page {
  const uint8_t *bytes;
  size_t size;
  size_t count;  // of its nodes
};

// Entry is a node whose key lies within its page.
struct Entry {
  MDB_val key;
  uint16_t low;
  uint16_t high;
  uint16_t flags;
  const uint8_t *data;  // behind the key
  size_t room;          // from there to the end of the page
};

class Lookup {
 public:
  explicit Lookup(const Database &database) : map_(database.map) {}

  // Reads the transaction's head.
  Found begin(size_t txn_id) {
    // Both heads tell the page size; the file was refused when it was opened unless they agreed.
    Head head;
    memcpy(&head, map_ + sizeof(PageHead), sizeof head);
    page_size_ = head.trees[kFreePages].pad;
    const bool sane_size =
        page_size_ >= kMinPageSize && page_size_ <= kMaxPageSize && (page_size_ & (page_size_ - 1)) == 0;
    if (!sane_size) return Found::kDamage;
    const uint8_t *at = map_ + txn_id % 2 * page_size_ + sizeof(PageHead);
    memcpy(&head, at, sizeof head);
    asm volatile("" ::: "memory");
    const auto id_now = load<size_t>(at + offsetof(Head, txn_id));
    if (head.txn_id != txn_id || id_now != txn_id) {
      return head.txn_id > txn_id || id_now > txn_id ? Found::kMovedOn : Found::kDamage;
    }
    last_page_ = head.last_page;
    root_ = head.trees[kEntries].root;
    depth_ = head.trees[kEntries].depth;
    if (root_ == kNoPage) return Found::kNothing;
    if (head.magic != kMagic || head.version != kVersion || depth_ == 0 || depth_ > kMaxDepth) return Found::kDamage;
    return last_page_ < kMapSize / page_size_ ? Found::kEntry : Found::kDamage;
  }

  Found entry(const MDB_val &wanted, MDB_val *out_value) const {
    PageNumber number = root_;
    for (unsigned depth = depth_; depth > 1; --depth) {
      size_t index = 0;
      Page branch;
      Entry way;
      if (!page(number, kBranch, &branch) || !last_not_behind(branch, wanted, &index) || !node(branch, index, &way)) {
        return Found::kDamage;
      }
      number = child(way);
    }
    Page leaf;
    size_t index = 0;
    Entry found;
    if (!page(number, kLeaf, &leaf) || !first_from(leaf, wanted, &index)) return Found::kDamage;
    if (index == leaf.count) return Found::kNothing;
    if (!node(leaf, index, &found)) return Found::kDamage;
    return compare(found.key, wanted) == 0 ? value(found, out_value) : Found::kNothing;
  }

  Found behind(const MDB_val *last, MDB_val *out_key, MDB_val *out_value) const {
    return behind_in(root_, depth_, last, out_key, out_value);
  }

 private:
  // Every level is one less deep, and has nothing behind the key in one subtree at most.
  Found behind_in(PageNumber number, unsigned depth, const MDB_val *last, MDB_val *out_key, MDB_val *out_value) const {
    Page page_here;
    if (!page(number, depth > 1 ? kBranch : kLeaf, &page_here)) return Found::kDamage;
    size_t index = 0;
    if (depth > 1) {
      if (last != nullptr && !last_not_behind(page_here, *last, &index)) return Found::kDamage;
      for (const size_t end = index + 2; index < page_here.count && index < end; ++index) {
        Entry way;
        if (!node(page_here, index, &way)) return Found::kDamage;
        const Found found = behind_in(child(way), depth - 1, last, out_key, out_value);
        if (found != Found::kNothing) return found;
      }
      return Found::kNothing;
    }
    Entry found;
    if (last != nullptr) {
      if (!first_from(page_here, *last, &index)) return Found::kDamage;
      if (index < page_here.count) {
        if (!node(page_here, index, &found)) return Found::kDamage;
        if (compare(found.key, *last) == 0) ++index;
      }
    }
    if (index == page_here.count) return Found::kNothing;
    if (!node(page_here, index, &found)) return Found::kDamage;
    *out_key = found.key;
    return value(found, out_value);
  }

  bool page(PageNumber number, uint16_t flags, Page *out) const {
    if (number < 2 || number > last_page_) return false;
    out->bytes = map_ + number * page_size_;
    out->size = page_size_;
    if (load<PageNumber>(out->bytes + offsetof(PageHead, number)) != number) return false;
    if (load<uint16_t>(out->bytes + offsetof(PageHead, flags)) != flags) return false;
    const size_t lower = load<uint16_t>(out->bytes + offsetof(PageHead, lower));
    if (lower < sizeof(PageHead) + sizeof(uint16_t) || lower > page_size_) return false;
    out->count = (lower - sizeof(PageHead)) / sizeof(uint16_t);
    return true;
  }

  static bool node(const Page &page, size_t index, Entry *out) {
    const size_t offset = load<uint16_t>(page.bytes + sizeof(PageHead) + index * sizeof(uint16_t));
    if (offset < sizeof(PageHead) || offset > page.size - sizeof(Node)) return false;
    const uint8_t *at = page.bytes + offset;
    const size_t key_size = load<uint16_t>(at + offsetof(Node, key_size));
    const size_t room = page.size - offset - sizeof(Node);
    if (key_size > room) return false;
    *out = {.key = {key_size, const_cast<uint8_t *>(at + sizeof(Node))},
            .low = load<uint16_t>(at + offsetof(Node, low)),
            .high = load<uint16_t>(at + offsetof(Node, high)),
            .flags = load<uint16_t>(at + offsetof(Node, flags)),
            .data = at + sizeof(Node) + key_size,
            .room = room - key_size};
    return true;
  }

  static PageNumber child(const Entry &entry) {
    PageNumber number = entry.low | PageNumber{entry.high} << 16;
    if constexpr (sizeof number == 8) number |= PageNumber{entry.flags} << 32;
    return number;
  }

  // The first node of a leaf whose key isn't before the wanted one.
  static bool first_from(const Page &page, const MDB_val &wanted, size_t *out_index) {
    return first_where(
        page, 0, [&](const MDB_val &key) { return compare(key, wanted) >= 0; }, out_index);
  }

  // The last node of a branch whose key isn't behind the wanted one. The first one's stands for all that are smaller.
  static bool last_not_behind(const Page &page, const MDB_val &wanted, size_t *out_index) {
    size_t first_behind = 0;
    if (!first_where(
            page, 1, [&](const MDB_val &key) { return compare(key, wanted) > 0; }, &first_behind))
      return false;
    *out_index = first_behind - 1;
    return true;
  }

  template <typename Test>
  static bool first_where(const Page &page, size_t from, const Test &test, size_t *out_index) {
    size_t below = from;
    size_t above = page.count;
    while (below < above) {
      const size_t middle = below + (above - below) / 2;
      Entry entry;
      if (!node(page, middle, &entry)) return false;
      if (test(entry.key)) {
        above = middle;
      } else {
        below = middle + 1;
      }
    }
    *out_index = below;
    return true;
  }

  Found value(const Entry &entry, MDB_val *out) const {
    const size_t size = entry.low | size_t{entry.high} << 16;
    if (entry.flags == 0 && size <= entry.room) {
      *out = {size, const_cast<uint8_t *>(entry.data)};
      return Found::kEntry;
    }
    if (entry.flags != kBigData || entry.room < sizeof(PageNumber)) return Found::kDamage;
    const auto number = load<PageNumber>(entry.data);
    const size_t pages_left = number < 2 || number > last_page_ ? 0 : last_page_ - number + 1;
    if (size > kMapSize || sizeof(PageHead) + size > pages_left * page_size_) return Found::kDamage;
    const uint8_t *at = map_ + number * page_size_;
    if (load<PageNumber>(at) != number || load<uint16_t>(at + offsetof(PageHead, flags)) != kOverflow) {
      return Found::kDamage;
    }
    *out = {size, const_cast<uint8_t *>(at + sizeof(PageHead))};
    return Found::kEntry;
  }

  const uint8_t *map_;
  size_t page_size_ = 0;
  PageNumber last_page_ = 0;
  PageNumber root_ = kNoPage;
  unsigned depth_ = 0;
};

}  // namespace

Found find_entry(const Database &database, size_t txn_id, const MDB_val &key, MDB_val *out_value) {
  Lookup lookup(database);
  const Found begun = lookup.begin(txn_id);
  return begun == Found::kEntry ? lookup.entry(key, out_value) : begun;
}

Found find_behind(const Database &database, size_t txn_id, const MDB_val *key, MDB_val *out_key, MDB_val *out_value) {
  Lookup lookup(database);
  const Found begun = lookup.begin(txn_id);
  return begun == Found::kEntry ? lookup.behind(key, out_key, out_value) : begun;
}

}  // namespace sdb
