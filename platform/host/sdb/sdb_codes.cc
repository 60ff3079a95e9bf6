// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "sdb_codes.h"

#include <lmdb.h>

#include <cerrno>

namespace sdb {

namespace {

struct CodeText {
  uint32_t code;
  const char *text;
};

constexpr CodeText kTexts[] = {
    {kOk, "No error"},
    {kRetry, "The database cannot be opened or read for now"},
    {kNotOpen, "No database is open at this URI"},
    {kBadUri, "The URI is malformed; lmdb:///folder/name is wanted"},
    {kNoKey, "No such key"},
    {kUnsafe, "The database is not safe to use"},
    {kDamaged, "The database is damaged"},
    {kValueDamaged, "The stored value is damaged"},
    {kFull, "The database is full"},
    {kBusy, "Another writer of the database did not finish in time"},
    {kBadArgument, "Wrong argument"},
    {kNoMemory, "Out of memory"},
    {kSystem, "A system call failed"},
    {kNoIteration, "No iteration has been set up"},
    {kWrongFormat, "The database has a format of another version"},
    {kOutgrown, "The database has outgrown what this process maps of it"},
    {kNoMoreKeys, "No more keys"},
};

}  // namespace

const char *text_of_code(uint32_t code) {
  for (const CodeText &row : kTexts) {
    if (row.code == code) return row.text;
  }
  return nullptr;
}

uint32_t code_of_lmdb(int result) {
  switch (result) {
    case MDB_SUCCESS:
      return kOk;
    case MDB_NOTFOUND:
      return kNoKey;
    case MDB_READERS_FULL:
      return kRetry;
    case MDB_MAP_FULL:
    case MDB_TXN_FULL:
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return kFull;
    case MDB_MAP_RESIZED:
      return kOutgrown;
    case MDB_VERSION_MISMATCH:
      return kWrongFormat;
    case ENOMEM:
      return kNoMemory;
    default:
      // LMDB's own numbers are negative; those left over tell of pages that make no sense.
      return result < 0 ? kDamaged : kSystem;
  }
}

}  // namespace sdb
