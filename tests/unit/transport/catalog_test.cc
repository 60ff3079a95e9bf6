// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What the shared stages of a request promise to the operations that are built of them.
#include "scripted.h"
#include "transport/exchange.h"

namespace {

using scripted::Bytes;
using scripted::bytes;
using testing::ElementsAre;

template <typename Row, typename Record>
concept Sends = requires(Row &row, Record record, const ks::SectionList &list) {
  ks_exchange(row, record, list);
};

TEST(Catalogue, LetsNoOtherRecordThanTheRowsCompile) {
  EXPECT_TRUE((Sends<ks::Exchange<KsNameDescriptor>, KsNameDescriptor>));
  EXPECT_FALSE((Sends<ks::Exchange<KsNameDescriptor>, KsIndexDescriptor>)) << "as long, but another record";
  EXPECT_FALSE((Sends<ks::Exchange<KsNameDescriptor>, uint16_t>));
  EXPECT_FALSE((Sends<ks::Exchange<ks::NoDescriptor>, KsNameDescriptor>));
  EXPECT_TRUE((std::is_same_v<decltype(ks::Exchange(ks::kClearSecret)), ks::Exchange<KsNameDescriptor>>));
  EXPECT_TRUE((std::is_same_v<decltype(ks::Exchange(ks::kSecretByIndex)), ks::Exchange<KsIndexDescriptor>>));
  EXPECT_TRUE((std::is_same_v<decltype(ks::Exchange(ks::kRenameSecret)), ks::Exchange<KsRenameDescriptor>>));
}

TEST(Reply, IsReadAtAnyAlignment) {
  const Bytes payload = bytes("ff  05 00 00 00  02 01  61 62");
  EXPECT_EQ(ks::reply_result(payload.data() + 1), KS_NOT_FOUND);
  EXPECT_EQ(ks::reply_len(payload.data() + 1), 258);
  EXPECT_EQ(*ks::reply_data(payload.data() + 1), 'a');
}

TEST(Reply, OfARefusalThatEndsBeforeItsLengthIsReportedWithNone) {
  scripted::Guarded result_only(bytes("05 00 00 00"));
  EXPECT_EQ(ks::reported_len(4, result_only.data()), 0);
  scripted::Guarded head(bytes("05 00 00 00  02 01"));
  EXPECT_EQ(ks::reported_len(5, head.data()), 0);
  EXPECT_EQ(ks::reported_len(6, head.data()), 258);
}

class WireName : public scripted::Test {
 protected:
  // sizes gives the blocks of the three kinds of buffer for a name of `len` bytes that all of them hold.
  std::vector<size_t> sizes(size_t len) {
    const std::string name(len, 'n');
    for (auto buffer : {ks::NameBuffer::kWireName, ks::NameBuffer::kExact, ks::NameBuffer::kAtLeast}) {
      if (buffer == ks::NameBuffer::kWireName && len > 31) continue;
      made.push_back(ks::new_wire_name(0x30, name.data(), len, buffer));
    }
    const std::vector<size_t> live = heap.live();
    for (const void *block : made) heap.release(block);
    made.clear();
    return live;
  }
  std::vector<const void *> made;
};

TEST_F(WireName, HasABufferOfTheKindThatIsAskedFor) {
  EXPECT_THAT(sizes(1), ElementsAre(35, 5, 35));
  EXPECT_THAT(sizes(31), ElementsAre(35, 35, 35));
  EXPECT_THAT(sizes(32), ElementsAre(36, 36));
}

TEST_F(WireName, WithoutMemoryIsNullAndLeavesTheRequestAlone) {
  heap.fail_nth(1);
  KsSection section = {nullptr, 77};
  KsNameDescriptor descriptor = {0xa5, 0xa5};
  EXPECT_FALSE(ks::place_name(0x30, "k", 1, ks::NameBuffer::kExact, &section, &descriptor));
  EXPECT_EQ(section.length, 77u);
  EXPECT_EQ(descriptor.name_len, 0xa5);
  EXPECT_EQ(descriptor.name_offset, 0xa5);
}

}  // namespace
