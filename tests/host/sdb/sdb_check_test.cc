// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The check that stands in front of each stored value, worked out apart from the code that makes it. Another check is
// another format: it would take every value that is stored today for damaged.
#include "sdb_check.h"

#include <vector>

#include "sdb_fixture.h"

namespace {

struct Row {
  size_t key_size;
  size_t value_size;
  uint64_t of_64_bits;
  uint32_t of_32_bits;
};

// Sizes about those of one and of four words of either width.
constexpr Row kRows[] = {
    {1, 0, 0xa5738bc6ad9d5b03, 0x5262ef8d},     {3, 1, 0x91d4e1c046592a5b, 0x697a0ada},
    {3, 3, 0x48819cc7914c1724, 0xee9b63fd},     {4, 4, 0x1517bea1b006752d, 0x95bc2bf0},
    {7, 5, 0xecf3faeee58f0c3f, 0x8a3364cd},     {8, 7, 0x4ea327b1def220c8, 0x7f2d8270},
    {9, 8, 0xd70eb85ae0d04f98, 0x973cc9a3},     {15, 9, 0x30b0f13d0ae7f57e, 0x36fbcbcd},
    {16, 15, 0x8613d7b8b4aaf77e, 0xa8f1cb3a},   {17, 16, 0x3a32dbf7500a9ac9, 0x7ad35736},
    {31, 31, 0x123b50b9d8ff68aa, 0xcd6b5ad5},   {32, 32, 0xc61a889acf7978f7, 0x14ecee43},
    {33, 33, 0x61f34d8025916426, 0x8601795b},   {39, 64, 0x724913f2f55f6773, 0xf9618319},
    {39, 65, 0xc32fa2755dcf367d, 0xc1d7daa5},   {39, 100, 0x93b681d636135bca, 0x7624b19d},
    {511, 300, 0xa1b5357b741a7000, 0x33dfed17},
};

TEST(SdbCheck, IsOfKeyAndValue) {
  for (const Row &row : kRows) {
    std::vector<uint8_t> key(row.key_size);
    for (size_t i = 0; i < key.size(); ++i) key[i] = static_cast<uint8_t>(i * 7 + 1);
    std::vector<uint8_t> value(row.value_size);
    for (size_t i = 0; i < value.size(); ++i) value[i] = static_cast<uint8_t>(i * 31 + 200);
    EXPECT_EQ(sdb::check_of(key.data(), key.size(), value.data(), value.size()),
              sizeof(void *) == 8 ? row.of_64_bits : row.of_32_bits)
        << row.key_size << " and " << row.value_size;
  }
}

}  // namespace
