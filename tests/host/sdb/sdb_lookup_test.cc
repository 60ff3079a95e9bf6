// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What a reader says of a database in which a number is altered while it is open, and what it finds in a whole one.
#include <fcntl.h>

#include <functional>

#include "sdb_image.h"

namespace {

constexpr int kWhole = 0;
constexpr int kNoKey = 1;
constexpr int kDamaged = 2;
constexpr int kEndless = 3;
constexpr int kOther = 4;

int short_code(uint32_t code) {
  return code == 0                                       ? kWhole
         : code == kNoKeyCode || code == kNoMoreKeysCode ? kNoKey
         : code == kDamagedCode                          ? kDamaged
                                                         : kOther;
}

class SdbLookup : public SdbImage {
 protected:
  struct Fault {
    const char *what;
    std::function<void(Image &)> put;
  };

  // What a process that has the database open says of `image` when that takes the place of what it had.
  int says(const Image &good, const Image &image, const std::function<int()> &ask) {
    lay_down(good);
    return in_child([&] {
      if (open() != 0) return 100;
      const int fd = ::open(data_file.c_str(), O_RDWR | O_CLOEXEC);
      const auto size = static_cast<ssize_t>(image.bytes.size());
      return pwrite(fd, image.bytes.data(), image.bytes.size(), 0) == size ? ask() : 101;
    });
  }

  int reading(const std::string &key) { return short_code(read(key)); }

  // How going through all keys ends.
  int going_through() {
    sdb_iterator_init(uri.c_str(), 1);
    const KsSdbDatum *k = nullptr;
    const KsSdbDatum *v = nullptr;
    uint32_t code = sdb_getkey(uri.c_str(), &k, &v);
    for (int steps = 0; code == 0; code = sdb_getnext(uri.c_str(), &k, &v)) {
      if (++steps > 1000) return kEndless;
    }
    return short_code(code);
  }

  void expect_damage(const Image &good, const std::string &key, const std::vector<Fault> &faults) {
    for (const Fault &fault : faults) {
      Image image = good;
      fault.put(image);
      EXPECT_EQ(says(good, image, [&] { return reading(key); }), kDamaged) << fault.what << ", read";
      EXPECT_EQ(says(good, image, [&] { return going_through(); }), kDamaged) << fault.what << ", gone through";
    }
    EXPECT_EQ(says(good, good, [&] { return reading(key); }), kWhole);
    EXPECT_EQ(says(good, good, [&] { return going_through(); }), kNoKey);
  }

  static std::function<void(Image &)> word(size_t at, size_t value) {
    return [=](Image &image) { image.set(at, value); };
  }
  static std::function<void(Image &)> half(size_t at, size_t value) {
    return [=](Image &image) { image.set(at, static_cast<uint16_t>(value)); };
  }
  static std::function<void(Image &)> number(size_t at, uint32_t value) {
    return [=](Image &image) { image.set(at, value); };
  }

  // The first key that is left, of the first leaf.
  const std::string first = "key 1001";
};

TEST_F(SdbLookup, ChecksTheHead) {
  const Image good = fill();
  const size_t head = good.head();
  const size_t tree = head + kEntriesTree;
  expect_damage(good, first,
                {{"a page size too small", number(kPagesTree, 256)},
                 {"a page size too large", number(kPagesTree, 131072)},
                 {"a page size that is no power of two", number(kPagesTree, 4096 + 512)},
                 {"a page size that is almost one", number(kPagesTree, 4097)},
                 {"no page size", number(kPagesTree, 0)},
                 {"magic", number(head + kMagic, 0xbeefc0df)},
                 {"version", number(head + kVersion, 2)},
                 {"no depth", half(tree + kTreeDepth, 0)},
                 {"less deep", half(tree + kTreeDepth, 1)},
                 {"deeper", half(tree + kTreeDepth, 3)},
                 {"too deep", half(tree + kTreeDepth, 33)},
                 {"the first head for a root", word(tree + kTreeRoot, 0)},
                 {"the second head for a root", word(tree + kTreeRoot, 1)},
                 {"a root behind the last page", word(tree + kTreeRoot, good.last_page() + 1)},
                 {"no pages", word(head + kLastPage, 0)},
                 {"a last page before the root", word(head + kLastPage, good.root(kEntriesTree) / kPage - 1)},
                 {"a last page beyond all", word(head + kLastPage, SIZE_MAX)}});
}

TEST_F(SdbLookup, FindsNothingWithoutARoot) {
  const Image good = fill();
  Image image = good;
  image.set(good.head() + kEntriesTree + kTreeRoot, SIZE_MAX);
  EXPECT_EQ(says(good, image, [&] { return reading(first); }), kNoKey);
  EXPECT_EQ(says(good, image, [&] { return going_through(); }), kNoKey);
}

TEST_F(SdbLookup, TakesTheLargestPageNumberOfTheMap) {
  const Image good = fill();
  Image image = good;
  image.set(good.head() + kLastPage, static_cast<size_t>(size_ / kPage) - 1);
  EXPECT_EQ(says(good, image, [&] { return reading(first); }), kWhole);
}

TEST_F(SdbLookup, ChecksEachPageOnItsWay) {
  const Image good = fill();
  for (const size_t page : {good.root(kEntriesTree), good.leaf()}) {
    const bool branch = page == good.root(kEntriesTree);
    // The node that is looked at first, since what is sought lies before it.
    const size_t middle = branch ? 1 + (good.nodes(page) - 1) / 2 : good.nodes(page) / 2;
    const size_t offset = page + kOffsets + 2 * middle;
    const size_t node = good.node(page, middle);
    expect_damage(good, first,
                  {{"its number", word(page, page / kPage + 1)},
                   {"its kind", half(page + kFlags, branch ? 2 : 1)},
                   {"a kind more", half(page + kFlags, branch ? 3 : 6)},
                   {"no place for an entry", half(page + kLower, kOffsets)},
                   {"a bound before its start", half(page + kLower, 2)},
                   {"a bound behind its end", half(page + kLower, kPage + 2)},
                   {"an entry in its head", half(offset, kOffsets - 2)},
                   {"an entry at its end", half(offset, kPage)},
                   {"an entry that begins behind the last place", half(offset, kPage - 7)},
                   {"an entry far behind", half(offset, 0xffff)},
                   {"a key beyond the page", half(node + kNodeKeySize, kPage - (node - page) - kNodeKey + 1)},
                   {"a key far beyond", half(node + kNodeKeySize, 0xffff)}});
  }
}

TEST_F(SdbLookup, TakesAPageOfOneEntry) {
  const Image good = fill();
  Image image = good;
  image.set(good.leaf() + kLower, static_cast<uint16_t>(kOffsets + 2));
  EXPECT_EQ(says(good, image, [&] { return reading(first); }), kWhole);
  EXPECT_EQ(says(good, image, [&] { return reading("key 1002"); }), kNoKey);
  image = good;
  image.set(good.root(kEntriesTree) + kLower, static_cast<uint16_t>(kOffsets + 2));
  EXPECT_EQ(says(good, image, [&] { return reading(first); }), kWhole);
  EXPECT_EQ(says(good, image, [&] { return going_through(); }), kNoKey);
}

TEST_F(SdbLookup, ChecksEachChild) {
  const Image good = fill();
  const size_t top = good.root(kEntriesTree);
  const size_t way = good.node(top, 0);
  std::vector<Fault> faults = {{"the first head", half(way, 0)},
                               {"the second head", half(way, 1)},
                               {"behind the last page", half(way, good.last_page() + 1)},
                               {"far behind", half(way + 2, 1)},
                               {"its parent", half(way, top / kPage)}};
  if constexpr (kWord == 8) faults.push_back({"beyond all", half(way + kNodeFlags, 1)});
  expect_damage(good, first, faults);
}

TEST_F(SdbLookup, ChecksEachEntry) {
  const Image good = fill();
  const size_t page = good.leaf();
  const size_t entry = good.node(page, 0);
  const size_t room = page + kPage - good.data(entry);
  expect_damage(good, first,
                {{"a value beyond the page", half(entry, room + 1)},
                 {"a value far beyond", half(entry + 2, 1)},
                 {"another kind", half(entry + kNodeFlags, 2)},
                 {"a kind more", half(entry + kNodeFlags, 3)}});
}

TEST_F(SdbLookup, HandsOutNoKeyThatCannotBe) {
  const Image good = fill();
  const size_t page = good.leaf();
  // The last one has its page's room behind it.
  const Fault faults[] = {{"no key", half(good.node(page, 0) + kNodeKeySize, 0)},
                          {"a key of 512 bytes", half(good.node(page, good.nodes(page) - 1) + kNodeKeySize, 512)}};
  for (const Fault &fault : faults) {
    Image image = good;
    fault.put(image);
    EXPECT_EQ(says(good, image, [&] { return going_through(); }), kDamaged) << fault.what;
  }
}

TEST_F(SdbLookup, ChecksLargeEntries) {
  const Image good = fill();
  const size_t entry = good.large();
  ASSERT_NE(entry, 0u);
  const size_t page_number = good.data(entry);
  const size_t page = good.large_page();
  const size_t pages_left = good.last_page() - page / kPage + 1;
  expect_damage(good, "large",
                {{"in the first head", word(page_number, 0)},
                 {"in the second head", word(page_number, 1)},
                 {"behind the last page", word(page_number, good.last_page() + 1)},
                 {"beyond all", word(page_number, SIZE_MAX)},
                 {"one byte longer than all pages behind",
                  number(entry, static_cast<uint32_t>(pages_left * kPage - kOffsets + 1))},
                 {"longer than the map", number(entry, UINT32_MAX)},
                 {"another page's number", word(page, page / kPage + 1)},
                 {"another kind", half(page + kFlags, 2)},
                 {"a kind more", half(page + kFlags, 5)},
                 {"on no page at all", half(entry + kNodeFlags, 0)}});
}

// A page number that doesn't fit behind its key any more.
TEST_F(SdbLookup, ChecksTheRoomOfALargeEntrysPage) {
  const Image good = fill();
  const size_t entry = good.large();
  const size_t page = entry / kPage * kPage;
  size_t index = 0;
  while (good.node(page, index) != entry) ++index;
  for (const size_t room : {kWord - 1, size_t{0}}) {
    Image image = good;
    const size_t moved = kPage - room - kNodeKey - 5;
    memcpy(image.bytes.data() + page + moved, good.bytes.data() + entry, kNodeKey + 5);
    image.set(page + kOffsets + 2 * index, static_cast<uint16_t>(moved));
    EXPECT_EQ(says(good, image, [&] { return reading("large"); }), kDamaged) << room;
  }
}

TEST_F(SdbLookup, TakesAValueToTheLastByteOfItsPage) {
  EXPECT_EQ(in_child([&] { return open() == 0 && put("k", std::string(100, 'v')) == 0 ? 0 : 1; }), 0);
  const Image good = load();
  const size_t page = good.root(kEntriesTree);
  ASSERT_EQ(good.data(good.node(page, 0)) + kWord + 100 - page, kPage - 1) << "LMDB keeps entries at even places";
  Image image = good;
  image.set(good.node(page, 0), uint16_t{kWord + 101});
  EXPECT_EQ(says(good, image, [&] { return static_cast<int>(read("k") == kValueDamagedCode); }), 1);
  image.set(good.node(page, 0), uint16_t{kWord + 102});
  EXPECT_EQ(says(good, image, [&] { return reading("k"); }), kDamaged);
}

TEST_F(SdbLookup, FindsEachKeyAndNoneBetween) {
  const Image good = fill();
  EXPECT_EQ(says(good, good,
                 [&] {
                   for (unsigned i = 0; i < 300; ++i) {
                     const std::string key = "key " + std::to_string(1000 + i);
                     if (reading(key) != (i % 3 == 0 ? kNoKey : kWhole)) return 10;
                     if (reading(key + " ") != kNoKey || reading(key.substr(0, 7)) != kNoKey) return 11;
                   }
                   return reading("a") == kNoKey && reading("z") == kNoKey && reading("large") == kWhole ? 0 : 12;
                 }),
            0);
}

TEST_F(SdbLookup, GoesThroughAllKeysInOrder) {
  const Image good = fill();
  EXPECT_EQ(says(good, good,
                 [&] {
                   sdb_iterator_init(uri.c_str(), 1);
                   const KsSdbDatum *k = nullptr;
                   const KsSdbDatum *v = nullptr;
                   uint32_t code = sdb_getkey(uri.c_str(), &k, &v);
                   for (unsigned i = 0; i < 300; ++i) {
                     if (i % 3 == 0) continue;
                     if (code != 0 || text(k) != "key " + std::to_string(1000 + i) || v->size != 100) return 1;
                     code = sdb_getnext(uri.c_str(), &k, &v);
                   }
                   if (code != 0 || text(k) != "large" || text(v) != std::string(20000, 'L')) return 2;
                   return sdb_getnext(uri.c_str(), &k, &v) == kNoMoreKeysCode ? 0 : 3;
                 }),
            0);
}

}  // namespace
