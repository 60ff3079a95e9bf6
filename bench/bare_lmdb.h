// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// bare_lmdb.h: the floor of the cache: LMDB by itself. One value read and copied; and changes, each committed by
// itself, without a sync.
#ifndef BENCH_BARE_LMDB_H
#define BENCH_BARE_LMDB_H

#include <lmdb.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace bench {

class BareLmdb {
 public:
  // `entries` values of one size, under keys of a cache key's size; it reads the one in the middle.
  BareLmdb(unsigned entries, size_t value_size) : copy_(value_size) {
    std::string pattern = std::filesystem::temp_directory_path() / "bare-lmdb-XXXXXX";
    folder_ = mkdtemp(pattern.data());
    require(mdb_env_create(&env_), "mdb_env_create");
    require(mdb_env_set_mapsize(env_, size_t{16} << 20), "mdb_env_set_mapsize");
    require(mdb_env_open(env_, folder_.c_str(), MDB_NOTLS | MDB_NOSYNC, 0600), "mdb_env_open");
    require(mdb_txn_begin(env_, nullptr, 0, &txn_), "mdb_txn_begin");
    require(mdb_dbi_open(txn_, nullptr, 0, &dbi_), "mdb_dbi_open");
    require(mdb_txn_commit(txn_), "mdb_txn_commit");
    fill(entries, value_size);
    require(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn_), "mdb_txn_begin");
    mdb_txn_reset(txn_);
    key_ = numbered_key(entries / 2);
  }
  ~BareLmdb() {
    mdb_txn_abort(txn_);
    mdb_env_close(env_);
    std::filesystem::remove_all(folder_);
  }
  BareLmdb(const BareLmdb &) = delete;
  BareLmdb &operator=(const BareLmdb &) = delete;

  const char *read() {
    MDB_val k{key_.size(), key_.data()};
    MDB_val v;
    mdb_txn_renew(txn_);
    if (mdb_get(txn_, dbi_, &k, &v) == 0) std::memcpy(copy_.data(), v.mv_data, v.mv_size);
    mdb_txn_reset(txn_);
    return copy_.data();
  }

  // In one transaction.
  void fill(unsigned entries, size_t value_size) {
    MDB_txn *change = nullptr;
    const std::string value(value_size, 'v');
    require(mdb_txn_begin(env_, nullptr, 0, &change), "mdb_txn_begin");
    for (unsigned i = 0; i < entries; ++i) {
      std::string key = numbered_key(i);
      MDB_val k{key.size(), key.data()};
      MDB_val v{value.size(), const_cast<char *>(value.data())};
      require(mdb_put(change, dbi_, &k, &v, 0), "mdb_put");
    }
    require(mdb_txn_commit(change), "mdb_txn_commit");
  }
  // Each change is a transaction of its own.
  void write(unsigned number, const std::string &value) {
    MDB_txn *change = nullptr;
    std::string key = numbered_key(number);
    MDB_val k{key.size(), key.data()};
    MDB_val v{value.size(), const_cast<char *>(value.data())};
    require(mdb_txn_begin(env_, nullptr, 0, &change), "mdb_txn_begin");
    require(mdb_put(change, dbi_, &k, &v, 0), "mdb_put");
    require(mdb_txn_commit(change), "mdb_txn_commit");
  }
  void remove(unsigned number) {
    MDB_txn *change = nullptr;
    std::string key = numbered_key(number);
    MDB_val k{key.size(), key.data()};
    require(mdb_txn_begin(env_, nullptr, 0, &change), "mdb_txn_begin");
    require(mdb_del(change, dbi_, &k, nullptr), "mdb_del");
    require(mdb_txn_commit(change), "mdb_txn_commit");
  }

 private:
  static std::string numbered_key(unsigned number) {
    constexpr size_t kCacheKeySize = 39;
    std::string key = "key " + std::to_string(number);
    key.resize(kCacheKeySize);
    return key;
  }
  static void require(int code, const char *call) {
    if (code == 0) return;
    std::fprintf(stderr, "%s: %s\n", call, mdb_strerror(code));
    std::exit(1);
  }

  std::string folder_;
  MDB_env *env_ = nullptr;
  MDB_txn *txn_ = nullptr;
  MDB_dbi dbi_ = 0;
  std::string key_;
  std::vector<char> copy_;
};

}  // namespace bench

#endif
