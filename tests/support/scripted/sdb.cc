// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// libsdb: a database in memory, with the errors that the script asks for.
#include "scripted.h"

using namespace scripted;

static Bytes copy_of(const KsSdbDatum *datum) {
  const auto *at = static_cast<const uint8_t *>(datum->data);
  return Bytes(at, at + datum->size);
}

uint32_t sdb_open(const char *uri, uint32_t flags, uint32_t uuid, uint32_t zero1, uint32_t zero2) {
  Sdb &sdb = platform().sdb;
  note("sdb_open " + std::to_string(uuid));
  EXPECT_EQ(uri, ks_cache_uri);
  EXPECT_EQ(flags, 1u);
  EXPECT_EQ(zero1, 0u);
  EXPECT_EQ(zero2, 0u);
  if (sdb.open_codes.empty()) return 0;
  const uint32_t code = sdb.open_codes.front();
  sdb.open_codes.pop_front();
  return code;
}

const KsSdbDatum *sdb_read(const char *uri, const KsSdbDatum *key, uint32_t *error) {
  Sdb &sdb = platform().sdb;
  note("sdb_read");
  EXPECT_EQ(uri, ks_cache_uri);
  *error = 0;
  if (sdb.read_error) {
    *error = *sdb.read_error;
    return nullptr;
  }
  if (sdb.null_value) return nullptr;
  const auto found = sdb.entries.find(copy_of(key));
  if (found == sdb.entries.end()) {
    *error = KS_SDB_ERR_NO_KEY;
    return nullptr;
  }
  if (sdb.value_error) *error = *sdb.value_error;
  sdb.value = std::make_unique<Guarded>(found->second);
  sdb.value_datum = {sdb.value->data(), sdb.value_size.value_or(static_cast<uint32_t>(sdb.value->size()))};
  return &sdb.value_datum;
}

uint32_t sdb_write(const char *uri, const KsSdbDatum *key, const KsSdbDatum *value) {
  Sdb &sdb = platform().sdb;
  note("sdb_write");
  EXPECT_EQ(uri, ks_cache_uri);
  if (sdb.write_code) return *sdb.write_code;
  sdb.staged = [&sdb, k = copy_of(key), v = copy_of(value)] { sdb.entries[k] = v; };
  return 0;
}

uint32_t sdb_delete(const char *uri, const KsSdbDatum *key) {
  Sdb &sdb = platform().sdb;
  note("sdb_delete");
  EXPECT_EQ(uri, ks_cache_uri);
  if (sdb.before_delete) sdb.before_delete();
  if (sdb.delete_code) return *sdb.delete_code;
  const Bytes wanted = copy_of(key);
  if (!sdb.entries.contains(wanted) && sdb.missing_delete_code != 0) return sdb.missing_delete_code;
  sdb.staged = [&sdb, wanted] { sdb.entries.erase(wanted); };
  return 0;
}

uint32_t sdb_write_done(const char *uri) {
  Sdb &sdb = platform().sdb;
  note("sdb_write_done");
  EXPECT_EQ(uri, ks_cache_uri);
  const auto staged = std::exchange(sdb.staged, nullptr);
  if (!staged) ADD_FAILURE() << "sdb_write_done with nothing staged";
  if (sdb.done_code) return *sdb.done_code;
  if (staged) staged();
  return 0;
}

uint32_t sdb_iterator_init(const char *uri, uint32_t flags) {
  Sdb &sdb = platform().sdb;
  note("sdb_iterator_init");
  EXPECT_EQ(uri, ks_cache_uri);
  EXPECT_EQ(flags, 1u);
  sdb.position.reset();
  return sdb.iterator_code.value_or(0);
}

static uint32_t hand_out(std::map<Bytes, Bytes>::const_iterator entry, const KsSdbDatum **key,
                         const KsSdbDatum **value) {
  Sdb &sdb = platform().sdb;
  if (entry == sdb.entries.end()) return KS_SDB_ERR_NO_KEY;
  sdb.position = entry->first;
  sdb.key = std::make_unique<Guarded>(entry->first);
  sdb.key_datum = {sdb.key->data(), static_cast<uint32_t>(sdb.key->size())};
  *key = &sdb.key_datum;
  *value = nullptr;
  return 0;
}

uint32_t sdb_getkey(const char *uri, const KsSdbDatum **key, const KsSdbDatum **value) {
  note("sdb_getkey");
  EXPECT_EQ(uri, ks_cache_uri);
  EXPECT_EQ(*key, nullptr);
  EXPECT_EQ(*value, nullptr);
  return hand_out(platform().sdb.entries.begin(), key, value);
}

uint32_t sdb_getnext(const char *uri, const KsSdbDatum **key, const KsSdbDatum **value) {
  Sdb &sdb = platform().sdb;
  note(*key == nullptr ? "sdb_getnext cleared" : "sdb_getnext");
  EXPECT_EQ(uri, ks_cache_uri);
  if (!sdb.position) return KS_SDB_ERR_NO_KEY;
  return hand_out(sdb.entries.upper_bound(*sdb.position), key, value);
}

const char *syserr2str(uint32_t code) {
  Sdb &sdb = platform().sdb;
  ++sdb.text_calls;
  char text[32];
  snprintf(text, sizeof text, "text of 0x%x", code);
  sdb.texts.emplace_back(text);
  return sdb.texts.back().c_str();
}
