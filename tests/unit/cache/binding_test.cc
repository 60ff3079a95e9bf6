// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "scripted.h"

namespace {

using scripted::Bytes;
using scripted::bytes;
using scripted::Guarded;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr char kUri[] = "lmdb:///tmp/sksd_ks_cache_data";

class SdbInit : public scripted::Test {};

TEST_F(SdbInit, OpensTheCompletedUriAtTheFirstAttempt) {
  EXPECT_EQ(ks_sdb_init(0xb2), KS_SUCCESS);

  EXPECT_EQ(ks_cache_present, 1u);
  EXPECT_STREQ(ks_cache_uri, kUri);
  EXPECT_THAT(
      scripted::platform().log,
      ElementsAre("report ks_sdb_init(#):Opening uri for caching (lmdb:///tmp/sksd_ks_cache_data) with flags: 0x4.\n",
                  "report ks_sdb_init(#):Opening uri for caching: lmdb:///tmp/sksd_ks_cache_data. Retry count: 0.\n",
                  "sdb_open 178", "report ks_sdb_init(#):SDB Open successful.\n"));
}

// DIFFERS(cache-open-flags)
TEST_F(SdbInit, ReportsFlagsOf4ThoughItOpensWith1) {
  ks_sdb_init(1);  // the script fails the test unless sdb_open is given 1

  EXPECT_EQ(traces(true).at(0),
            "103:ks_sdb_init(#):Opening uri for caching (lmdb:///tmp/sksd_ks_cache_data) with flags: 0x4.\n");
}

TEST_F(SdbInit, OpensAfterFourRefusalsForNowWithAPauseAfterEach) {
  sdb.open_codes = {0x411a0008, 0x411a0008, 0x411a0008, 0x411a0008};
  EXPECT_EQ(ks_sdb_init(1), KS_SUCCESS);

  EXPECT_EQ(ks_cache_present, 1u);
  EXPECT_THAT(events({"sdb_open", "usleep"}),
              ElementsAre("sdb_open 1", "usleep 1000", "sdb_open 1", "usleep 1000", "sdb_open 1", "usleep 1000",
                          "sdb_open 1", "usleep 1000", "sdb_open 1"));
  const std::string opening =
      "103:ks_sdb_init(#):Opening uri for caching: lmdb:///tmp/sksd_ks_cache_data. Retry count: ";
  const std::string failed = "103:ks_sdb_init(#):SDB open failed. (text of 0x411a0008).\n";
  EXPECT_THAT(traces(true),
              ElementsAre(testing::_, opening + "0.\n", failed, opening + "1.\n", failed, opening + "2.\n", failed,
                          opening + "3.\n", failed, opening + "4.\n", "103:ks_sdb_init(#):SDB Open successful.\n"));
}

TEST_F(SdbInit, GivesUpAfterFiveRefusalsForNowWithoutALastPause) {
  sdb.open_codes = {0x411a0008, 0x411a0008, 0x411a0008, 0x411a0008, 0x411a0008, 0};
  ks_cache_present = 1;
  EXPECT_EQ(ks_sdb_init(1), KS_FAILURE);

  EXPECT_EQ(ks_cache_present, 0u);
  EXPECT_EQ(sdb.open_codes.size(), 1u) << "five attempts";
  EXPECT_THAT(clock.pauses, ElementsAre(1000, 1000, 1000, 1000));
  EXPECT_EQ(traces().back(), "ks_sdb_init(#):SDB open failed. (text of 0x411a0008).\n");
}

TEST_F(SdbInit, GivesUpAtOnceOnAnyOtherCode) {
  for (const uint32_t code : {0x411a000fu, 0x411a0011u, 0x411a0007u, 1u, 0xffffffffu}) {
    sdb.open_codes = {code, 0};
    ks_cache_present = 1;
    EXPECT_EQ(ks_sdb_init(1), KS_FAILURE);

    EXPECT_EQ(ks_cache_present, 0u);
    EXPECT_EQ(sdb.open_codes.size(), 1u) << "one attempt";
  }
  EXPECT_THAT(clock.pauses, IsEmpty());
}

TEST_F(SdbInit, GivesUpOnAnotherCodeAfterARetryToo) {
  sdb.open_codes = {0x411a0008, 5, 0};
  EXPECT_EQ(ks_sdb_init(1), KS_FAILURE);

  EXPECT_EQ(sdb.open_codes.size(), 1u);
  EXPECT_THAT(clock.pauses, ElementsAre(1000));
}

TEST_F(SdbInit, CutsALongUriTo255Characters) {
  for (const size_t len : {255u, 256u, 300u}) {
    sysmgr.completed_uri.emplace(len, 'a');
    EXPECT_EQ(ks_sdb_init(1), KS_SUCCESS);

    EXPECT_EQ(Bytes(ks_cache_uri, ks_cache_uri + 255), Bytes(255, 'a'));
    EXPECT_EQ(ks_cache_uri[255], '\0');
  }
}

TEST_F(SdbInit, RewritesTheUriEachTime) {
  sysmgr.completed_uri = "lmdb:///a/rather/long/one";
  ks_sdb_init(1);
  sysmgr.completed_uri = "lmdb:///b";
  ks_sdb_init(1);

  EXPECT_STREQ(ks_cache_uri, "lmdb:///b");
  EXPECT_EQ(Bytes(ks_cache_uri + 9, ks_cache_uri + 256), Bytes(247, 0)) << "nothing is left of the longer one";
}

TEST_F(SdbInit, AsksForTheTextOfACodeOncePerOpenHalf) {
  trace.close();
  sdb.open_codes = {5};
  ks_sdb_init(1);
  EXPECT_EQ(sdb.text_calls, 0);

  trace.open_both();
  sdb.open_codes = {5};
  ks_sdb_init(1);
  EXPECT_EQ(sdb.text_calls, 1);
  EXPECT_THAT(trace.debug_lines, testing::Contains("ks_sdb_init(#):SDB open failed. (text of 0x5).\n"));

  trace.history_open = {{103, true}};
  sdb.open_codes = {5};
  ks_sdb_init(1);
  EXPECT_EQ(sdb.text_calls, 3);
}

class IsCachePresent : public scripted::Test {};

TEST_F(IsCachePresent, ReportsAndReturnsTheFlagAndNothingElse) {
  EXPECT_EQ(is_cache_present(), 0u);
  ks_cache_present = 1;
  EXPECT_EQ(is_cache_present(), 1u);
  ks_cache_present = 7;
  EXPECT_EQ(is_cache_present(), 7u);

  EXPECT_THAT(scripted::platform().log, ElementsAre("report is_cache_present(#):ks_cache_present = 0.",
                                                    "report is_cache_present(#):ks_cache_present = 1.",
                                                    "report is_cache_present(#):ks_cache_present = 7."));
}

// An open cache at "u:x", and a key of six bytes.
class Binding : public scripted::Test {
 protected:
  Binding() {
    strcpy(ks_cache_uri, "u:x");
    ks_cache_present = 1;
  }

  // The reports of the key below, after the head.
  const std::vector<std::string> key_reports = {"key_type[0]=1 ", "key_type[1]=80 ",  "key_type[2]=ff ",
                                                "key_type[3]=0 ", "key_handle[4]=a ", "key_handle[5]=fe "};
  Guarded key{bytes("01 80 ff 00 0a fe")};
  uint32_t error = 0xeeeeeeee;

  std::vector<std::string> reported(const std::string &head, const std::string &tail, bool alert = false) const {
    std::vector<std::string> all = {"103:" + head};
    for (const std::string &one : key_reports) all.push_back("103:" + one);
    all.push_back((alert ? "100:" : "103:") + tail);
    return all;
  }
  const KsSdbDatum *read() { return sksd_sdb_read(key.data(), 6, &error); }
  uint32_t write() { return sksd_sdb_write(key.data(), 6, "value", 5); }
  uint32_t erase() { return sksd_sdb_delete(key.data(), 6); }

  static constexpr char kReading[] = "sksd_sdb_read(#):Reading from uri u:x with key size = 6, key = ";
  static constexpr char kWriting[] = "sksd_sdb_write(#):Writing into uri u:x with key size = 6, key = ";
  static constexpr char kDeleting[] = "sksd_sdb_delete(#):Deleting from uri u:x with key size = 6, key = ";
};

TEST_F(Binding, ReadsAValueThatStaysWithTheDatabase) {
  sdb.entries[bytes("01 80 ff 00 0a fe")] = bytes("aa bb");
  const KsSdbDatum *value = read();

  EXPECT_EQ(value, &sdb.value_datum);
  EXPECT_EQ(value->size, 2u);
  EXPECT_EQ(error, 0u);
  EXPECT_EQ(traces(true), reported(kReading, "sksd_sdb_read(#):SDB Read successful."));
  EXPECT_THAT(flow(), IsEmpty());
}

TEST_F(Binding, ReadsNullAndTheErrorWordAndLeavesTheFlag) {
  EXPECT_EQ(read(), nullptr);
  EXPECT_EQ(error, 0x40480003u);
  EXPECT_EQ(traces(true), reported(kReading, "sksd_sdb_read(#):SDB read on uri u:x failed. (text of 0x40480003).\n"));

  sdb.read_error = 0x411a000f;
  EXPECT_EQ(read(), nullptr);
  EXPECT_EQ(error, 0x411a000fu);
  EXPECT_EQ(ks_cache_present, 1u);
}

TEST_F(Binding, ReportsANullValueOfASuccessfulReadAsAFailureWithCode0) {
  sdb.null_value = true;
  EXPECT_EQ(read(), nullptr);

  EXPECT_EQ(error, 0u);
  EXPECT_EQ(traces().back(), "sksd_sdb_read(#):SDB read on uri u:x failed. (text of 0x0).\n");
}

TEST_F(Binding, WritesAndCompletes) {
  EXPECT_EQ(write(), 0u);

  EXPECT_EQ(sdb.entries[bytes("01 80 ff 00 0a fe")], scripted::bytes_of("value"));
  EXPECT_EQ(traces(true), reported(kWriting, "sksd_sdb_write(#):PAC stored in shared DB.\n"));
  EXPECT_THAT(events({"sdb_write", "sdb_write_done"}), ElementsAre("sdb_write", "sdb_write_done"));
}

TEST_F(Binding, DoesNotCompleteAFailedWrite) {
  sdb.write_code = 0x411a0011;
  EXPECT_EQ(write(), 0x411a0011u);

  EXPECT_EQ(traces(true), reported(kWriting, "sksd_sdb_write(#):SDB write on uri u:x failed. (text of 0x411a0011).\n"));
  EXPECT_THAT(events({"sdb_write_done"}), IsEmpty());
}

TEST_F(Binding, PassesOnWhatCompletingAWriteAnswers) {
  sdb.done_code = 0x411a0011;
  EXPECT_EQ(write(), 0x411a0011u);
  EXPECT_EQ(traces(true), reported(kWriting, "sksd_sdb_write(#):URI format is invalid. \n", true));

  trace.reports.clear();
  sdb.done_code = 28;
  EXPECT_EQ(write(), 28u);
  EXPECT_EQ(traces(true), reported(kWriting, "sksd_sdb_write(#):SDB write_done on uri u:x failed. (text of 0x1c).\n"));
}

TEST_F(Binding, DeletesAndCompletes) {
  sdb.entries[bytes("01 80 ff 00 0a fe")] = bytes("aa bb");
  EXPECT_EQ(erase(), 0u);

  EXPECT_THAT(sdb.entries, IsEmpty());
  EXPECT_EQ(traces(true), reported(kDeleting, "sksd_sdb_delete(#):SDB delete successful."));
  EXPECT_THAT(events({"sdb_delete", "sdb_write_done"}), ElementsAre("sdb_delete", "sdb_write_done"));
}

TEST_F(Binding, DoesNotCompleteAFailedDelete) {
  sdb.delete_code = 0x40480003;
  EXPECT_EQ(erase(), 0x40480003u);

  EXPECT_EQ(traces(true),
            reported(kDeleting, "sksd_sdb_delete(#):SDB delete on uri u:x failed. (text of 0x40480003).\n"));
  EXPECT_THAT(events({"sdb_write_done"}), IsEmpty());
}

TEST_F(Binding, PassesOnWhatCompletingADeleteAnswers) {
  sdb.done_code = 0x411a0011;
  EXPECT_EQ(erase(), 0x411a0011u);
  EXPECT_EQ(traces(true), reported(kDeleting, "sksd_sdb_delete(#):URI format is invalid. \n", true));

  trace.reports.clear();
  sdb.done_code = 28;
  EXPECT_EQ(erase(), 28u);
  EXPECT_EQ(
      traces(true),
      reported(kDeleting, "sksd_sdb_delete(#):SDB write_done on uri u:x failed while deleting. (text of 0x1c).\n"));
}

TEST_F(Binding, AsksForTheTextOfACodeOncePerOpenHalf) {
  const auto fail_each = [this] {
    sdb.read_error = 5;
    read();
    sdb.write_code = 5;
    write();
    sdb.write_code.reset();
    sdb.done_code = 5;
    write();
    erase();
    sdb.delete_code = 5;
    erase();
  };
  trace.close();
  fail_each();
  EXPECT_EQ(sdb.text_calls, 0);

  sdb = scripted::Sdb();
  trace.open_both();
  fail_each();
  EXPECT_EQ(sdb.text_calls, 5);

  sdb = scripted::Sdb();
  trace.history_open = {{103, true}};
  fail_each();
  EXPECT_EQ(sdb.text_calls, 10);
}

TEST_F(Binding, ReportsAKeyOfFourBytesAsItsTypeAlone) {
  read();
  trace.reports.clear();
  Guarded four(bytes("01 02 03 04"));
  sksd_sdb_read(four.data(), 4, &error);

  EXPECT_THAT(traces(), ElementsAre("sksd_sdb_read(#):Reading from uri u:x with key size = 4, key = ", "key_type[0]=1 ",
                                    "key_type[1]=2 ", "key_type[2]=3 ", "key_type[3]=4 ", testing::_));
}

// DIFFERS(cache-key-type-bytes)
TEST_F(Binding, ReportsFourBytesOfAShorterKeyToo) {
  Guarded four(bytes("01 02 03 04"));
  sksd_sdb_delete(four.data(), 1);
  sksd_sdb_write(four.data(), 0, "", 0);

  EXPECT_THAT(traces(),
              ElementsAre("sksd_sdb_delete(#):Deleting from uri u:x with key size = 1, key = ", "key_type[0]=1 ",
                          "key_type[1]=2 ", "key_type[2]=3 ", "key_type[3]=4 ", testing::_,
                          "sksd_sdb_write(#):Writing into uri u:x with key size = 0, key = ", "key_type[0]=1 ",
                          "key_type[1]=2 ", "key_type[2]=3 ", "key_type[3]=4 ", testing::_));
}

TEST_F(Binding, AsksBothGatesOnceForEachOf41ReportsOfA39ByteKey) {
  trace.close();
  Guarded whole(Bytes(39, 1));
  sksd_sdb_read(whole.data(), 39, &error);

  EXPECT_EQ(trace.history_checks, 41);  // head, 39 bytes, outcome
  EXPECT_EQ(trace.debug_checks, 41);
  EXPECT_THAT(trace.reports, IsEmpty());
}

TEST_F(Binding, TouchesNoByteOfTheKeyItselfWhenEveryGateIsShut) {
  trace.close();
  sdb.read_error = 5;
  Guarded hidden(bytes("01 02 03 04"));
  hidden.forbid();
  EXPECT_EQ(sksd_sdb_read(hidden.data(), 4, &error), nullptr);
}

TEST_F(Binding, WorksOnAClosedCacheToo) {
  ks_cache_present = 0;
  EXPECT_EQ(write(), 0u);
  EXPECT_THAT(read(), Not(nullptr));
  EXPECT_EQ(erase(), 0u);

  EXPECT_EQ(ks_cache_present, 0u);
}

}  // namespace
