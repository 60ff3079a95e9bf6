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
    {1, 0, 0x7e5018160f63a973, 0x43663e98},     {3, 1, 0x5c55e3a54c61dbad, 0x8f5fae3f},
    {3, 3, 0xeccf3da8ed0e8864, 0xd758aa8e},     {4, 4, 0xac9c5bb8a1357b46, 0x86fe1cb6},
    {7, 5, 0x3d8fb230d227f2ad, 0x3afb712b},     {8, 7, 0x5931262bd1fdeeb6, 0x6a9f6845},
    {9, 8, 0xac50b698eb9d0968, 0xe1566157},     {15, 9, 0xecb171b9c7c0de80, 0xae680b25},
    {16, 15, 0xc82eb5225884c6aa, 0x37d986cc},   {17, 16, 0x379fdc7352ad1481, 0xeb7d6892},
    {31, 31, 0x18e5880625004498, 0xdecdfdd1},   {32, 32, 0xc4ac8538e69ab468, 0xcc16f120},
    {33, 33, 0x0d3a4e91a08de0fd, 0x7b8886cc},   {39, 64, 0x1e37d58bc8d285e7, 0x4c90f182},
    {39, 65, 0x6224309599a1c3a6, 0x9aba25d7},   {39, 100, 0x0a692183651df04f, 0x1d1efce4},
    {511, 300, 0xf43ea79044766890, 0xcd0800cf},
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
