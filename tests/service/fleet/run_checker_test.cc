// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The checker of runs of real machines has to be able to fail: each test falsifies one thing of a run that was good.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>

#include "fleet_run/checker.h"
#include "temporary_folder.h"

namespace fleet_run {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr int64_t kMs = 1'000'000;

// A run of two machines. Thread 0 of each changes key 0 and 1, and whoever makes a change here tells of it in the
// history, too, unless the test wants it otherwise.
class RunChecker : public testing::Test {
 protected:
  RunChecker() {
    run.max_age = 3000 * kMs;
    run.answered_within = 5500 * kMs;
    run.starts = {{.machine = 1, .when = 0}, {.machine = 2, .when = 0}};
  }

  // Asked and answered in milliseconds.
  Operation &operation(unsigned machine, Kind kind, uint16_t key, int64_t invoked, int64_t answered,
                       KsResult result = KS_SUCCESS) {
    Operation made;
    made.number = number_of(machine, 0, ++count);
    made.kind = kind;
    made.key = key;
    made.invoked = invoked * kMs;
    made.answered = answered * kMs;
    made.result = result;
    run.operations.push_back(made);
    return run.operations.back();
  }

  void version(unsigned machine, uint64_t entries, std::vector<RowNote> puts, std::vector<uint64_t> deletes = {}) {
    run.versions.push_back({.version = run.versions.size() + 1,
                            .entry_count = entries,
                            .machine = machine,
                            .puts = std::move(puts),
                            .deletes = std::move(deletes)});
  }

  static RowNote row(uint64_t id, uint16_t key, const Operation &put) {
    return {.id = id, .metadata = put.number, .secret = put.number, .key = key};
  }

  // put_at has machine 1 put key 0 and be acknowledged, as version 1, between these times. Gives the number.
  uint64_t put_at(int64_t invoked, int64_t answered) {
    const Operation &put = operation(1, Kind::kPut, 0, invoked, answered);
    version(1, 1, {row(1, 0, put)});
    return put.number;
  }

  std::vector<std::string> wrong() const { return check(run).wrong; }

  fleet_run::Run run;
  uint64_t count = 0;
};

TEST_F(RunChecker, FindsNothingInAGoodRun) {
  const uint64_t first = put_at(10, 12);
  Operation &read = operation(2, Kind::kRead, 0, 13, 14);
  read.content = first;
  const Operation metadata = operation(2, Kind::kMetadata, 0, 20, 22);
  version(2, 1, {{.id = 1, .metadata = metadata.number, .secret = first, .key = 0}});
  operation(1, Kind::kRename, 0, 30, 32).other = 1;
  version(1, 1, {{.id = 1, .metadata = metadata.number, .secret = first, .key = 1}});
  operation(1, Kind::kRemove, 0, 33, 34, KS_NOT_FOUND);
  const Operation second = operation(1, Kind::kPut, 0, 35, 36);
  version(1, 2, {row(2, 0, second)});
  operation(1, Kind::kRename, 0, 37, 38, KS_INVALID_ARGS).other = 1;
  operation(2, Kind::kRemove, 1, 40, 45);
  version(2, 1, {}, {1});
  operation(2, Kind::kRead, 1, 46, 47, KS_NOT_FOUND);
  operation(1, Kind::kExists, 0, 48, 49).content = 1;

  const Findings findings = check(run);
  EXPECT_THAT(findings.wrong, IsEmpty());
  EXPECT_EQ(findings.acknowledged, 5u);
  EXPECT_EQ(findings.refused, 2u);
  EXPECT_EQ(findings.reads, 3u);
  EXPECT_THAT(findings.table, ElementsAre(Seen{0, second.number}));
}

TEST_F(RunChecker, FindsAnAcknowledgedChangeThatIsLost) {
  operation(1, Kind::kPut, 0, 10, 12);
  EXPECT_THAT(wrong(), ElementsAre(HasSubstr("acknowledged, and isn't there: put of 0 by 1.0.1")));
}

TEST_F(RunChecker, FindsARefusedChangeThatWasMade) {
  put_at(10, 12);
  run.operations[0].result = KS_FW_COMM_ERROR;
  EXPECT_THAT(wrong(), ElementsAre(HasSubstr("refused, or made twice")));
}

TEST_F(RunChecker, FindsAChangeThatWasMadeTwice) {
  put_at(10, 12);
  const Operation put = run.operations[0];
  operation(1, Kind::kRemove, 0, 13, 14);
  version(1, 0, {}, {1});
  version(1, 1, {row(2, 0, put)});
  EXPECT_THAT(wrong(), ElementsAre(HasSubstr("version 3 has a change of key 0 that was refused, or made twice")));
}

TEST_F(RunChecker, FindsAChangeThatNobodyAskedFor) {
  version(2, 1, {{.id = 1, .metadata = number_of(2, 0, 7), .secret = number_of(2, 0, 7), .key = 0}});
  EXPECT_THAT(wrong(), ElementsAre(HasSubstr("nobody asked")));
}

TEST_F(RunChecker, FindsAChangeOfOneMachineUnderAnothersName) {
  put_at(10, 12);
  run.versions[0].machine = 2;
  EXPECT_THAT(wrong(), testing::Contains(HasSubstr("version 1 of machine 2 has a change of machine 1")));
}

TEST_F(RunChecker, LetsAChangeOfUnknownOutcomeHaveHappenedOrNot) {
  put_at(10, 12);
  run.operations[0].result = KS_TIMEOUT;
  operation(1, Kind::kRemove, 0, 20, 21).exchange_failed = true;
  const Findings findings = check(run);
  EXPECT_THAT(findings.wrong, IsEmpty());
  EXPECT_EQ(findings.unknown, 2u);
  EXPECT_EQ(findings.unknown_happened, 1u);
}

TEST_F(RunChecker, FindsTwoRemovalsWhereOneAtMostWasAskedFor) {
  put_at(10, 12);
  operation(1, Kind::kRemove, 0, 20, 21, KS_TIMEOUT);
  version(1, 0, {}, {1});
  const Operation again = operation(1, Kind::kPut, 0, 30, 31, KS_TIMEOUT);
  version(1, 1, {row(2, 0, again)});
  EXPECT_THAT(wrong(), IsEmpty());
  version(1, 0, {}, {2});
  EXPECT_THAT(wrong(), ElementsAre(HasSubstr("version 4")));
}

TEST_F(RunChecker, FindsAnOrderThatTimeForbids) {
  const Operation late = operation(2, Kind::kPut, 0, 20, 22);
  version(2, 1, {row(1, 0, late)});
  const Operation early = operation(1, Kind::kPut, 1, 10, 12);
  version(1, 2, {row(2, 1, early)});
  EXPECT_THAT(wrong(), ElementsAre(HasSubstr("it is in version 1, when 2 was there before it began")));
  run.operations[0].invoked = 11 * kMs;  // at the same time, any order will do
  EXPECT_THAT(wrong(), IsEmpty());
}

TEST_F(RunChecker, FindsAMachineThatDoesntReadItsOwnChange) {
  put_at(10, 12);
  operation(2, Kind::kRead, 0, 13, 14, KS_NOT_FOUND);  // another machine may be behind
  EXPECT_THAT(wrong(), IsEmpty());
  operation(1, Kind::kRead, 0, 13, 14, KS_NOT_FOUND);
  EXPECT_THAT(wrong(), ElementsAre(HasSubstr("read of 0 by 1.0.3")));
}

TEST_F(RunChecker, FindsAMemoryThatGoesBackUnlessItsServiceBeganAnew) {
  const uint64_t put = put_at(10, 12);
  operation(2, Kind::kRead, 0, 13, 14).content = put;
  operation(2, Kind::kExists, 0, 20, 21).content = 0;
  EXPECT_THAT(wrong(), ElementsAre(HasSubstr("exists of 0 by 2.0.3")));
  run.starts.push_back({.machine = 2, .when = 17 * kMs});
  EXPECT_THAT(wrong(), IsEmpty());
}

TEST_F(RunChecker, FindsAReadThatIsOlderThanItMayBe) {
  put_at(10, 12);
  operation(2, Kind::kRead, 0, 3012, 3013, KS_NOT_FOUND);
  EXPECT_THAT(wrong(), IsEmpty());
  operation(2, Kind::kRead, 0, 3013, 3014, KS_NOT_FOUND);
  EXPECT_THAT(wrong(), ElementsAre(HasSubstr("read of 0 by 2.0.3")));
}

TEST_F(RunChecker, FindsAReadOfWhatWasNeverThere) {
  const uint64_t put = put_at(10, 12);
  operation(2, Kind::kRead, 0, 13, 14).content = put + 1;
  EXPECT_THAT(wrong(), ElementsAre(HasSubstr("read of 0 by 2.0.2")));
}

TEST_F(RunChecker, FindsAReadOfWhatWasYetToCome) {
  const Operation put = operation(1, Kind::kPut, 0, 10, 12);
  operation(2, Kind::kRead, 0, 8, 9).content = put.number;
  version(1, 1, {row(1, 0, put)});
  EXPECT_THAT(wrong(), ElementsAre(HasSubstr("read of 0 by 2.0.2")));
}

TEST_F(RunChecker, FindsARefusalWithoutItsReason) {
  put_at(10, 12);
  operation(2, Kind::kRemove, 0, 13, 14, KS_NOT_FOUND);
  operation(2, Kind::kRename, 0, 13, 14, KS_INVALID_ARGS).other = 1;
  operation(2, Kind::kPut, 0, 13, 14, KS_STORE_FULL);
  operation(2, Kind::kPut, 0, 13, 14, KS_FAILURE);
  EXPECT_THAT(wrong(), ElementsAre(HasSubstr("there all the time"), HasSubstr("free all the time"),
                                   HasSubstr("there was space"), HasSubstr("nothing can be the reason")));
  run.full.push_back({.machine = 0, .from = 12 * kMs, .to = 20 * kMs});
  EXPECT_THAT(wrong(), testing::SizeIs(3));
}

TEST_F(RunChecker, FindsAnAnswerThatTookTooLongUnlessItsServiceWasFrozen) {
  put_at(10, 5511);
  EXPECT_THAT(wrong(), ElementsAre(HasSubstr("it took too long")));
  run.frozen.push_back({.machine = 1, .from = 100 * kMs, .to = 200 * kMs});
  EXPECT_THAT(wrong(), IsEmpty());
}

TEST_F(RunChecker, FindsAVersionThatLeavesAnotherTable) {
  put_at(10, 12);
  run.versions[0].entry_count = 2;
  EXPECT_THAT(wrong(), ElementsAre("version 1 counts 2 entries, and there are 1"));
}

TEST_F(RunChecker, FindsAnIdOrANameThatIsGivenTwice) {
  put_at(10, 12);
  operation(1, Kind::kRemove, 0, 20, 21);
  version(1, 0, {}, {1});
  const Operation again = operation(1, Kind::kPut, 0, 30, 31);
  version(1, 1, {row(1, 0, again)});
  EXPECT_THAT(wrong(), ElementsAre("version 3 uses the id 1 again"));
  const Operation other = operation(1, Kind::kPut, 0, 40, 41);
  version(1, 2, {row(2, 0, other)});
  EXPECT_THAT(wrong(), testing::Contains("version 4 gives the name of key 0 a second time"));
}

TEST_F(RunChecker, FindsAGapInTheHistory) {
  put_at(10, 12);
  run.versions[0].version = 2;
  EXPECT_THAT(wrong(), testing::Contains("version 2 follows on 0"));
}

TEST_F(RunChecker, ReadsWhatWasWritten) {
  const ks_test::TemporaryFolder folder;
  const std::string path = folder.path() + "/notes";
  std::string out;
  append(out, {.version = 7, .entry_count = 3, .machine = 2, .puts = {{1, 2, 3, 4}}, .deletes = {5, 6}});
  std::ofstream(path) << out << out.substr(0, 20);  // of a program that was killed
  std::vector<Version> versions;
  read_versions(path, versions);
  ASSERT_EQ(versions.size(), 1u);
  EXPECT_EQ(versions[0].version, 7u);
  EXPECT_EQ(versions[0].puts[0].key, 4);
  EXPECT_THAT(versions[0].deletes, ElementsAre(5, 6));
  EXPECT_EQ(key_of(name_of(77)), 77);
  EXPECT_EQ(key_of("key-"), std::nullopt);

  std::ofstream(path) << "start 2 17\nfull 0 1 2\nmax_age 9\n";
  fleet_run::Run read;
  read_journal(path, read);
  EXPECT_EQ(read.starts[0].when, 17);
  EXPECT_EQ(read.full[0].to, 2);
  EXPECT_EQ(read.max_age, 9);
  std::ofstream(path) << "something else\n";
  EXPECT_THROW(read_journal(path, read), std::runtime_error);
}

}  // namespace
}  // namespace fleet_run
