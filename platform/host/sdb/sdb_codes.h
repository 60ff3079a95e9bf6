// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// sdb_codes.h: the codes that libsdb gives besides the four that sdb.h names, and their texts.
#ifndef SDB_CODES_H
#define SDB_CODES_H

#include <cstdint>

#include "sdb.h"

namespace sdb {

constexpr uint32_t kOk = 0;
constexpr uint32_t kRetry = KS_SDB_ERR_RETRY;
constexpr uint32_t kNotOpen = KS_SDB_ERR_NO_URI;
constexpr uint32_t kBadUri = KS_SDB_ERR_BAD_URI;
constexpr uint32_t kNoKey = KS_SDB_ERR_NO_KEY;

constexpr uint32_t kUnsafe = 0x411a0001;        // owner or mode of the folder or a file
constexpr uint32_t kDamaged = 0x411a0002;       // the file's structure
constexpr uint32_t kValueDamaged = 0x411a0003;  // one value
constexpr uint32_t kFull = 0x411a0004;
constexpr uint32_t kBusy = 0x411a0005;  // another writer did not finish before the deadline
constexpr uint32_t kBadArgument = 0x411a0006;
constexpr uint32_t kNoMemory = 0x411a0007;
constexpr uint32_t kSystem = 0x411a0009;  // a system call failed
constexpr uint32_t kNoIteration = 0x411a000a;
constexpr uint32_t kWrongFormat = 0x411a000b;
constexpr uint32_t kOutgrown = 0x411a000c;  // another process maps more than this one can
constexpr uint32_t kNoMoreKeys = 0x40480004;

// text_of_code returns what stands for the code in general, or null for an unknown one.
const char *text_of_code(uint32_t code);

// code_of_lmdb translates what an LMDB function returned: 0, one of LMDB's own numbers or an errno value.
uint32_t code_of_lmdb(int result);

}  // namespace sdb

#endif
