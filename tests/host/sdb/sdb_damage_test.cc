// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What libsdb does with folders and files that aren't as it leaves them.
#include <fcntl.h>
#include <link.h>

#include <fstream>
#include <random>
#include <set>

#include "sdb_fixture.h"

using testing::HasSubstr;

namespace {

constexpr uid_t kSomebody = 12345;
constexpr gid_t kSomeGroup = 23456;

// Tests of owners need a process that can change them, as in CI.
#define NEEDS_ROOT() \
  if (geteuid() != 0) GTEST_SKIP() << "needs root"

class SdbFolder : public Sdb {
 protected:
  void expect_refusal(uint32_t code, const std::string &reason) {
    EXPECT_EQ(open(), code);
    EXPECT_THAT(syserr2str(code), HasSubstr(reason));
  }
};

TEST_F(SdbFolder, IsRefusedWithAnyModeBut0700) {
  for (const mode_t mode : {0755u, 0770u, 0701u, 0500u, 01700u, 02770u, 0777u}) {
    if (mode == 02770 && geteuid() == 0) continue;  // root's shared folder
    ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
    ASSERT_EQ(chmod(folder.c_str(), mode), 0);
    EXPECT_EQ(open(), kUnsafeCode) << std::oct << mode;
    ASSERT_EQ(rmdir(folder.c_str()), 0);
  }
}

TEST_F(SdbFolder, IsNamedWhenItIsRefused) {
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  expect_refusal(kUnsafeCode, "folder " + folder + " has mode 0755; chmod it to 0700");
}

TEST_F(SdbFolder, MayHaveInheritedASetgidBit) {
  ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
  ASSERT_EQ(chmod(folder.c_str(), 02700), 0);
  EXPECT_EQ(open(), 0u);
}

TEST_F(SdbFolder, OfSomebodyElseIsRefusedEvenToRoot) {
  NEEDS_ROOT();
  ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
  ASSERT_EQ(chown(folder.c_str(), kSomebody, kSomebody), 0);
  expect_refusal(kUnsafeCode, "belongs to user 12345, not to user 0");
}

TEST_F(SdbFolder, OfRootIsClosedToOthers) {
  NEEDS_ROOT();
  ASSERT_EQ(chmod(root.c_str(), 0755), 0);
  ASSERT_EQ(open(), 0u);
  EXPECT_EQ(in_child([&] {
              if (setuid(kSomebody) != 0) return 1;
              return open() == kSystemCode ? 0 : 2;
            }),
            0);
}

TEST_F(SdbFolder, OfRootAndAGroupIsSharedByItsMembers) {
  NEEDS_ROOT();
  ASSERT_EQ(chmod(root.c_str(), 0755), 0);
  ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
  ASSERT_EQ(chown(folder.c_str(), 0, kSomeGroup), 0);
  ASSERT_EQ(chmod(folder.c_str(), 02770), 0);
  for (const uid_t user : {kSomebody, kSomebody + 1, uid_t{0}}) {
    EXPECT_EQ(in_child([&] {
                if (setgid(kSomeGroup) != 0 || setuid(user) != 0) return 1;
                umask(077);
                if (open() != 0) return 2;
                return put("key of " + std::to_string(user), "value") == 0 ? 0 : 3;
              }),
              0)
        << user;
  }
  ASSERT_EQ(open(), 0u);
  EXPECT_EQ(value_of("key of 12345"), "value");
  EXPECT_EQ(value_of("key of 12346"), "value");
}

TEST_F(SdbFolder, IsRefusedWithAFileOfSomebodyElse) {
  NEEDS_ROOT();
  for (const char *ending : {"", "-lock", "-gate"}) {
    const std::string file = data_file + ending;
    ASSERT_EQ(in_child([&] { return static_cast<int>(open()); }), 0);
    ASSERT_EQ(chown(file.c_str(), kSomebody, kSomebody), 0);
    EXPECT_EQ(open(), kUnsafeCode) << file;
    EXPECT_THAT(syserr2str(kUnsafeCode), HasSubstr(file + " belongs to user 12345"));
    std::filesystem::remove_all(folder);
  }
}

TEST_F(SdbFolder, IsRefusedWithFilesThatOthersMayWriteOrThatAreNone) {
  ASSERT_EQ(in_child([&] { return static_cast<int>(open()); }), 0);
  for (const char *ending : {"", "-lock", "-gate"}) {
    const std::string file = data_file + ending;
    const std::string aside = file + ".aside";
    ASSERT_EQ(chmod(file.c_str(), 0666), 0);
    EXPECT_EQ(open(), kUnsafeCode) << file;
    ASSERT_EQ(chmod(file.c_str(), 0600), 0);
    ASSERT_EQ(rename(file.c_str(), aside.c_str()), 0);
    ASSERT_EQ(symlink(aside.c_str(), file.c_str()), 0);
    EXPECT_EQ(open(), kUnsafeCode) << file;
    ASSERT_EQ(unlink(file.c_str()), 0);
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    EXPECT_EQ(open(), kUnsafeCode) << file;
    ASSERT_EQ(unlink(file.c_str()), 0);
    ASSERT_EQ(rename(aside.c_str(), file.c_str()), 0);
  }
  EXPECT_EQ(open(), 0u);
}

class SdbDamage : public SdbFolder {
 protected:
  static constexpr unsigned kEntries = 300;

  static std::string key(unsigned i) { return "a cache key, number " + std::to_string(1000 + i); }
  static std::string value(unsigned i) { return std::string(100 + i % 200, static_cast<char>('a' + i % 26)); }

  // Everything is done in children, so that this process never has the database open.
  void fill() {
    ASSERT_EQ(in_child([&] {
                if (open() != 0) return 1;
                for (unsigned i = 0; i < kEntries; ++i) stage(key(i), value(i));
                stage("large", std::string(20000, 'L'));
                if (done() != 0) return 2;
                for (unsigned i = 0; i < kEntries; i += 3) stage_delete(key(i));  // so that pages are free, too
                return done() == 0 ? 0 : 3;
              }),
              0);
    std::ifstream file(data_file, std::ios::binary);
    content_.assign(kUsed, '\0');
    file.read(content_.data(), kUsed);
    size_ = static_cast<off_t>(std::filesystem::file_size(data_file));
  }

  void lay_down(const std::string &content, off_t size) {
    std::ofstream(data_file, std::ios::binary).write(content.data(), static_cast<std::streamsize>(content.size()));
    ASSERT_EQ(truncate(data_file.c_str(), size), 0);
  }

  // Does all there is to do, and takes any error for an answer, but no wrong value.
  int use_everything() {
    if (open() != 0) return 0;
    for (unsigned i = 0; i < kEntries; ++i) {
      std::string found;
      if (read(key(i), &found) == 0 && found != value(i)) return 10;
    }
    sdb_iterator_init(uri.c_str(), 1);
    const KsSdbDatum *k = nullptr;
    const KsSdbDatum *v = nullptr;
    unsigned steps = 0;
    for (uint32_t code = sdb_getkey(uri.c_str(), &k, &v); code == 0; code = sdb_getnext(uri.c_str(), &k, &v)) {
      if (++steps > 10 * kEntries) return 11;
    }
    for (unsigned i = 0; i < kEntries; i += 50) put(key(i), value(i + 1));
    for (unsigned i = 0; i < kEntries; i += 7) stage_delete(key(i));
    done();
    put("new", std::string(50000, 'n'));
    return 0;
  }

  static constexpr size_t kUsed = 256 * 1024;
  std::string content_;
  off_t size_ = 0;
};

TEST_F(SdbDamage, OfAFileThatWasTruncatedIsNoticed) {
  fill();
  for (const off_t size : {off_t{1}, off_t{100}, off_t{4096}, off_t{8191}, off_t{8192}, off_t{40000}, size_ - 1}) {
    lay_down(content_.substr(0, static_cast<size_t>(std::min<off_t>(size, kUsed))), size);
    expect_refusal(kDamagedCode, data_file + ": it was truncated; delete it to begin anew");
  }
  lay_down("", 0);
  EXPECT_EQ(open(), 0u);  // nothing is what a new database begins with
}

TEST_F(SdbDamage, OfAFileThatIsSomethingElseIsNoticed) {
  make_gate();
  std::minstd_rand random(1);
  std::string garbage(100000, '\0');
  for (char &c : garbage) c = static_cast<char>(random());
  for (const std::string &content : {std::string(100000, '\0'), std::string(100000, '\xff'), garbage}) {
    lay_down(content, 100000);
    ASSERT_EQ(chmod(data_file.c_str(), 0600), 0);
    EXPECT_EQ(open(), kDamagedCode);
  }
}

TEST_F(SdbDamage, OfOneBitNeverEndsTheProcessNorGivesAWrongValue) {
  fill();
  std::minstd_rand random(42);
  for (unsigned round = 0; round < 250; ++round) {
    std::string damaged = content_;
    // Half of the rounds go for the heads and the first pages, half for anything in use.
    const size_t offset = random() % (round % 2 == 0 ? 40 * 1024 : 140 * 1024);
    damaged[offset] = static_cast<char>(damaged[offset] ^ (1 << random() % 8));
    lay_down(damaged, size_);
    ASSERT_EQ(in_child([&] { return use_everything(); }), 0) << "byte " << offset;
  }
}

TEST_F(SdbDamage, OfManyBytesNeverEndsTheProcess) {
  fill();
  std::minstd_rand random(43);
  for (unsigned round = 0; round < 100; ++round) {
    std::string damaged = content_;
    const size_t page = 4096 * (random() % 40);
    for (size_t i = 0; i < 64; ++i) damaged[page + random() % 4096] = static_cast<char>(random());
    lay_down(damaged, size_);
    ASSERT_EQ(in_child([&] { return use_everything(); }), 0) << "page " << page / 4096 << " in round " << round;
  }
}

TEST_F(SdbDamage, OfAValueIsAReadErrorOfThatValueOnly) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("one", "the value that will be damaged"), 0u);
  ASSERT_EQ(put("two", "another"), 0u);
  std::string content(64 * 1024, '\0');
  std::fstream file(data_file, std::ios::binary | std::ios::in | std::ios::out);
  file.read(content.data(), static_cast<std::streamsize>(content.size()));
  unsigned found = 0;
  for (size_t at = content.find("will be"); at != std::string::npos; at = content.find("will be", at + 1), ++found) {
    file.seekp(static_cast<std::streamoff>(at)).write("was not", 7);
  }
  file.close();
  ASSERT_GT(found, 0u);

  EXPECT_EQ(read("one"), kValueDamagedCode);
  EXPECT_EQ(value_of("two"), "another");
  ASSERT_EQ(sdb_iterator_init(uri.c_str(), 1), 0u);
  const KsSdbDatum *k = nullptr;
  const KsSdbDatum *v = nullptr;
  ASSERT_EQ(sdb_getkey(uri.c_str(), &k, &v), 0u);
  EXPECT_EQ(text(k), "one");  // so that a purge can delete it
  EXPECT_EQ(v, nullptr);
  EXPECT_EQ(put("one", "repaired"), 0u);
  EXPECT_EQ(value_of("one"), "repaired");
}

TEST_F(SdbDamage, OfAKeyDoesNotLendItsValueToAnother) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("key A of mine", "the value of A"), 0u);
  std::string content(64 * 1024, '\0');
  std::fstream file(data_file, std::ios::binary | std::ios::in | std::ios::out);
  file.read(content.data(), static_cast<std::streamsize>(content.size()));
  for (size_t at = content.find("key A"); at != std::string::npos; at = content.find("key A", at + 1)) {
    file.seekp(static_cast<std::streamoff>(at)).write("key B", 5);
  }
  file.close();
  EXPECT_EQ(read("key B of mine"), kValueDamagedCode);
}

TEST_F(SdbDamage, OfAnOpenFileStopsWritesAndIterations) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("key", "value"), 0u);
  ASSERT_EQ(sdb_iterator_init(uri.c_str(), 1), 0u);
  ASSERT_EQ(truncate(data_file.c_str(), 4096), 0);
  EXPECT_EQ(put("key", "new"), kDamagedCode);
  EXPECT_THAT(syserr2str(kDamagedCode), HasSubstr("truncated"));
  const KsSdbDatum *k = nullptr;
  const KsSdbDatum *v = nullptr;
  EXPECT_EQ(sdb_getkey(uri.c_str(), &k, &v), kDamagedCode);
}

TEST_F(SdbDamage, OfAnOpenFileThatWasTruncatedIsAMiss) {
  for (const off_t size : {off_t{0}, off_t{1}, off_t{4096}, off_t{8192}, off_t{40000}, off_t{kUsed}}) {
    fill();
    EXPECT_EQ(in_child([&] {
                if (open() != 0 || read(key(1)) != 0) return 1;
                if (truncate(data_file.c_str(), size) != 0) return 2;
                if (read(key(2)) != kDamagedCode || read("no such key") != kDamagedCode) return 3;
                // What was read just now may be known still, but not for long.
                while (read(key(1)) == 0) continue;
                return read(key(1)) == kDamagedCode ? 0 : 4;
              }),
              0)
        << size;
    std::filesystem::remove_all(folder);
  }
}

TEST_F(SdbDamage, OfTheGatesFileIsAMissToo) {
  fill();
  EXPECT_EQ(in_child([&] {
              if (open() != 0) return 1;
              if (truncate((data_file + "-gate").c_str(), 0) != 0) return 2;
              return read(key(1)) == kDamagedCode && put("a", "b") == kDamagedCode ? 0 : 3;
            }),
            0);
}

// While the file is open, by writing to it: to a page, to many, to its heads.
TEST_F(SdbDamage, OfAnOpenFileThatWasAlteredNeverEndsAReader) {
  fill();
  std::minstd_rand random(44);
  EXPECT_EQ(in_child([&] {
              if (open() != 0) return 1;
              const int fd = ::open(data_file.c_str(), O_RDWR | O_CLOEXEC);
              for (unsigned round = 0; round < 300; ++round) {
                std::string damaged = content_;
                const size_t page = 4096 * (random() % 40);
                for (size_t i = 0; i < 1 + random() % 200; ++i)
                  damaged[page + random() % 4096] = static_cast<char>(random());
                if (pwrite(fd, damaged.data(), kUsed, 0) != static_cast<ssize_t>(kUsed)) return 2;
                for (unsigned i = 0; i < kEntries; i += 7) {
                  std::string found;
                  if (read(key(i), &found) == 0 && found != value(i)) return 3;
                }
                sdb_iterator_init(uri.c_str(), 1);
                const KsSdbDatum *k = nullptr;
                const KsSdbDatum *v = nullptr;
                unsigned steps = 0;
                for (uint32_t code = sdb_getkey(uri.c_str(), &k, &v); code == 0;
                     code = sdb_getnext(uri.c_str(), &k, &v)) {
                  if (++steps > 10 * kEntries) return 4;
                }
              }
              return 0;
            }),
            0);
}

TEST_F(SdbDamage, OfPagesInUseIsAnErrorForAsLongAsItLasts) {
  ASSERT_EQ(open(), 0u);
  for (unsigned i = 0; i < kEntries; ++i) stage(key(i), value(i));
  ASSERT_EQ(done(), 0u);
  const int fd = ::open(data_file.c_str(), O_RDWR | O_CLOEXEC);
  std::string content(kUsed, '\0');
  ASSERT_EQ(pread(fd, content.data(), kUsed, 0), static_cast<ssize_t>(kUsed));
  constexpr size_t kFlagsAt = sizeof(void *) + 2;
  constexpr char kNoChildren[] = {sizeof(void *) == 8 ? 16 : 12, 0};
  constexpr size_t kBoundsAt = sizeof(void *) + 4;
  for (size_t page = 2 * 4096; page < kUsed; page += 4096) {
    // A branch without a single child, which LMDB asserts never to meet.
    if (content[page + kFlagsAt] != 1) continue;
    ASSERT_EQ(pwrite(fd, kNoChildren, 2, static_cast<off_t>(page + kBoundsAt)), 2);
  }
  for (int again = 0; again < 3; ++again) {
    EXPECT_EQ(read(key(1)), kDamagedCode);
    EXPECT_EQ(put(key(1), "new"), kDamagedCode);
  }
  ASSERT_EQ(pwrite(fd, content.data(), kUsed, 0), static_cast<ssize_t>(kUsed));
  close(fd);
  EXPECT_EQ(value_of(key(1)), value(1));
  EXPECT_EQ(put(key(1), "new"), 0u);
}

TEST_F(SdbDamage, OfDescriptorsThatWereClosedAndUsedAnewStopsWrites) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("key", "value"), 0u);
  const std::string other = root + "/other";
  constexpr int kAll = 1000;  // more than the databases of all tests take
  EXPECT_EQ(in_child([&] {
              if (value_of("key") != "value") return 1;
              for (int fd = 3; fd < kAll; ++fd) close(fd);
              if (put("key", "new") != kUnsafeCode) return 2;
              while (::open(other.c_str(), O_RDWR | O_CREAT, 0600) < kAll - 1) continue;
              return put("key", "new") == kUnsafeCode ? 0 : 3;
            }),
            0);
  EXPECT_EQ(std::filesystem::file_size(other), 0u);
}

TEST_F(SdbDamage, OfAFileThatWasDeletedUnderTheProcessStopsWrites) {
  ASSERT_EQ(open(), 0u);
  ASSERT_EQ(put("key", "value"), 0u);
  ASSERT_EQ(unlink(data_file.c_str()), 0);
  EXPECT_EQ(put("key", "new"), kUnsafeCode);
  EXPECT_EQ(value_of("key"), "value");
}

class SdbFull : public Sdb {};

TEST_F(SdbFull, SaysSoAndKeepsItsEntriesReadableAndDeletable) {
  ASSERT_EQ(open(), 0u);
  const std::string value(1000000, 'v');
  unsigned count = 0;
  uint32_t code = 0;
  while (count < 200 && (code = put("key " + std::to_string(100 + count), value)) == 0) ++count;
  EXPECT_EQ(code, kFullCode);
  EXPECT_EQ(count, sizeof(void *) == 8 ? 33u : 12u);
  EXPECT_EQ(value_of("key 100"), value);
  EXPECT_EQ(read("key " + std::to_string(100 + count)), kNoKeyCode);
  EXPECT_EQ(put("small", "v"), 0u);  // there is still room for this one

  for (unsigned i = 0; i < count; ++i) EXPECT_EQ(remove("key " + std::to_string(100 + i)), 0u);
  EXPECT_EQ(put("key 100", value), 0u);
  EXPECT_EQ(value_of("small"), "v");
}

// A snapshot that nobody gives back would keep all pages since from being used again.
TEST_F(SdbFull, IsNeverReachedByWritingTheSameAgain) {
  ASSERT_EQ(open(), 0u);
  const std::string value(1000000, 'v');
  for (int i = 0; i < 150; ++i) ASSERT_EQ(put("key", value), 0u) << i;
  EXPECT_EQ(value_of("key"), value);
}

TEST(SdbLibrary, NeedsOnlyTheCLibraryAndLmdb) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "sanitizers need their own";
#endif
  std::set<std::string> needed;
  dl_iterate_phdr(
      [](dl_phdr_info *info, size_t, void *out) {
        if (std::string_view(info->dlpi_name).find("libsdb.so.1") == std::string_view::npos) return 0;
        const ElfW(Dyn) *dynamic = nullptr;
        for (unsigned i = 0; i < info->dlpi_phnum; ++i) {
          if (info->dlpi_phdr[i].p_type != PT_DYNAMIC) continue;
          dynamic = reinterpret_cast<const ElfW(Dyn) *>(info->dlpi_addr + info->dlpi_phdr[i].p_vaddr);
        }
        const char *strings = nullptr;
        for (const ElfW(Dyn) *entry = dynamic; entry->d_tag != DT_NULL; ++entry) {
          if (entry->d_tag == DT_STRTAB) strings = reinterpret_cast<const char *>(entry->d_un.d_ptr);
        }
        for (const ElfW(Dyn) *entry = dynamic; entry->d_tag != DT_NULL; ++entry) {
          if (entry->d_tag == DT_NEEDED) static_cast<std::set<std::string> *>(out)->insert(strings + entry->d_un.d_val);
        }
        return 1;
      },
      &needed);
  EXPECT_EQ(needed, (std::set<std::string>{"libc.so.6", "liblmdb.so.0"}));
}

}  // namespace
