// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What libsdb says of a database file in which one number isn't what a writer would have left there.
#include <functional>

#include "sdb_image.h"

using testing::HasSubstr;

namespace {

constexpr uint32_t kWrongFormatCode = 0x411a000b;

class SdbLayout : public SdbImage {
 protected:
  struct Fault {
    const char *what;
    std::function<void(Image &)> put;
    const char *said;
  };

  void expect_each_is_told(const Image &good, const std::vector<Fault> &faults) {
    for (const Fault &fault : faults) {
      Image image = good;
      fault.put(image);
      lay_down(image);
      EXPECT_EQ(open(), kDamagedCode) << fault.what;
      EXPECT_EQ(syserr2str(kDamagedCode),
                "The database is damaged: " + data_file + ": " + fault.said + "; delete it to begin anew")
          << fault.what;
    }
    lay_down(good);
    EXPECT_EQ(in_child([&] { return static_cast<int>(open()); }), 0) << "it was right before";
  }
};

TEST_F(SdbLayout, IsExaminedInBothHeads) {
  const Image good = fill();
  for (const size_t head : {size_t{0}, kPage}) {
    const auto number = [head](size_t at, auto value) {
      return [at = head + at, value](Image &image) { image.set(at, value); };
    };
    const auto other = [head](size_t at, int difference) {
      return [at = head + at, difference](Image &image) {
        image.set(at, image.word(at) + static_cast<size_t>(difference));
      };
    };
    std::vector<Fault> faults = {
        {"page flags", number(kFlags, uint16_t{0}), "it is not a database"},
        {"magic", number(kMagic, 0xbeefc0df), "it is not a database"},
        {"a transaction of the other head", other(kTxn, 1), "its transaction number is damaged"},
        {"no last page", number(kLastPage, size_t{0}), "its page count is damaged"},
        {"more pages than there are numbers", number(kLastPage, SIZE_MAX / kPage), "its page count is damaged"},
        {"almost as many", number(kLastPage, SIZE_MAX / kPage - 1), "it was truncated"},
        {"a page behind the end", number(kLastPage, static_cast<size_t>(size_ / kPage)), "it was truncated"},
        {"a map beyond the end", number(kMapSize, static_cast<size_t>(size_ + 1)), "it was truncated"},
        {"only heads", number(kLastPage, size_t{1}),
         good.word(head + kPagesTree + kTreeRoot) == SIZE_MAX ? "its table of entries is damaged"
                                                              : "its table of pages is damaged"},
    };
    for (const auto &[tree, said] : {std::pair{kPagesTree, "its table of pages is damaged"},
                                     std::pair{kEntriesTree, "its table of entries is damaged"}}) {
      const auto flags = static_cast<uint16_t>(good.half(head + tree + kTreeFlags) ^ 1);
      faults.push_back({"tree flags", number(tree + kTreeFlags, flags), said});
      faults.push_back({"too deep", number(tree + kTreeDepth, uint16_t{33}), said});
      faults.push_back({"a root in a head", number(tree + kTreeRoot, size_t{1}), said});
      faults.push_back({"a root behind the last", number(tree + kTreeRoot, good.word(head + kLastPage) + 1), said});
    }
    for (size_t tree : {kPagesTree, kEntriesTree}) {
      if (good.word(head + tree + kTreeRoot) == SIZE_MAX) continue;
      faults.push_back({"no depth", number(tree + kTreeDepth, uint16_t{0}),
                        tree == kPagesTree ? "its table of pages is damaged" : "its table of entries is damaged"});
    }
    expect_each_is_told(good, faults);
  }
}

TEST_F(SdbLayout, IsExaminedForItsPageSize) {
  const auto size = [](size_t head, uint32_t bytes) {
    return [head, bytes](Image &image) { image.set(head + kPagesTree, bytes); };
  };
  expect_each_is_told(fill(), {{"too small", size(0, 256), "its page size is damaged"},
                               {"too large", size(0, 131072), "its page size is damaged"},
                               {"no power of two", size(0, 4096 + 512), "its page size is damaged"},
                               {"none", size(0, 1), "its page size is damaged"},
                               {"another in the second head", size(kPage, 8192), "its page size is damaged"},
                               {"the smallest", size(0, 512), "it is not a database"},
                               {"the largest", size(0, 65536), "it is not a database"}});
}

TEST_F(SdbLayout, OfAnotherVersionIsToldApart) {
  const Image good = fill();
  for (const size_t head : {size_t{0}, kPage}) {
    Image image = good;
    image.set(head + kVersion, uint32_t{2});
    lay_down(image);
    EXPECT_EQ(open(), kWrongFormatCode) << head;
    EXPECT_THAT(syserr2str(kWrongFormatCode), HasSubstr("The database has a format of another version: ")) << head;
  }
}

TEST_F(SdbLayout, IsExaminedPageByPage) {
  const Image good = fill();
  ASSERT_EQ(good.half(good.head() + kEntriesTree + kTreeDepth), 2);
  const size_t top = good.root(kEntriesTree);
  const auto half = [](size_t at, size_t value) {
    return [at, value](Image &image) { image.set(at, static_cast<uint16_t>(value)); };
  };
  for (const size_t page : {top, good.leaf(), good.root(kPagesTree)}) {
    const bool branch = page == top;
    expect_each_is_told(
        good,
        {{"its number", [page](Image &image) { image.set(page, image.word(page) + 1); }, "a page's head is damaged"},
         {"its kind", half(page + kFlags, branch ? 2 : 1), "a page's head is damaged"},
         {"a kind more", half(page + kFlags, branch ? 5 : 6), "a page's head is damaged"},
         {"room before its start", half(page + kLower, kOffsets - 2), "a page's bounds are damaged"},
         {"room that begins at an odd place", half(page + kLower, good.half(page + kLower) + 1u),
          "a page's bounds are damaged"},
         {"room that ends before it begins", half(page + kLower, good.half(page + kUpper) + 2u),
          "a page's bounds are damaged"},
         {"room that ends behind the page", half(page + kUpper, kPage + 2), "a page's bounds are damaged"},
         {"too few entries", half(page + kLower, branch ? kOffsets + 2 : kOffsets), "a page has too few entries"},
         {"an entry in the room", half(page + kOffsets, good.half(page + kUpper) - 2u), "a page is damaged"},
         {"an entry at an odd place", half(page + kOffsets, good.half(page + kOffsets) + 1u), "a page is damaged"},
         {"an entry behind the last place", half(page + kOffsets, kPage - 6), "a page is damaged"},
         {"a key beyond the page", half(good.node(page, 0) + kNodeKeySize, kPage), "a key is damaged"}});
  }
}

TEST_F(SdbLayout, IsExaminedEntryByEntry) {
  const Image good = fill();
  const size_t branch = good.node(good.root(kEntriesTree), 0);
  const size_t entry = good.node(good.leaf(), 0);
  const size_t list = good.free_node();
  const auto half = [](size_t at, size_t value) {
    return [at, value](Image &image) { image.set(at, static_cast<uint16_t>(value)); };
  };
  const char *const damaged_tree = "its tree of pages is damaged";
  expect_each_is_told(
      good, {{"a child in the first head", half(branch, 0), damaged_tree},
             {"a child in the second head", half(branch, 1), damaged_tree},
             {"a child behind the last", half(branch, good.last_page() + 1), damaged_tree},
             {"a child far behind", half(branch + 2, 1), damaged_tree},
             {"its parent for a child", half(branch, good.root(kEntriesTree) / kPage), "a page's head is damaged"},
             {"a key of nothing", half(entry + kNodeKeySize, 0), "a key is damaged"},
             {"a key that is too long", half(entry + kNodeKeySize, 512), "a key is damaged"},
             {"a value beyond the page", half(entry, kPage), "an entry is damaged"},
             {"a value far beyond", half(entry + 2, 1), "an entry is damaged"},
             {"an entry of another kind", half(entry + kNodeFlags, 2), "an entry is damaged"},
             {"a short key of a list", half(list + kNodeKeySize, kWord - 1), "a key is damaged"},
             {"a long key of a list", half(list + kNodeKeySize, kWord + 1), "a key is damaged"}});
  if constexpr (kWord == 8) {
    expect_each_is_told(good, {{"a child beyond all", half(branch + kNodeFlags, 1), damaged_tree}});
  }
}

TEST_F(SdbLayout, IsExaminedForLargeValues) {
  const Image good = fill();
  ASSERT_NE(good.large(), 0u);
  const size_t number = good.data(good.large());
  const size_t first = good.large_page();
  const size_t count = 5;  // of 20000 bytes and a page's head
  const auto word = [](size_t at, size_t value) { return [at, value](Image &image) { image.set(at, value); }; };
  const auto long_of = [](size_t at, uint32_t value) { return [at, value](Image &image) { image.set(at, value); }; };
  const char *const entry = "a large entry is damaged";
  const char *const page = "a large entry's page is damaged";
  const auto pages_left = static_cast<uint32_t>(good.last_page() - first / kPage + 1);
  EXPECT_EQ(good.get<uint32_t>(first + kLower), count);
  expect_each_is_told(
      good, {{"in the first head", word(number, 0), entry},
             {"in the second head", word(number, 1), entry},
             {"behind the last page", word(number, good.last_page() + 1), entry},
             {"partly behind the last page", word(number, good.last_page() - count + 2), entry},
             {"larger than any", long_of(good.large(), 1024 * 1024 + kWord + 1), entry},
             {"longer than its pages", long_of(good.large(), count * kPage), page},
             {"one byte longer", long_of(good.large(), count * kPage - static_cast<uint32_t>(kOffsets) + 1), page},
             {"another page's number", word(first, first / kPage + 1), page},
             {"another kind", [first](Image &image) { image.set(first + kFlags, uint16_t{2}); }, page},
             {"fewer pages than it takes", long_of(first + kLower, count - 1), page},
             {"more pages than there are", long_of(first + kLower, pages_left + 1), page}});

  Image full = good;  // to the last byte of its pages
  full.set(good.large(), static_cast<uint32_t>(count * kPage - kOffsets));
  full.set(first + kLower, pages_left);
  lay_down(full);
  EXPECT_EQ(in_child([&] { return static_cast<int>(open()); }), 0);
}

TEST_F(SdbLayout, IsExaminedForListsOfFreePages) {
  const Image good = fill();
  const size_t list = good.free_list();
  const size_t count = good.word(list);
  const size_t room = good.get<uint16_t>(good.free_node()) / kWord - 1;
  ASSERT_GE(count, 2u);
  const auto word = [](size_t at, size_t value) { return [at, value](Image &image) { image.set(at, value); }; };
  const char *const said = "a list of free pages is damaged";
  expect_each_is_told(good,
                      {{"longer than its entry", word(list, room + 1), said},
                       {"a page twice", word(list + 2 * kWord, good.word(list + kWord)), said},
                       {"a page behind the last", word(list + kWord, good.last_page() + 1), said},
                       {"the second head", word(list + count * kWord, 1), said},
                       {"no room for its length",
                        [&](Image &image) { image.set(good.free_node(), static_cast<uint16_t>(kWord - 1)); }, said}});
  Image image = good;
  image.set(list + kWord, good.last_page());   // the largest there may be
  image.set(list + count * kWord, size_t{2});  // and the smallest
  lay_down(image);
  EXPECT_EQ(in_child([&] { return static_cast<int>(open()); }), 0);
}

// Lists of more than half a page lie on pages of their own, as large values do.
TEST_F(SdbLayout, IsExaminedForLongListsOfFreePages) {
  EXPECT_EQ(in_child([&] {
              if (open() != 0) return 1;
              for (int i = 0; i < 4; ++i) stage("key " + std::to_string(i), std::string(1'000'000, 'v'));
              if (done() != 0) return 2;
              for (int i = 0; i < 4; ++i) stage_delete("key " + std::to_string(i));
              return done() == 0 ? 0 : 3;
            }),
            0);
  const Image good = load();
  size_t node = 0;
  for (size_t i = 0; i < good.nodes(good.root(kPagesTree)); ++i) {
    if (good.half(good.node(good.root(kPagesTree), i) + kNodeFlags) == 1) node = good.node(good.root(kPagesTree), i);
  }
  ASSERT_NE(node, 0u);
  const size_t list = good.word(good.data(node)) * kPage + kOffsets;
  ASSERT_GT(good.word(list), 900u);
  expect_each_is_told(
      good, {{"a page twice", [list](Image &image) { image.set(list + 901 * kWord, image.word(list + 900 * kWord)); },
              "a list of free pages is damaged"},
             {"longer than all pages together",
              [&](Image &image) { image.set(node, static_cast<uint32_t>((good.last_page() + 1) * kWord)); },
              "a large entry is damaged"}});
}

TEST_F(SdbLayout, TakesABranchOfTwo) {
  EXPECT_EQ(in_child([&] {
              if (open() != 0) return 1;
              for (const char *key : {"a", "b", "c"}) stage(key, std::string(1500, 'v'));
              return done() == 0 ? 0 : 2;
            }),
            0);
  const Image image = load();
  ASSERT_EQ(image.nodes(image.root(kEntriesTree)), 2u);
  EXPECT_EQ(in_child([&] { return open() == 0 && value_of("c") == std::string(1500, 'v') ? 0 : 1; }), 0);
}

TEST_F(SdbLayout, TakesTheLargestOfEverything) {
  const std::string long_key(511, 'k');
  const std::string large(1024 * 1024, 'l');
  EXPECT_EQ(in_child([&] {
              if (open() != 0) return 1;
              stage(long_key, large);
              stage(std::string(511, 'm'), "");
              return done() == 0 ? 0 : 2;
            }),
            0);
  EXPECT_EQ(in_child([&] {
              if (open() != 0) return 1;
              if (value_of(long_key) != large) return 2;
              return value_of(std::string(511, 'm')).empty() ? 0 : 3;
            }),
            0);
}

}  // namespace
