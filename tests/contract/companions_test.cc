// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Which of its exported functions the library enters on the way through each operation. A program may put a function of
// its own in the place of any of them, in front of the shared object, and then sees the calls that are promised and no
// others. This program does: each stand-in below notes its name and goes on to the library's own function.
#include <dlfcn.h>

#include "operations.h"

namespace {

std::vector<std::string> entered;

void *library() {
  static void *const handle = dlopen(KS_LIBRARY, RTLD_NOW);
  return handle;
}

}  // namespace

extern "C" __attribute__((visibility("hidden"), used)) void *note_entry(const char *name) {
  entered.emplace_back(name);
  void *own = library() == nullptr ? nullptr : dlsym(library(), name);
  if (own == nullptr) {
    fprintf(stderr, "%s: %s\n", name, dlerror());
    abort();
  }
  return own;
}

// A stand-in passes its arguments on as they are, whatever their number, and so is written for the processor: it saves
// the registers that may hold arguments, gives note_entry its name, and jumps to what that returns.
#if defined(__x86_64__)
#define STAND_IN(name)                                                                      \
  asm(".text\n.globl " #name "\n.type " #name ", @function\n" #name                         \
      ":\n"                                                                                 \
      "push %rdi; push %rsi; push %rdx; push %rcx; push %r8; push %r9; sub $8, %rsp\n"      \
      "lea 1f(%rip), %rdi; call note_entry\n"                                               \
      "add $8, %rsp; pop %r9; pop %r8; pop %rcx; pop %rdx; pop %rsi; pop %rdi; jmp *%rax\n" \
      "1: .asciz \"" #name "\"\n");
#elif defined(__i386__)
#define STAND_IN(name)                                              \
  asm(".text\n.globl " #name "\n.type " #name ", @function\n" #name \
      ":\n"                                                         \
      "sub $8, %esp; call 1f; .asciz \"" #name                      \
      "\"\n"                                                        \
      "1: call note_entry; add $12, %esp; jmp *%eax\n");
#endif

STAND_IN(kserr2str)
STAND_IN(ks_init)
STAND_IN(ks_generate_random_number)
STAND_IN(ks_generate_random_number_req)
STAND_IN(ks_generate_random_number_resp)
STAND_IN(ks_return_fw_version_and_status)
STAND_IN(ks_return_fw_version_and_status_resp)
STAND_IN(ks_compact_fw_memory)
STAND_IN(ks_compact_fw_memory_resp)
STAND_IN(ks_des_ecb_encrypt)
STAND_IN(ks_des_ecb_decrypt)
STAND_IN(ks_3des_ecb_encrypt)
STAND_IN(ks_3des_ecb_decrypt)
STAND_IN(ks_des_req)
STAND_IN(ks_des_resp)
STAND_IN(ks_aes_encrypt)
STAND_IN(ks_aes_encrypt_req)
STAND_IN(ks_aes_encrypt_resp)
STAND_IN(ks_aes_decrypt)
STAND_IN(ks_aes_decrypt_req)
STAND_IN(ks_aes_decrypt_resp)
STAND_IN(ks_aes_cbc_encrypt)
STAND_IN(ks_aes_cbc_encrypt_req)
STAND_IN(ks_aes_cbc_encrypt_resp)
STAND_IN(ks_aes_cbc_decrypt)
STAND_IN(ks_aes_cbc_decrypt_req)
STAND_IN(ks_aes_cbc_decrypt_resp)
STAND_IN(ks_md5_hash)
STAND_IN(ks_sha1_hash)
STAND_IN(ks_hash_md5_sha1_req)
STAND_IN(ks_hash_md5_sha1_resp)
STAND_IN(ks_hmac_md5)
STAND_IN(ks_hmac_sha1)
STAND_IN(ks_hmac_sha1_for_pac)
STAND_IN(ks_hmac_md5_sha1_req)
STAND_IN(ks_hmac_md5_sha1_resp)
STAND_IN(ks_GenerateNTResponse)
STAND_IN(ks_GenerateNTResponse_req)
STAND_IN(ks_GenerateNTResponse_resp)
STAND_IN(ks_GenerateAuthenticatorResponse)
STAND_IN(ks_GenerateNTAuthenticatorResponse_req)
STAND_IN(ks_GenerateNTAuthenticatorResponse_resp)
STAND_IN(ks_NewPasswordEncryptedWithOldNtPasswordHash)
STAND_IN(ks_NewPasswordEncryptedWithOldNtPasswordHash_req)
STAND_IN(ks_NewPasswordEncryptedWithOldNtPasswordHash_resp)
STAND_IN(ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash)
STAND_IN(ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash_req)
STAND_IN(ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash_resp)
STAND_IN(ks_GetMasterKey)
STAND_IN(ks_GetMasterKey_req)
STAND_IN(ks_GetMasterKey_resp)
STAND_IN(ks_store_secret_and_metadata)
STAND_IN(ks_store_secret_and_metadata_req)
STAND_IN(ks_store_secret_and_metadata_resp)
STAND_IN(ks_add_metadata)
STAND_IN(ks_add_metadata_req)
STAND_IN(ks_add_metadata_resp)
STAND_IN(ks_return_metadata)
STAND_IN(ks_return_metadata_req)
STAND_IN(ks_return_metadata_resp)
STAND_IN(ks_return_secret_handle_by_index)
STAND_IN(ks_return_secret_handle_by_index_req)
STAND_IN(ks_return_secret_handle_by_index_resp)
STAND_IN(ks_secret_exists)
STAND_IN(ks_secret_exists_req)
STAND_IN(ks_secret_exists_resp)
STAND_IN(ks_clear_secret)
STAND_IN(ks_clear_secret_req)
STAND_IN(ks_clear_secret_resp)
STAND_IN(ks_rename_secret)
STAND_IN(ks_rename_secret_req)
STAND_IN(ks_rename_secret_resp)
STAND_IN(ks_store_pac)
STAND_IN(ks_store_pac_req)
STAND_IN(ks_store_pac_resp)
STAND_IN(ks_return_pac_opaque)
STAND_IN(ks_cache_get_pac_opaque)
STAND_IN(ks_return_pac_info)
STAND_IN(ks_cache_get_pac_info)
STAND_IN(ks_pac_info_req)
STAND_IN(ks_get_pac_expiration)
STAND_IN(ks_pac_exists)
STAND_IN(ks_pac_exists_req)
STAND_IN(ks_pac_exists_resp)
STAND_IN(ks_return_aid_by_index)
STAND_IN(ks_clear_pac)
STAND_IN(ks_clear_pac_req)
STAND_IN(ks_clear_pac_resp)
STAND_IN(ks_pac_key_t_prf)
STAND_IN(ks_pac_key_t_prf_req)
STAND_IN(ks_pac_key_t_prf_resp)
STAND_IN(ks_cache_get_pac_tprf)
STAND_IN(ks_sw_pac_still_valid)
STAND_IN(ks_clear_old_pacs)
STAND_IN(ks_clear_all_pacs)
STAND_IN(ks_sdb_init)
STAND_IN(is_cache_present)
STAND_IN(sksd_sdb_read)
STAND_IN(sksd_sdb_write)
STAND_IN(sksd_sdb_delete)
STAND_IN(ks_cache_pac_write)
STAND_IN(ks_cache_read_pac)
STAND_IN(ks_cache_find_pac)
STAND_IN(ks_cache_pac_clear)
STAND_IN(ks_cache_pac_write_tprf)
STAND_IN(ks_cache_read_tprf)
STAND_IN(ks_cache_purge_all)
STAND_IN(ks_cache_purge_vdc_keys)

namespace contract {
namespace {

using scripted::Bytes;
using scripted::bytes;
using scripted::bytes_of;
using testing::ElementsAre;
using testing::ElementsAreArray;

// What an operation enters, in this order, in an exchange that succeeds. The PAC operations find no cache.
const std::map<std::string, Flow> kEnters = {
    {"ks_generate_random_number", {"ks_generate_random_number_resp"}},
    {"ks_return_fw_version_and_status", {"ks_return_fw_version_and_status_resp"}},
    {"ks_compact_fw_memory", {"ks_compact_fw_memory_resp"}},

    {"ks_des_ecb_encrypt", {"ks_des_req", "ks_des_resp"}},
    {"ks_des_ecb_decrypt", {"ks_des_req", "ks_des_resp"}},
    {"ks_3des_ecb_encrypt", {"ks_des_req", "ks_des_resp"}},
    {"ks_3des_ecb_decrypt", {"ks_des_req", "ks_des_resp"}},
    {"ks_aes_encrypt", {"ks_aes_encrypt_resp"}},
    {"ks_aes_decrypt", {"ks_aes_decrypt_resp"}},
    {"ks_aes_cbc_encrypt", {"ks_aes_cbc_encrypt_resp"}},
    {"ks_aes_cbc_decrypt", {"ks_aes_cbc_decrypt_resp"}},
    {"ks_md5_hash", {"ks_hash_md5_sha1_req", "ks_hash_md5_sha1_resp"}},
    {"ks_sha1_hash", {"ks_hash_md5_sha1_req", "ks_hash_md5_sha1_resp"}},
    {"ks_hmac_md5", {"ks_hmac_md5_sha1_resp"}},
    {"ks_hmac_sha1", {"ks_hmac_md5_sha1_resp"}},
    {"ks_hmac_sha1_for_pac", {"ks_hmac_md5_sha1_resp"}},
    {"ks_GenerateNTResponse", {"ks_GenerateNTResponse_resp"}},
    {"ks_GenerateAuthenticatorResponse", {"ks_GenerateNTAuthenticatorResponse_resp"}},
    {"ks_NewPasswordEncryptedWithOldNtPasswordHash", {"ks_NewPasswordEncryptedWithOldNtPasswordHash_resp"}},
    {"ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash", {"ks_GenerateNTAuthenticatorResponse_resp"}},
    {"ks_GetMasterKey", {"ks_GetMasterKey_resp"}},

    {"ks_store_secret_and_metadata", {"ks_store_secret_and_metadata_req"}},
    {"ks_add_metadata", {"ks_add_metadata_req"}},
    {"ks_return_metadata", {"ks_return_metadata_req", "ks_return_metadata_resp"}},
    {"ks_return_secret_handle_by_index",
     {"ks_return_secret_handle_by_index_req", "ks_return_secret_handle_by_index_resp"}},
    {"ks_secret_exists", {}},
    {"ks_clear_secret", {"ks_clear_secret_req", "ks_clear_secret_resp"}},
    {"ks_rename_secret", {}},

    {"ks_store_pac", {"ks_store_pac_req"}},
    {"ks_return_pac_opaque", {"is_cache_present", "ks_sdb_init", "ks_return_metadata_resp"}},
    {"ks_return_pac_info", {"is_cache_present", "ks_sdb_init", "ks_return_metadata_resp"}},
    {"ks_pac_exists", {"is_cache_present", "ks_sdb_init"}},
    {"ks_return_aid_by_index", {}},
    {"ks_clear_pac", {}},
    {"ks_pac_key_t_prf", {"is_cache_present", "ks_sdb_init", "ks_pac_key_t_prf_req", "ks_pac_key_t_prf_resp"}},
};

class Companions : public scripted::Test {
 protected:
  // enters gives what was entered since the last call, without `called`, which the test itself went in by.
  static Flow enters(const std::string &called) {
    Flow all = std::move(entered);
    entered.clear();
    if (all.empty() || all.front() != called) return {"not " + called};
    all.erase(all.begin());
    return all;
  }
};

TEST_F(Companions, AreThoseOfTheTable) {
  for (const Operation &operation : all_operations()) {
    SCOPED_TRACE(operation.name);
    mts.reply_with(operation.good_reply);
    EXPECT_EQ(operation.call(), KS_SUCCESS);
    ASSERT_TRUE(kEnters.contains(operation.name));
    EXPECT_THAT(enters(operation.name), ElementsAreArray(kEnters.at(operation.name)));
  }
}

TEST_F(Companions, OfStartUpAreTheOpeningOfTheCache) {
  EXPECT_EQ(ks_init(1, 2, 3), KS_SUCCESS);
  EXPECT_THAT(enters("ks_init"), ElementsAre("ks_sdb_init"));
}

const Bytes kAid = {0xa1};
const Bytes kName = bytes("31 00 00 07 a1");
// The key and the value of a PAC with both TLVs and a T-PRF result "o" to the label "l".
const Bytes kMetadata = bytes("00 02 00 01 6f  00 09 00 01 69");
const Bytes kKey = bytes(
    "01 00 00 00  31 00 00 07 a1  00 00 00 00 00 00 00 00 00 00  00 00 00 00 00 00 00 00 00 00"
    "00 00 00 00 00 00 00 00 00 00");
const Bytes kValue = bytes(
    "0a 00 00 00  0a 00 00 00  01 00  00 00 00 00  00 00  0b 00 00 00  01 00"
    "00 02 00 01 6f  00 09 00 01 69  6c 6f");

// An open cache that holds the PAC.
class CacheCompanions : public Companions {
 protected:
  CacheCompanions() {
    ks_cache_present = 1;
    strcpy(ks_cache_uri, "lmdb:///tmp/cache");
    sdb.entries[kKey] = kValue;
  }
  uint8_t *block = nullptr;
  uint16_t short_len = 0;
  uint32_t len = 0;
};

TEST_F(CacheCompanions, OfAReadAreItsHalfAndWhatThatReadsWith) {
  EXPECT_EQ(ks_return_pac_opaque(kAid.data(), 1, &block, &len), KS_SUCCESS);
  EXPECT_THAT(enters("ks_return_pac_opaque"),
              ElementsAre("is_cache_present", "ks_cache_get_pac_opaque", "ks_cache_read_pac", "sksd_sdb_read"));
  EXPECT_EQ(ks_return_pac_info(kAid.data(), 1, &block, &len), KS_SUCCESS);
  EXPECT_THAT(enters("ks_return_pac_info"),
              ElementsAre("is_cache_present", "ks_cache_get_pac_info", "ks_cache_read_pac", "sksd_sdb_read"));
  EXPECT_EQ(ks_pac_exists(kAid.data(), 1, &len), KS_SUCCESS);
  EXPECT_THAT(enters("ks_pac_exists"),
              ElementsAre("is_cache_present", "ks_cache_find_pac", "ks_cache_read_pac", "sksd_sdb_read"));
  uint8_t output[1];
  EXPECT_EQ(ks_pac_key_t_prf(kAid.data(), 1, bytes_of("l").data(), 1, nullptr, 0, output, 1), KS_SUCCESS);
  EXPECT_THAT(enters("ks_pac_key_t_prf"),
              ElementsAre("is_cache_present", "ks_cache_get_pac_tprf", "ks_cache_read_tprf", "sksd_sdb_read"));
}

TEST_F(CacheCompanions, OfAMissAreThoseOfTheKeystoreBehindIt) {
  sdb.entries.clear();
  mts.reply_with(scripted::reply(kMetadata));
  EXPECT_EQ(ks_return_pac_opaque(kAid.data(), 1, &block, &len), KS_SUCCESS);
  EXPECT_THAT(enters("ks_return_pac_opaque"),
              ElementsAre("is_cache_present", "ks_cache_get_pac_opaque", "ks_cache_read_pac", "sksd_sdb_read",
                          "ks_return_metadata_resp"));
}

TEST_F(CacheCompanions, OfAnExpirationAreThoseOfItsRead) {
  ks_get_pac_expiration(kAid.data(), 1);
  EXPECT_THAT(enters("ks_get_pac_expiration"),
              ElementsAre("ks_return_pac_info", "is_cache_present", "ks_cache_get_pac_info", "ks_cache_read_pac",
                          "sksd_sdb_read"));
}

TEST_F(CacheCompanions, OfTheWalksThatClearAreTheWalkAndTheClearing) {
  const Bytes entry = scripted::reply(kName), end = scripted::result_only(KS_NO_MORE_ENTRIES);
  mts.reply_with(entry);
  mts.reply_with(scripted::reply(kMetadata));
  mts.reply_with(scripted::result_only(KS_SUCCESS));
  mts.reply_with(end);
  EXPECT_EQ(ks_clear_old_pacs("me"), KS_SUCCESS);
  EXPECT_THAT(enters("ks_clear_old_pacs"),
              ElementsAre("ks_return_aid_by_index", "ks_sw_pac_still_valid", "ks_clear_pac", "ks_return_aid_by_index"));
  expect_undropped(2);

  mts.reply_with(entry);
  mts.reply_with(scripted::result_only(KS_SUCCESS));
  mts.reply_with(end);
  EXPECT_EQ(ks_clear_all_pacs(), KS_SUCCESS);
  EXPECT_THAT(enters("ks_clear_all_pacs"),
              ElementsAre("ks_return_aid_by_index", "ks_clear_pac", "ks_return_aid_by_index"));
}

TEST_F(CacheCompanions, OfTheCachesOwnFunctionsAreEachOtherAndTheWrappers) {
  const void *name = kName.data();
  EXPECT_EQ(ks_cache_read_pac(name, 5, &block, &short_len), KS_SUCCESS);
  EXPECT_THAT(enters("ks_cache_read_pac"), ElementsAre("sksd_sdb_read"));
  EXPECT_EQ(ks_cache_read_tprf(name, 5, "l", 1, nullptr, 0, &block, &short_len), KS_SUCCESS);
  EXPECT_THAT(enters("ks_cache_read_tprf"), ElementsAre("sksd_sdb_read"));
  EXPECT_EQ(ks_cache_find_pac(kAid.data(), 1, &len), KS_SUCCESS);
  EXPECT_THAT(enters("ks_cache_find_pac"), ElementsAre("ks_cache_read_pac", "sksd_sdb_read"));
  EXPECT_EQ(ks_cache_pac_write_tprf(name, 5, "l", 1, nullptr, 0, "o", 1), KS_SUCCESS);
  EXPECT_THAT(enters("ks_cache_pac_write_tprf"), ElementsAre("ks_cache_read_pac", "sksd_sdb_read", "ks_cache_pac_clear",
                                                             "sksd_sdb_delete", "sksd_sdb_write"));
  EXPECT_EQ(ks_cache_pac_write(name, 5, kMetadata.data(), 10), KS_SUCCESS);
  EXPECT_THAT(enters("ks_cache_pac_write"), ElementsAre("ks_cache_pac_clear", "sksd_sdb_delete", "sksd_sdb_write"));
  EXPECT_EQ(ks_cache_pac_clear(name, 5), KS_SUCCESS);
  EXPECT_THAT(enters("ks_cache_pac_clear"), ElementsAre("sksd_sdb_delete"));

  sdb.entries[kKey] = kValue;
  EXPECT_EQ(ks_cache_purge_all(), KS_SUCCESS);
  EXPECT_THAT(enters("ks_cache_purge_all"), ElementsAre("is_cache_present", "sksd_sdb_delete"));
  sdb.entries[kKey] = kValue;
  EXPECT_EQ(ks_cache_purge_vdc_keys(), KS_SUCCESS);
  EXPECT_THAT(enters("ks_cache_purge_vdc_keys"), ElementsAre("is_cache_present", "sksd_sdb_delete"));
}

}  // namespace
}  // namespace contract
