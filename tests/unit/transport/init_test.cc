// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "scripted.h"

namespace {

using testing::ElementsAre;

class Init : public scripted::Test {
 protected:
  Init() {
    ks_mts_q = 0xffffffff;
    vdc_id = 0;
    app_uuid = 0;
  }
};

// The exported objects as they are before main, when no fixture has set them.
const struct Objects {
  uint32_t queue = ks_mts_q;
  uint16_t vdc = vdc_id;
  uint32_t uuid = app_uuid;
  uint32_t cache_present = ks_cache_present;
  std::string uri = ks_cache_uri;
} kAtStart;

TEST(BeforeInit, NothingIsBoundAndNoCacheIsThere) {
  EXPECT_EQ(kAtStart.queue, 0xffffffffu);
  EXPECT_EQ(kAtStart.vdc, 0);
  EXPECT_EQ(kAtStart.uuid, 0u);
  EXPECT_EQ(kAtStart.cache_present, 0u);
  EXPECT_EQ(kAtStart.uri, "");
}

TEST_F(Init, BindsWithTheTemplateAndItsOwnArgumentsUnchanged) {
  EXPECT_EQ(ks_init(0xa1, 0xb2, 0xc3), KS_SUCCESS);

  ASSERT_EQ(mts.binds.size(), 1u);
  EXPECT_THAT(mts.binds[0], ElementsAre(1, 0xa1, /* template: */ 1, 0, 1024, 0xb2, 0, 15, 0xc3));
  EXPECT_EQ(ks_mts_q, 5u);
  EXPECT_EQ(vdc_id, 7);
  EXPECT_EQ(app_uuid, 0xb2u);
}

TEST_F(Init, BindsWithAZeroIdentifierToo) {
  EXPECT_EQ(ks_init(1, 0, 2), KS_SUCCESS);

  EXPECT_EQ(mts.binds.at(0).at(5), 0u);
  EXPECT_EQ(app_uuid, 0u);
  EXPECT_THAT(events({"sdb_open"}), ElementsAre("sdb_open 0"));
}

TEST_F(Init, TakesTheLowBitsOfTheVdcId) {
  sysmgr.vdc = 0xabcd1234;
  EXPECT_EQ(ks_init(0, 1, 0), KS_SUCCESS);

  EXPECT_EQ(vdc_id, 0x1234);
}

TEST_F(Init, ReportsSuccessAfterLearningTheVdcId) {
  EXPECT_EQ(ks_init(0, 1, 0), KS_SUCCESS);

  const auto calls = events({"mts_bind", "sysmgr_vdc_get", "report"});
  ASSERT_GE(calls.size(), 3u);
  EXPECT_EQ(calls[0], "mts_bind");
  EXPECT_EQ(calls[1], "sysmgr_vdc_get");
  EXPECT_EQ(calls[2], "report mts_bind succeeded \n");
}

TEST_F(Init, OpensTheCacheLastUnderItsIdentifier) {
  EXPECT_EQ(ks_init(0, 0xb2, 0), KS_SUCCESS);

  EXPECT_THAT(events({"mts_bind", "sysmgr_vdc_get", "sdb_open"}),
              ElementsAre("mts_bind", "sysmgr_vdc_get", "sdb_open 178"));
  EXPECT_EQ(traces().at(0), "mts_bind succeeded \n");
  EXPECT_EQ(ks_cache_present, 1u);
}

TEST_F(Init, SucceedsWithACacheThatWontOpen) {
  sdb.open_codes = {0x411a000f};
  EXPECT_EQ(ks_init(0, 1, 0), KS_SUCCESS);

  EXPECT_EQ(ks_cache_present, 0u);
}

TEST_F(Init, KeepsItsIdentifierAndLeavesTheRestWhenBindingFails) {
  mts.bind_errno = 111;
  vdc_id = 3;
  ks_mts_q = 9;
  EXPECT_EQ(ks_init(0, 0xb2, 0), KS_FAILURE);

  EXPECT_EQ(ks_mts_q, 0xffffffffu);
  EXPECT_EQ(app_uuid, 0xb2u);
  EXPECT_EQ(vdc_id, 3);
  EXPECT_EQ(ks_cache_present, 0u);
  EXPECT_THAT(scripted::platform().log, ElementsAre("mts_bind", "report mts_bind failed \n"));
}

TEST_F(Init, MayBeCalledAgainAfterAFailure) {
  mts.bind_errno = 111;
  EXPECT_EQ(ks_init(0, 1, 0), KS_FAILURE);
  mts.bind_errno.reset();
  EXPECT_EQ(ks_init(0, 2, 0), KS_SUCCESS);

  EXPECT_EQ(ks_mts_q, 5u);
  EXPECT_EQ(app_uuid, 2u);
}

TEST_F(Init, BindsAgainWhenCalledTwice) {
  EXPECT_EQ(ks_init(0, 1, 0), KS_SUCCESS);
  mts.bind_result = 6;
  sysmgr.vdc = 8;
  EXPECT_EQ(ks_init(0, 2, 0), KS_SUCCESS);

  EXPECT_EQ(mts.binds.size(), 2u);
  EXPECT_EQ(ks_mts_q, 6u);
  EXPECT_EQ(vdc_id, 8);
}

}  // namespace
