// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Each code by its number, and its text by the word.
#include <utility>

#include "sdb_fixture.h"

namespace {

TEST(SdbCodes, HaveATextEach) {
  const std::pair<uint32_t, const char *> texts[] = {
      {0, "No error"},
      {0x411a0008, "The database cannot be opened or read for now"},
      {0x411a000f, "No database is open at this URI"},
      {0x411a0011, "The URI is malformed; lmdb:///folder/name is wanted"},
      {0x40480003, "No such key"},
      {0x411a0001, "The database is not safe to use"},
      {0x411a0002, "The database is damaged"},
      {0x411a0003, "The stored value is damaged"},
      {0x411a0004, "The database is full"},
      {0x411a0005, "Another writer of the database did not finish in time"},
      {0x411a0006, "Wrong argument"},
      {0x411a0007, "Out of memory"},
      {0x411a0009, "A system call failed"},
      {0x411a000a, "No iteration has been set up"},
      {0x411a000b, "The database has a format of another version"},
      {0x411a000c, "The database has outgrown what this process maps of it"},
      {0x40480004, "No more keys"},
  };
  for (const auto &[code, text] : texts) EXPECT_STREQ(syserr2str(code), text) << std::hex << code;
}

TEST(SdbCodes, OfTheSystemEndWithItsLargestNumber) {
  EXPECT_STREQ(syserr2str(133), "Error 133 (of the system: Memory page has hardware error)");
  EXPECT_STREQ(syserr2str(134), "Unknown error 0x00000086");
  EXPECT_STREQ(syserr2str(0x7fffffff), "Unknown error 0x7fffffff");
  EXPECT_STREQ(syserr2str(0x80000000), "Unknown error 0x80000000");
}

class SdbReasons : public Sdb {
 protected:
  // What the library says of a call that gave `code`, behind the code's own text.
  static std::string reason(uint32_t code) {
    const std::string text = syserr2str(code);
    const size_t colon = text.find(": ");
    return colon == std::string::npos ? "" : text.substr(colon + 2);
  }
};

TEST_F(SdbReasons, NameTheArgumentThatIsWrong) {
  EXPECT_EQ(sdb_open(uri.c_str(), 2, 0, 0, 0), kBadArgumentCode);
  EXPECT_EQ(reason(kBadArgumentCode), "sdb_open takes flags 1 and two zeros");
  ASSERT_EQ(open(), 0u);
  EXPECT_EQ(read(""), kBadArgumentCode);
  EXPECT_EQ(reason(kBadArgumentCode), "a key has 1 to 511 bytes");
  EXPECT_EQ(stage("", "v"), kBadArgumentCode);
  EXPECT_EQ(reason(kBadArgumentCode), "a key has 1 to 511 bytes");
  EXPECT_EQ(stage("k", std::string(1048577, 'v')), kBadArgumentCode);
  EXPECT_EQ(reason(kBadArgumentCode), "a value has at most 1048576 bytes");
  EXPECT_EQ(sdb_iterator_init(uri.c_str(), 0), kBadArgumentCode);
  EXPECT_EQ(reason(kBadArgumentCode), "sdb_iterator_init takes flags 1");
  ASSERT_EQ(sdb_iterator_init(uri.c_str(), 1), 0u);
  const KsSdbDatum *datum = nullptr;
  EXPECT_EQ(sdb_getkey(uri.c_str(), nullptr, &datum), kBadArgumentCode);
  EXPECT_EQ(reason(kBadArgumentCode), "places for key and value are needed");
  EXPECT_EQ(sdb_getnext(uri.c_str(), &datum, nullptr), kBadArgumentCode);
}

TEST_F(SdbReasons, NameTheUri) {
  EXPECT_EQ(sdb_open(nullptr, 1, 0, 0, 0), kBadUriCode);
  EXPECT_EQ(reason(kBadUriCode), "none given");
  ASSERT_EQ(open(), 0u);
  EXPECT_EQ(sdb_open(("lmdb://" + root + "/./cache/entries").c_str(), 1, 0, 0, 0), kBadUriCode);
  EXPECT_EQ(reason(kBadUriCode), "the database is open at another URI; use only one");
  EXPECT_EQ(sdb_write_done(nullptr), kBadUriCode);
}

TEST_F(SdbReasons, NameTheFolderAndWhatItLacks) {
  uri = "lmdb://" + root + "/none/of/entries";
  EXPECT_EQ(open(), kSystemCode);
  EXPECT_EQ(reason(kSystemCode),
            "cannot open folder " + root + "/none/of: No such file or directory; the folder above it must exist");
  folder = root + "/file";
  FILE *file = fopen(folder.c_str(), "w");
  ASSERT_NE(file, nullptr);
  fclose(file);
  uri = "lmdb://" + folder + "/entries";
  EXPECT_EQ(open(), kSystemCode);
  EXPECT_EQ(reason(kSystemCode), "cannot open folder " + folder + ": Not a directory");
}

TEST_F(SdbReasons, NameTheFile) {
  ASSERT_EQ(in_child([&] { return static_cast<int>(open()); }), 0);
  ASSERT_EQ(chmod(data_file.c_str(), 0640), 0);
  EXPECT_EQ(open(), kUnsafeCode);
  EXPECT_EQ(reason(kUnsafeCode), data_file + " has mode 0640; chmod it to 0600");
  ASSERT_EQ(unlink(data_file.c_str()), 0);
  ASSERT_EQ(mkfifo(data_file.c_str(), 0600), 0);
  EXPECT_EQ(open(), kUnsafeCode);
  EXPECT_EQ(reason(kUnsafeCode), data_file + " is not an ordinary file");
  ASSERT_EQ(unlink(data_file.c_str()), 0);
  ASSERT_EQ(symlink("elsewhere", data_file.c_str()), 0);
  EXPECT_EQ(open(), kUnsafeCode);
  EXPECT_EQ(reason(kUnsafeCode), "cannot open " + data_file + ": Too many levels of symbolic links");
  ASSERT_EQ(unlink(data_file.c_str()), 0);
  ASSERT_EQ(mkdir(data_file.c_str(), 0700), 0);
  EXPECT_EQ(open(), kSystemCode);
  EXPECT_EQ(reason(kSystemCode), "cannot open " + data_file + ": Is a directory");
}

TEST_F(SdbReasons, AreAnyRightsBeyondTheOwners) {
  ASSERT_EQ(in_child([&] { return static_cast<int>(open()); }), 0);
  for (const mode_t more : {0001u, 0002u, 0004u, 0010u, 0020u, 0040u, 0100u, 01000u, 02000u, 04000u}) {
    ASSERT_EQ(chmod(data_file.c_str(), 0600 | more), 0);
    EXPECT_EQ(open(), kUnsafeCode) << std::oct << more;
  }
}

TEST_F(SdbReasons, SayWhatBecameOfAnOpenFile) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("key", "value"), 0u);
  ASSERT_EQ(unlink(data_file.c_str()), 0);
  EXPECT_EQ(put("key", "new"), kUnsafeCode);
  EXPECT_EQ(reason(kUnsafeCode), uri + ": its file was deleted or closed under the process; start it anew");
}

// A length that is out of range by one, on either side.
TEST_F(SdbReasons, GoWithTheFirstLengthThatIsWrong) {
  ASSERT_EQ(open(), 0u);
  EXPECT_EQ(put(std::string(1, 'k'), ""), 0u);
  EXPECT_EQ(put(std::string(511, 'k'), std::string(1048576, 'v')), 0u);
  EXPECT_EQ(value_of(std::string(511, 'k')).size(), 1048576u);
  KsSdbDatum key = datum("key");
  KsSdbDatum value{nullptr, 1};
  EXPECT_EQ(sdb_write(uri.c_str(), &key, &value), kBadArgumentCode);
  value.size = 0;
  EXPECT_EQ(sdb_write(uri.c_str(), &key, &value), 0u);
  EXPECT_EQ(sdb_write(uri.c_str(), &key, nullptr), 0u);
  key.data = nullptr;
  EXPECT_EQ(sdb_write(uri.c_str(), &key, &value), kBadArgumentCode);
  EXPECT_EQ(sdb_write(uri.c_str(), nullptr, &value), kBadArgumentCode);
  EXPECT_EQ(sdb_delete(uri.c_str(), nullptr), kBadArgumentCode);
  EXPECT_EQ(sdb_delete(uri.c_str(), &key), kBadArgumentCode);
  uint32_t code = 0;
  EXPECT_EQ(sdb_read(uri.c_str(), &key, &code), nullptr);
  EXPECT_EQ(code, kBadArgumentCode);
  EXPECT_EQ(sdb_read(uri.c_str(), &key, nullptr), nullptr);
  EXPECT_EQ(done(), 0u);
  EXPECT_EQ(value_of("key"), "");
}

TEST_F(SdbReasons, GoWithTheFirstNameThatIsTooLong) {
  const std::string longest(200, 'n');
  EXPECT_EQ(sdb_open(("lmdb://" + folder + "/" + longest).c_str(), 1, 0, 0, 0), 0u);
  EXPECT_EQ(sdb_open(("lmdb://" + folder + "/" + longest + "n").c_str(), 1, 0, 0, 0), kBadUriCode);
  EXPECT_EQ(sdb_open(("lmdb://" + folder + "/a").c_str(), 1, 0, 0, 0), 0u);
  const std::string slashes(4095 - root.size(), '/');  // the longest path of a folder, and one more
  EXPECT_EQ(sdb_open(("lmdb://" + root + slashes + "/entries").c_str(), 1, 0, 0, 0), kSystemCode);
  EXPECT_EQ(sdb_open(("lmdb://" + root + slashes + "//entries").c_str(), 1, 0, 0, 0), kBadUriCode);
}

// Whatever fails, everything that was opened for it is closed.
TEST_F(SdbReasons, LeaveNoDescriptorBehind) {
  const auto descriptors = [] {
    size_t count = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
    return count;
  };
  ASSERT_EQ(in_child([&] { return static_cast<int>(open()); }), 0);
  const size_t before = descriptors();
  ASSERT_EQ(chmod(folder.c_str(), 0755), 0);
  EXPECT_EQ(open(), kUnsafeCode);
  EXPECT_EQ(descriptors(), before) << "folder";
  ASSERT_EQ(chmod(folder.c_str(), 0700), 0);
  for (const char *ending : {"-gate", "-lock", ""}) {
    ASSERT_EQ(chmod((data_file + ending).c_str(), 0666), 0);
    EXPECT_EQ(open(), kUnsafeCode);
    EXPECT_EQ(descriptors(), before) << ending;
    ASSERT_EQ(chmod((data_file + ending).c_str(), 0600), 0);
  }
  ASSERT_EQ(truncate(data_file.c_str(), 4096), 0);
  EXPECT_EQ(open(), kDamagedCode);
  EXPECT_EQ(descriptors(), before) << "damaged";
  ASSERT_EQ(truncate(data_file.c_str(), 0), 0);
  EXPECT_EQ(open(), 0u);
  EXPECT_EQ(descriptors(), before + 4) << "LMDB's three, and the gate's";
}

}  // namespace
