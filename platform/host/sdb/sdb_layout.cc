// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "sdb_layout.h"

#include <lmdb.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "sdb_format.h"
#include "sdb_thread.h"

namespace sdb {

namespace {

bool read_at(int fd, void *out, size_t size, uint64_t offset) {
  auto *bytes = static_cast<uint8_t *>(out);
  while (size > 0) {
    const ssize_t got = pread(fd, bytes, size, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    bytes += got;
    offset += static_cast<size_t>(got);
    size -= static_cast<size_t>(got);
  }
  return true;
}

bool read_head(int fd, size_t page_size, unsigned index, PageHead *out_page, Head *out_head) {
  uint8_t bytes[sizeof(PageHead) + sizeof(Head)];
  if (!read_at(fd, bytes, sizeof bytes, index * page_size)) return false;
  memcpy(out_page, bytes, sizeof *out_page);
  memcpy(out_head, bytes + sizeof *out_page, sizeof *out_head);
  return true;
}

bool is_sane_tree(const Tree &tree, uint16_t flags, PageNumber last_page) {
  if ((tree.flags & kTreeFlags) != flags || tree.depth > kMaxDepth) return false;
  return tree.root == kNoPage || (tree.depth > 0 && tree.root > 1 && tree.root <= last_page);
}

const char *check_head(const PageHead &page, const Head &head, unsigned index, size_t page_size, uint64_t file_size) {
  if ((page.flags & kHead) == 0 || head.magic != kMagic) return "it is not a database";
  if (head.version != kVersion) return nullptr;  // LMDB refuses it by itself, with another code
  if (head.trees[kFreePages].pad != page_size) return "its page size is damaged";
  if (head.txn_id != 0 && head.txn_id % 2 != index) return "its transaction number is damaged";
  if (head.last_page < 1 || head.last_page >= SIZE_MAX / page_size) return "its page count is damaged";
  const bool fresh = head.txn_id == 0 && head.last_page == 1;
  if (!fresh && (file_size < head.map_size || file_size / page_size <= head.last_page)) return "it was truncated";
  if (!is_sane_tree(head.trees[kFreePages], MDB_INTEGERKEY, head.last_page)) return "its table of pages is damaged";
  if (!is_sane_tree(head.trees[kEntries], 0, head.last_page)) return "its table of entries is damaged";
  return nullptr;
}

const char *check_heads_once(int fd) {
  struct stat status;
  if (fstat(fd, &status) != 0) return "it cannot be examined";
  if (status.st_size == 0) return nullptr;
  const auto file_size = static_cast<uint64_t>(status.st_size);
  PageHead page;
  Head head;
  if (!read_head(fd, 0, 0, &page, &head)) return "it was truncated";
  const size_t page_size = head.trees[kFreePages].pad;
  for (unsigned index = 0; index < 2; ++index) {
    if (index == 1) {
      if (page_size < kMinPageSize || page_size > kMaxPageSize || (page_size & (page_size - 1)) != 0) {
        return "its page size is damaged";
      }
      if (!read_head(fd, page_size, index, &page, &head)) return "it was truncated";
    }
    if (const char *fault = check_head(page, head, index, page_size, file_size)) return fault;
    if (head.version != kVersion) return nullptr;
  }
  return nullptr;
}

// Walk goes through the pages of one snapshot, whose reader keeps them from being used anew.
class Walk {
 public:
  Walk(int fd, const Head &head)
      : fd_(fd), page_size_(head.trees[kFreePages].pad), last_page_(head.last_page), left_(head.last_page) {}

  const char *tree(const Tree &tree, bool of_free_pages) {
    of_free_pages_ = of_free_pages;
    return tree.root == kNoPage ? nullptr : subtree(tree.root, tree.depth);
  }

 private:
  bool is_page(PageNumber number, size_t count) const {
    return number > 1 && number <= last_page_ && count <= last_page_ - number + 1;
  }

  // `depth` counts down to 1, the leaves. Every page is reached once, so their number ends a loop.
  const char *subtree(PageNumber number, unsigned depth) {
    if (depth == 0 || !is_page(number, 1) || left_-- == 0) return "its tree of pages is damaged";
    auto *page = static_cast<uint8_t *>(malloc(page_size_));
    if (page == nullptr) return "there is no memory to examine it";
    const char *fault = read_at(fd_, page, page_size_, uint64_t{number} * page_size_)
                            ? page_of_nodes(page, number, depth)
                            : "it was truncated";
    free(page);
    return fault;
  }

  const char *page_of_nodes(const uint8_t *page, PageNumber number, unsigned depth) {
    PageHead head;
    memcpy(&head, page, sizeof head);
    if (head.number != number || head.flags != (depth == 1 ? kLeaf : kBranch)) return "a page's head is damaged";
    if (head.lower < sizeof head || head.lower > head.upper || head.upper > page_size_ || head.lower % 2 != 0) {
      return "a page's bounds are damaged";
    }
    const size_t count = (head.lower - sizeof head) / sizeof(uint16_t);
    if (count < (depth == 1 ? 1 : 2)) return "a page has too few entries";
    for (size_t i = 0; i < count; ++i) {
      uint16_t offset;
      memcpy(&offset, page + sizeof head + i * sizeof offset, sizeof offset);
      if (offset < head.upper || offset % 2 != 0 || offset + sizeof(Node) > page_size_) return "a page is damaged";
      if (const char *fault = node(page + offset, page_size_ - offset, depth)) return fault;
    }
    return nullptr;
  }

  const char *node(const uint8_t *bytes, size_t room, unsigned depth) {
    Node node;
    memcpy(&node, bytes, sizeof node);
    room -= sizeof node;
    if (node.key_size > room || node.key_size > kMaxKeySize) return "a key is damaged";
    room -= node.key_size;
    if (depth > 1) {
      PageNumber child = node.low | PageNumber{node.high} << 16;
      if constexpr (sizeof(PageNumber) == 8) child |= PageNumber{node.flags} << 32;
      return subtree(child, depth - 1);
    }
    if (node.key_size == 0 || (of_free_pages_ && node.key_size != sizeof(size_t))) return "a key is damaged";
    const size_t size = node.low | size_t{node.high} << 16;
    const uint8_t *data = bytes + sizeof node + node.key_size;
    if (node.flags == kBigData) return big_data(data, room, size);
    if (node.flags != 0 || size > room) return "an entry is damaged";
    return of_free_pages_ ? free_pages(data, size) : nullptr;
  }

  const char *big_data(const uint8_t *data, size_t room, size_t size) {
    PageNumber number;
    if (room < sizeof number) return "an entry is damaged";
    memcpy(&number, data, sizeof number);
    const size_t most = of_free_pages_ ? last_page_ * sizeof number : kMaxValueSize + sizeof(size_t);
    const size_t pages = (sizeof(PageHead) + size + page_size_ - 1) / page_size_;
    PageHead head;
    if (size > most || !is_page(number, pages)) return "a large entry is damaged";
    if (!read_at(fd_, &head, sizeof head, uint64_t{number} * page_size_)) return "it was truncated";
    if (head.number != number || head.flags != kOverflow || head.page_count() < pages ||
        !is_page(number, head.page_count())) {
      return "a large entry's page is damaged";
    }
    return of_free_pages_ ? big_free_pages(uint64_t{number} * page_size_ + sizeof head, size) : nullptr;
  }

  const char *big_free_pages(uint64_t offset, size_t size) {
    auto *list = static_cast<uint8_t *>(malloc(size));
    if (list == nullptr) return "there is no memory to examine it";
    const char *fault = read_at(fd_, list, size, offset) ? free_pages(list, size) : "it was truncated";
    free(list);
    return fault;
  }

  // A list is its length and so many page numbers, each smaller than the one before.
  const char *free_pages(const uint8_t *list, size_t size) const {
    constexpr const char *kFault = "a list of free pages is damaged";
    PageNumber count;
    if (size < sizeof count) return kFault;
    memcpy(&count, list, sizeof count);
    if (count > size / sizeof count - 1) return kFault;
    PageNumber before = last_page_ + 1;
    for (size_t i = 1; i <= count; ++i) {
      PageNumber number;
      memcpy(&number, list + i * sizeof number, sizeof number);
      if (number < 2 || number >= before) return kFault;
      before = number;
    }
    return nullptr;
  }

  int fd_;
  size_t page_size_;
  PageNumber last_page_;
  PageNumber left_;
  bool of_free_pages_ = false;
};

}  // namespace

const char *check_heads(int fd) {
  // A head that is being written just now may be seen in part.
  constexpr int kAttempts = 3;
  const char *fault = nullptr;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    fault = check_heads_once(fd);
    if (fault == nullptr) break;
    const timespec pause{0, 1'000'000};
    nanosleep(&pause, nullptr);
  }
  return fault;
}

PagesResult check_pages(int fd, size_t txn_id, const char **out_fault) {
  PageHead page;
  Head head;
  bool found = read_head(fd, 0, 0, &page, &head);
  if (found && txn_id % 2 != 0) found = read_head(fd, head.trees[kFreePages].pad, 1, &page, &head);
  if (found && head.txn_id > txn_id) return PagesResult::kMovedOn;
  if (!found || head.txn_id != txn_id) {
    *out_fault = "it was exchanged while in use";
    return PagesResult::kBad;
  }
  Walk walk(fd, head);
  *out_fault = walk.tree(head.trees[kFreePages], true);
  if (*out_fault == nullptr) *out_fault = walk.tree(head.trees[kEntries], false);
  return *out_fault == nullptr ? PagesResult::kGood : PagesResult::kBad;
}

}  // namespace sdb
