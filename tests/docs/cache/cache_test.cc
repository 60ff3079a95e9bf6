// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// docs/cache-format.md against libks over libsdb, and against LMDB itself: what the library writes lies in the file as
// the page shows, and what is put there by the page the library reads. The page has checks for both widths.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <lmdb.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "docs/page.h"
#include "fake_service/fake_service.h"
#include "ks_api.h"
#include "ks_cache.h"
#include "sdb.h"

namespace {

constexpr KsResult kSuccess = 1;
constexpr uint32_t kValueDamaged = 0x411a0003;
constexpr size_t kFileSize = size_t{sizeof(void *) == 8 ? 128 : 48} << 20;
constexpr const char *kWidth = sizeof(void *) == 8 ? "64" : "32";

const docs::Page page("cache-format.md");

// stored gives what the page says of an entry: check and value.
Octets stored(const std::string &name) {
  Octets all = page.filled(name + "-check-" + kWidth);
  const Octets value = page.filled(name + "-value");
  all.insert(all.end(), value.begin(), value.end());
  return all;
}

// File is a database file in the hands of LMDB alone, for as long as the object lives. It takes no locks.
class File {
 public:
  File(const std::string &path, unsigned flags) {
    EXPECT_EQ(mdb_env_create(&environment_), 0);
    EXPECT_EQ(mdb_env_set_mapsize(environment_, kFileSize), 0);
    EXPECT_EQ(mdb_env_open(environment_, path.c_str(), flags | MDB_NOSUBDIR | MDB_NOLOCK, 0600), 0) << path;
    EXPECT_EQ(mdb_txn_begin(environment_, nullptr, flags, &txn_), 0);
    EXPECT_EQ(mdb_dbi_open(txn_, nullptr, 0, &entries_), 0);
  }
  ~File() {
    EXPECT_EQ(mdb_txn_commit(txn_), 0);
    mdb_env_close(environment_);
  }
  File(const File &) = delete;
  File &operator=(const File &) = delete;

  Octets get(Octets key) {
    MDB_val k{key.size(), key.data()};
    MDB_val v{};
    if (mdb_get(txn_, entries_, &k, &v) != 0) return {};
    const auto *data = static_cast<const uint8_t *>(v.mv_data);
    return {data, data + v.mv_size};
  }
  void put(Octets key, Octets value) {
    MDB_val k{key.size(), key.data()};
    MDB_val v{value.size(), value.data()};
    EXPECT_EQ(mdb_put(txn_, entries_, &k, &v, 0), 0);
  }

 private:
  MDB_env *environment_ = nullptr;
  MDB_txn *txn_ = nullptr;
  MDB_dbi entries_ = 0;
};

class CachePage : public testing::Test {
 protected:
  // The library goes to a database at ks_cache_uri, whoever opened it.
  void open() {
    strcpy(ks_cache_uri, ("lmdb://" + folder.path() + "/pacs").c_str());
    ASSERT_EQ(sdb_open(ks_cache_uri, 1, 0, 0, 0), 0u);
  }
  std::string file() const { return folder.path() + "/pacs-" + kWidth + ".mdb"; }
  // The first bytes of the gate, and what the page shows with this run's id in the place of its own.
  Octets gate(size_t size) const {
    Octets bytes(size);
    std::ifstream(file() + "-gate").read(reinterpret_cast<char *>(bytes.data()), static_cast<std::streamsize>(size));
    return bytes;
  }
  static Octets mark_of_this_run() {
    std::string run;
    std::getline(std::ifstream("/proc/sys/kernel/random/boot_id"), run);
    Octets mark = page.filled("mark");
    EXPECT_EQ(run.size() + 3, mark.size());
    std::copy(run.begin(), run.end(), mark.begin() + 2);
    return mark;
  }
  Octets in_file() const { return File(file(), MDB_RDONLY).get(page.filled("key")); }
  void put_in_file(const Octets &key, const Octets &value) const {
    File(file(), 0).put(key, value);
    std::filesystem::resize_file(file(), kFileSize);
    const Octets mark = mark_of_this_run();
    std::ofstream(file() + "-gate")
        .write(reinterpret_cast<const char *>(mark.data()), static_cast<std::streamsize>(mark.size()));
    ASSERT_EQ(chmod((file() + "-gate").c_str(), 0600), 0);
  }

  static KsResult write_plain() { return ks_cache_pac_write(kName, sizeof kName, kMetadata, sizeof kMetadata); }
  static KsResult write_tprf() {
    return ks_cache_pac_write_tprf(kName, sizeof kName, "label", 5, "random", 6, kOutput, sizeof kOutput);
  }

  static constexpr uint8_t kName[] = {0x31, 0, 0, 7, 0xa1, 0xb2};
  static constexpr uint8_t kMetadata[] = {0, 2, 0,    3, 'o', 'p', 'a',  0, 9, 0, 14,  0x80, 3,
                                          0, 4, 0x71, 0, 0,   0,   0x80, 5, 0, 2, 'i', 'd'};
  static constexpr uint8_t kOutput[] = {0x4b, 0x01, 0xdb, 0x52, 0x1d, 0xbe, 0x20, 0xd3};

  const TemporaryFolder folder;
};

TEST_F(CachePage, NamesTheFiles) {
  open();
  for (const char *ending : {"", "-lock", "-gate"}) EXPECT_TRUE(std::filesystem::exists(file() + ending)) << ending;
  EXPECT_EQ(std::filesystem::file_size(file()), kFileSize);
}

TEST_F(CachePage, ShowsTheMarkAndTheCountOfChanges) {
  open();
  EXPECT_EQ(gate(page.filled("mark").size()), mark_of_this_run());
  const auto changes = [&] {
    uint32_t count = 0;
    memcpy(&count, gate(68).data() + 64, sizeof count);
    return count;
  };
  const uint32_t before = changes();
  EXPECT_EQ(before % 2, 0u);
  ASSERT_EQ(write_plain(), kSuccess);  // which clears what was there first
  EXPECT_EQ(changes(), before + 4);
}

TEST_F(CachePage, ShowsWhatIsWrittenWithoutATPrf) {
  open();
  ASSERT_EQ(write_plain(), kSuccess);
  EXPECT_EQ(in_file(), stored("plain"));
}

TEST_F(CachePage, ShowsWhatIsWrittenWithATPrf) {
  open();
  ASSERT_EQ(write_plain(), kSuccess);
  ASSERT_EQ(write_tprf(), kSuccess);
  EXPECT_EQ(in_file(), stored("t-prf"));
}

TEST_F(CachePage, MakesAnEntryThatIsRead) {
  put_in_file(page.filled("key"), stored("t-prf"));
  open();
  uint8_t *metadata = nullptr;
  uint16_t len = 0;
  ASSERT_EQ(ks_cache_read_pac(kName, sizeof kName, &metadata, &len), kSuccess);
  EXPECT_EQ(Octets(metadata, metadata + len), Octets(std::begin(kMetadata), std::end(kMetadata)));
  free(metadata);

  uint8_t *output = nullptr;
  ASSERT_EQ(ks_cache_read_tprf(kName, sizeof kName, "label", 5, "random", 6, &output, &len), kSuccess);
  EXPECT_EQ(Octets(output, output + len), Octets(std::begin(kOutput), std::end(kOutput)));
  free(output);
}

TEST_F(CachePage, MakesAnEntryThatIsRefusedUnderAnotherKey) {
  Octets key = page.filled("key");
  key.back() = 1;
  put_in_file(key, stored("plain"));
  open();
  uint32_t error = 0;
  EXPECT_EQ(sksd_sdb_read(key.data(), static_cast<uint32_t>(key.size()), &error), nullptr);
  EXPECT_EQ(error, kValueDamaged);
}

}  // namespace
