// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What a single process sees of libsdb.
#include <dlfcn.h>
#include <lmdb.h>

#include <thread>

#include "sdb_fixture.h"

using testing::HasSubstr;

namespace {

class SdbOpen : public Sdb {};

TEST_F(SdbOpen, MakesAMissingFolderWithMode0700) {
  umask(0);
  EXPECT_EQ(open(), 0u);
  umask(022);

  struct stat status;
  ASSERT_EQ(stat(folder.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700u);
  ASSERT_EQ(stat(data_file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(SdbOpen, IsASuccessWhenTheDatabaseIsOpen) {
  EXPECT_EQ(open(), 0u);
  EXPECT_EQ(open(), 0u);
}

TEST_F(SdbOpen, NamesTheFilesAfterTheWordSize) {
  ASSERT_EQ(open(), 0u);
  EXPECT_TRUE(std::filesystem::exists(data_file));
}

TEST_F(SdbOpen, RefusesMalformedUris) {
  for (const char *bad : {"", "lmdb", "lmdb://", "lmdb:///", "lmdb:///name", "lmdb://folder/name", "lmdb:///folder/",
                          "lmdb:///folder/.", "lmdb:///folder/..", "file:///folder/name", "/folder/name"}) {
    EXPECT_EQ(sdb_open(bad, 1, 0, 0, 0), kBadUriCode) << bad;
  }
  EXPECT_EQ(sdb_open(nullptr, 1, 0, 0, 0), kBadUriCode);
  EXPECT_EQ(sdb_open(("lmdb:///tmp/" + std::string(201, 'n')).c_str(), 1, 0, 0, 0), kBadUriCode);
}

TEST_F(SdbOpen, RefusesUnknownFlags) {
  EXPECT_EQ(sdb_open(uri.c_str(), 2, 0, 0, 0), kBadArgumentCode);
  EXPECT_EQ(sdb_open(uri.c_str(), 1, 0, 1, 0), kBadArgumentCode);
  EXPECT_EQ(sdb_open(uri.c_str(), 1, 0, 0, 1), kBadArgumentCode);
}

TEST_F(SdbOpen, SaysWhichFolderItMisses) {
  uri = "lmdb://" + root + "/none/of/entries";
  EXPECT_EQ(open(), kSystemCode);
  EXPECT_THAT(syserr2str(kSystemCode), HasSubstr(root + "/none/of: No such file"));
}

TEST_F(SdbOpen, RefusesASecondUriOfTheSameDatabase) {
  ASSERT_EQ(open(), 0u);
  EXPECT_EQ(sdb_open(("lmdb://" + root + "/./cache/entries").c_str(), 1, 0, 0, 0), kBadUriCode);
  EXPECT_EQ(put("k", "v"), 0u);
}

class SdbRead : public Sdb {};

TEST_F(SdbRead, GivesWhatWasWritten) {
  ASSERT_EQ(open(), 0u);
  for (const size_t size : {0u, 1u, 7u, 8u, 31u, 32u, 33u, 300u, 5000u, 262162u, 1048576u}) {
    const std::string value(size, static_cast<char>('a' + size % 26));
    ASSERT_EQ(put("key", value), 0u) << size;
    EXPECT_EQ(value_of("key"), value) << size;
  }
}

// The first entry of a page ends with it, when its key has an even length.
TEST_F(SdbRead, GivesALargeValueWhoseEntryEndsItsPage) {
  ASSERT_EQ(open(), 0u);
  const std::string large(10'000, 'v');
  ASSERT_EQ(put("even", large), 0u);
  EXPECT_TRUE(value_of("even") == large);
}

TEST_F(SdbRead, KeepsBytesOfAnyValue) {
  ASSERT_EQ(open(), 0u);
  const std::string key("\0\xff\0k", 4);
  const std::string value("v\0\xff\0", 4);
  ASSERT_EQ(put(key, value), 0u);
  EXPECT_EQ(value_of(key), value);
}

TEST_F(SdbRead, TellsAMissingKeyAndAClosedDatabaseApart) {
  EXPECT_EQ(read("key"), kNotOpenCode);
  ASSERT_EQ(open(), 0u);
  EXPECT_EQ(read("key"), kNoKeyCode);
  uri = "nonsense";
  EXPECT_EQ(read("key"), kBadUriCode);
}

TEST_F(SdbRead, RefusesKeysThatCannotBe) {
  ASSERT_EQ(open(), 0u);
  EXPECT_EQ(read(""), kBadArgumentCode);
  EXPECT_EQ(read(std::string(512, 'k')), kBadArgumentCode);
  EXPECT_EQ(read(std::string(511, 'k')), kNoKeyCode);
  uint32_t code = 0;
  EXPECT_EQ(sdb_read(uri.c_str(), nullptr, &code), nullptr);
  EXPECT_EQ(code, kBadArgumentCode);
}

TEST_F(SdbRead, KeepsTheValueOfEachThreadUntilItsOwnNextCall) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("a", "first"), 0u);
  ASSERT_EQ(put("b", "second"), 0u);
  const KsSdbDatum key = datum("a");
  uint32_t code = 1;
  const KsSdbDatum *mine = sdb_read(uri.c_str(), &key, &code);
  ASSERT_EQ(code, 0u);

  std::thread([&] {
    EXPECT_EQ(value_of("b"), "second");
    EXPECT_EQ(put("a", "changed"), 0u);
  }).join();

  EXPECT_EQ(text(mine), "first");
  EXPECT_EQ(value_of("a"), "changed");
}

class SdbWrite : public Sdb {};

TEST_F(SdbWrite, ChangesNothingBeforeItIsDone) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("old", "1"), 0u);
  EXPECT_EQ(stage("new", "2"), 0u);
  EXPECT_EQ(stage_delete("old"), 0u);
  EXPECT_EQ(read("new"), kNoKeyCode);
  EXPECT_EQ(value_of("old"), "1");

  EXPECT_EQ(done(), 0u);
  EXPECT_EQ(value_of("new"), "2");
  EXPECT_EQ(read("old"), kNoKeyCode);
}

TEST_F(SdbWrite, CopiesWhatItIsGiven) {
  ASSERT_EQ(open(), 0u);
  std::string key = "key";
  std::string value = "value";
  EXPECT_EQ(stage(key, value), 0u);
  key = "yek";
  value = "other";
  EXPECT_EQ(done(), 0u);
  EXPECT_EQ(value_of("key"), "value");
}

TEST_F(SdbWrite, StagesForTheCallingThreadOnly) {
  ASSERT_EQ(open(), 0u);
  EXPECT_EQ(stage("mine", "1"), 0u);
  std::thread([&] {
    EXPECT_EQ(done(), 0u);
    EXPECT_EQ(read("mine"), kNoKeyCode);
    EXPECT_EQ(stage("lost", "with its thread"), 0u);
  }).join();
  EXPECT_EQ(done(), 0u);
  EXPECT_EQ(value_of("mine"), "1");
  EXPECT_EQ(read("lost"), kNoKeyCode);
}

TEST_F(SdbWrite, KeepsTheOrderOfItsChanges) {
  ASSERT_EQ(open(), 0u);
  stage("key", "1");
  stage_delete("key");
  stage("key", "3");
  stage("gone", "1");
  stage_delete("gone");
  EXPECT_EQ(done(), 0u);
  EXPECT_EQ(value_of("key"), "3");
  EXPECT_EQ(read("gone"), kNoKeyCode);
}

TEST_F(SdbWrite, DeletesAMissingKeyWithSuccess) {
  ASSERT_EQ(open(), 0u);
  EXPECT_EQ(remove("never there"), 0u);
}

TEST_F(SdbWrite, IsDoneWhenNothingIsStaged) {
  ASSERT_EQ(open(), 0u);
  EXPECT_EQ(done(), 0u);
}

TEST_F(SdbWrite, RefusesWhatCannotBeStored) {
  EXPECT_EQ(stage("key", "value"), kNotOpenCode);
  EXPECT_EQ(done(), kNotOpenCode);
  ASSERT_EQ(open(), 0u);
  EXPECT_EQ(stage("", "value"), kBadArgumentCode);
  EXPECT_EQ(stage(std::string(512, 'k'), "value"), kBadArgumentCode);
  EXPECT_EQ(stage("key", std::string(1048577, 'v')), kBadArgumentCode);
  EXPECT_EQ(stage_delete(""), kBadArgumentCode);
}

class SdbIteration : public Sdb {
 protected:
  using Step = uint32_t (*)(const char *, const KsSdbDatum **, const KsSdbDatum **);

  std::string keys_from(Step step) {
    std::string keys;
    const KsSdbDatum *key = nullptr;
    const KsSdbDatum *value = nullptr;
    for (uint32_t code = step(uri.c_str(), &key, &value); code == 0; code = sdb_getnext(uri.c_str(), &key, &value)) {
      keys += text(key) + "=" + text(value) + " ";
    }
    return keys;
  }
};

TEST_F(SdbIteration, NeedsToBeSetUp) {
  ASSERT_EQ(open(), 0u);
  const KsSdbDatum *key = nullptr;
  const KsSdbDatum *value = nullptr;
  EXPECT_EQ(sdb_getkey(uri.c_str(), &key, &value), kNoIterationCode);
  EXPECT_EQ(sdb_getnext(uri.c_str(), &key, &value), kNoIterationCode);
  EXPECT_EQ(sdb_iterator_init(uri.c_str(), 2), kBadArgumentCode);
  EXPECT_EQ(sdb_iterator_init("lmdb:///not/open", 1), kNotOpenCode);
}

TEST_F(SdbIteration, EndsAtOnceInAnEmptyDatabase) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(sdb_iterator_init(uri.c_str(), 1), 0u);
  const KsSdbDatum *key = nullptr;
  const KsSdbDatum *value = nullptr;
  EXPECT_EQ(sdb_getkey(uri.c_str(), &key, &value), kNoMoreKeysCode);
  EXPECT_EQ(key, nullptr);
}

TEST_F(SdbIteration, GoesThroughAllKeysAndCanBeginAgain) {
  ASSERT_EQ(open(), 0u);
  for (const char *key : {"b", "a", "ab", "c"}) put(key, std::string("v") + key);
  ASSERT_EQ(sdb_iterator_init(uri.c_str(), 1), 0u);
  EXPECT_EQ(keys_from(sdb_getkey), "a=va ab=vab b=vb c=vc ");
  EXPECT_EQ(keys_from(sdb_getkey), "a=va ab=vab b=vb c=vc ");
}

TEST_F(SdbIteration, HandsOutTheLongestKey) {
  ASSERT_EQ(open(), 0u);
  const std::string longest(511, 'k');
  ASSERT_EQ(put(longest, "value"), 0u);
  ASSERT_EQ(sdb_iterator_init(uri.c_str(), 1), 0u);
  EXPECT_EQ(keys_from(sdb_getkey), longest + "=value ");
}

// What is too short for a check is no value, but its key can be deleted.
TEST_F(SdbIteration, HandsOutNoneForAValueThatCannotBe) {
  ASSERT_EQ(in_child([&] {
              MDB_env *environment = nullptr;
              MDB_txn *txn = nullptr;
              MDB_dbi entries = 0;
              MDB_val key{3, const_cast<char *>("key")};
              MDB_val value{3, const_cast<char *>("abc")};
              return open() | static_cast<uint32_t>(
                                  mdb_env_create(&environment) |
                                  mdb_env_open(environment, data_file.c_str(), MDB_NOSUBDIR | MDB_NOLOCK, 0600) |
                                  mdb_txn_begin(environment, nullptr, 0, &txn) |
                                  mdb_dbi_open(txn, nullptr, 0, &entries) | mdb_put(txn, entries, &key, &value, 0) |
                                  mdb_txn_commit(txn))
                         ? 1
                         : 0;
            }),
            0);
  ASSERT_EQ(open(), 0u);
  EXPECT_EQ(read("key"), kValueDamagedCode);
  ASSERT_EQ(sdb_iterator_init(uri.c_str(), 1), 0u);
  const KsSdbDatum *key = nullptr;
  const KsSdbDatum *value = nullptr;
  ASSERT_EQ(sdb_getkey(uri.c_str(), &key, &value), 0u);
  EXPECT_EQ(text(key), "key");
  EXPECT_EQ(value, nullptr);
}

TEST_F(SdbIteration, IsNotDisturbedByDeletingTheKeyJustHandedOut) {
  ASSERT_EQ(open(), 0u);
  for (int i = 0; i < 500; ++i) stage("key " + std::to_string(1000 + i), std::string(40, 'v'));
  ASSERT_EQ(done(), 0u);
  ASSERT_EQ(sdb_iterator_init(uri.c_str(), 1), 0u);
  const KsSdbDatum *key = nullptr;
  const KsSdbDatum *value = nullptr;
  int seen = 0;
  for (uint32_t code = sdb_getkey(uri.c_str(), &key, &value); code == 0;
       code = sdb_getnext(uri.c_str(), &key, &value), ++seen) {
    ASSERT_EQ(sdb_delete(uri.c_str(), key), 0u);
    ASSERT_EQ(seen % 50 == 0 ? done() : 0u, 0u);
    ASSERT_EQ(text(key), "key " + std::to_string(1000 + seen));  // readable until the next move
  }
  ASSERT_EQ(done(), 0u);
  EXPECT_EQ(seen, 500);
  EXPECT_EQ(keys_from(sdb_getkey), "");
}

TEST_F(SdbIteration, BeginsAgainWhenItIsSetUpAgain) {
  ASSERT_EQ(open(), 0u);
  for (const char *key : {"a", "b", "c"}) put(key, "v");
  ASSERT_EQ(sdb_iterator_init(uri.c_str(), 1), 0u);
  EXPECT_EQ(keys_from(sdb_getnext), "a=v b=v c=v ");
  ASSERT_EQ(sdb_iterator_init(uri.c_str(), 1), 0u);
  EXPECT_EQ(keys_from(sdb_getnext), "a=v b=v c=v ");
}

TEST_F(SdbIteration, BelongsToItsThread) {
  ASSERT_EQ(open(), 0u);
  for (const char *key : {"a", "b", "c"}) put(key, "v");
  ASSERT_EQ(sdb_iterator_init(uri.c_str(), 1), 0u);
  const KsSdbDatum *key = nullptr;
  const KsSdbDatum *value = nullptr;
  ASSERT_EQ(sdb_getkey(uri.c_str(), &key, &value), 0u);
  std::thread([&] {
    EXPECT_EQ(sdb_iterator_init(uri.c_str(), 1), 0u);
    EXPECT_EQ(keys_from(sdb_getkey), "a=v b=v c=v ");
  }).join();
  EXPECT_EQ(text(key), "a");
  EXPECT_EQ(keys_from(sdb_getnext), "b=v c=v ");
}

class SdbText : public Sdb {};

TEST_F(SdbText, HasOneForEachCode) {
  EXPECT_STREQ(syserr2str(0), "No error");
  EXPECT_STREQ(syserr2str(kRetryCode), "The database cannot be opened or read for now");
  EXPECT_STREQ(syserr2str(kNotOpenCode), "No database is open at this URI");
  EXPECT_STREQ(syserr2str(kNoKeyCode), "No such key");
  EXPECT_STREQ(syserr2str(kBusyCode), "Another writer of the database did not finish in time");
  EXPECT_STREQ(syserr2str(kFullCode), "The database is full");
}

TEST_F(SdbText, TellsSystemErrorsAndUnknownNumbers) {
  EXPECT_STREQ(syserr2str(13), "Error 13 (of the system: Permission denied)");
  EXPECT_STREQ(syserr2str(5), "Error 5 (of the system: Input/output error)");
  EXPECT_STREQ(syserr2str(0x12345678), "Unknown error 0x12345678");
  EXPECT_STREQ(syserr2str(0xffffffff), "Unknown error 0xffffffff");
}

TEST_F(SdbText, TellsMoreOfTheLatestCallOnly) {
  uri = "lmdb:relative";
  EXPECT_EQ(open(), kBadUriCode);
  EXPECT_THAT(syserr2str(kBadUriCode), HasSubstr("lmdb:relative"));
  EXPECT_STREQ(syserr2str(kNoKeyCode), "No such key");
  std::thread([] { EXPECT_THAT(syserr2str(kBadUriCode), Not(HasSubstr("relative"))); }).join();
  EXPECT_EQ(read("key"), kBadUriCode);
  EXPECT_THAT(syserr2str(kBadUriCode), Not(HasSubstr("relative")));
}

TEST_F(SdbText, IsEachThreadsOwn) {
  const char *mine = syserr2str(1234567);
  std::thread([] { syserr2str(7654321); }).join();
  EXPECT_STREQ(mine, "Unknown error 0x0012d687");
}

}  // namespace
