// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What the built library is as a file: its name, what it needs, what it exports, how it is hardened.
#include <cstdio>
#include <sstream>

#include "scripted.h"

KS_EXTERN_C int ks_used_from_c99(void);

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;
using testing::UnorderedElementsAreArray;

std::string output_of(const std::string &command) {
  FILE *pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return "";
  std::string out;
  char buffer[4096];
  while (const size_t got = fread(buffer, 1, sizeof buffer, pipe)) out.append(buffer, got);
  EXPECT_EQ(pclose(pipe), 0) << command;
  return out;
}

std::vector<std::string> lines_of(const std::string &command) {
  std::istringstream in(output_of(command));
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

class Header : public scripted::Test {};

TEST_F(Header, ServesC99Programs) {
  EXPECT_EQ(ks_used_from_c99(), 1);
}

class Library : public testing::Test {
 protected:
  const std::string library = KS_LIBRARY;
};

TEST_F(Library, ExportsTheInterfaceAndNothingElse) {
  const std::vector<std::string> interface = {"ks_init",
                                              "kserr2str",
                                              "ks_mts_q",
                                              "vdc_id",
                                              "app_uuid",
                                              "ks_cache_present",
                                              "ks_cache_uri",
                                              "ks_generate_random_number",
                                              "ks_generate_random_number_req",
                                              "ks_generate_random_number_resp",
                                              "ks_return_fw_version_and_status",
                                              "ks_return_fw_version_and_status_resp",
                                              "ks_compact_fw_memory",
                                              "ks_compact_fw_memory_resp",
                                              "ks_des_ecb_encrypt",
                                              "ks_des_ecb_decrypt",
                                              "ks_3des_ecb_encrypt",
                                              "ks_3des_ecb_decrypt",
                                              "ks_des_req",
                                              "ks_des_resp",
                                              "ks_aes_encrypt",
                                              "ks_aes_encrypt_req",
                                              "ks_aes_encrypt_resp",
                                              "ks_aes_decrypt",
                                              "ks_aes_decrypt_req",
                                              "ks_aes_decrypt_resp",
                                              "ks_aes_cbc_encrypt",
                                              "ks_aes_cbc_encrypt_req",
                                              "ks_aes_cbc_encrypt_resp",
                                              "ks_aes_cbc_decrypt",
                                              "ks_aes_cbc_decrypt_req",
                                              "ks_aes_cbc_decrypt_resp",
                                              "ks_md5_hash",
                                              "ks_sha1_hash",
                                              "ks_hash_md5_sha1_req",
                                              "ks_hash_md5_sha1_resp",
                                              "ks_hmac_md5",
                                              "ks_hmac_sha1",
                                              "ks_hmac_sha1_for_pac",
                                              "ks_hmac_md5_sha1_req",
                                              "ks_hmac_md5_sha1_resp",
                                              "ks_GenerateNTResponse",
                                              "ks_GenerateNTResponse_req",
                                              "ks_GenerateNTResponse_resp",
                                              "ks_GenerateAuthenticatorResponse",
                                              "ks_GenerateNTAuthenticatorResponse_req",
                                              "ks_GenerateNTAuthenticatorResponse_resp",
                                              "ks_NewPasswordEncryptedWithOldNtPasswordHash",
                                              "ks_NewPasswordEncryptedWithOldNtPasswordHash_req",
                                              "ks_NewPasswordEncryptedWithOldNtPasswordHash_resp",
                                              "ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash",
                                              "ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash_req",
                                              "ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash_resp",
                                              "ks_GetMasterKey",
                                              "ks_GetMasterKey_req",
                                              "ks_GetMasterKey_resp",
                                              "ks_store_secret_and_metadata",
                                              "ks_store_secret_and_metadata_req",
                                              "ks_store_secret_and_metadata_resp",
                                              "ks_add_metadata",
                                              "ks_add_metadata_req",
                                              "ks_add_metadata_resp",
                                              "ks_return_metadata",
                                              "ks_return_metadata_req",
                                              "ks_return_metadata_resp",
                                              "ks_return_secret_handle_by_index",
                                              "ks_return_secret_handle_by_index_req",
                                              "ks_return_secret_handle_by_index_resp",
                                              "ks_secret_exists",
                                              "ks_secret_exists_req",
                                              "ks_secret_exists_resp",
                                              "ks_clear_secret",
                                              "ks_clear_secret_req",
                                              "ks_clear_secret_resp",
                                              "ks_rename_secret",
                                              "ks_rename_secret_req",
                                              "ks_rename_secret_resp",
                                              "ks_store_pac",
                                              "ks_store_pac_req",
                                              "ks_store_pac_resp",
                                              "ks_return_pac_opaque",
                                              "ks_cache_get_pac_opaque",
                                              "ks_return_pac_info",
                                              "ks_cache_get_pac_info",
                                              "ks_pac_info_req",
                                              "ks_get_pac_expiration",
                                              "ks_pac_exists",
                                              "ks_pac_exists_req",
                                              "ks_pac_exists_resp",
                                              "ks_return_aid_by_index",
                                              "ks_clear_pac",
                                              "ks_clear_pac_req",
                                              "ks_clear_pac_resp",
                                              "ks_pac_key_t_prf",
                                              "ks_pac_key_t_prf_req",
                                              "ks_pac_key_t_prf_resp",
                                              "ks_cache_get_pac_tprf",
                                              "ks_sw_pac_still_valid",
                                              "ks_clear_old_pacs",
                                              "ks_clear_all_pacs",
                                              "ks_sdb_init",
                                              "is_cache_present",
                                              "sksd_sdb_read",
                                              "sksd_sdb_write",
                                              "sksd_sdb_delete",
                                              "ks_cache_pac_write",
                                              "ks_cache_read_pac",
                                              "ks_cache_find_pac",
                                              "ks_cache_pac_clear",
                                              "ks_cache_pac_write_tprf",
                                              "ks_cache_read_tprf",
                                              "ks_cache_purge_all",
                                              "ks_cache_purge_vdc_keys"};
  std::vector<std::string> exported;
  for (const std::string &line : lines_of("nm -D --defined-only " + library)) {
    std::istringstream in(line);
    std::string address, kind, name;
    in >> address >> kind >> name;
    if (kind == "A") continue;  // the version node itself
    EXPECT_THAT(name, HasSubstr("@@KS_1")) << "not under the version node";
    exported.push_back(name.substr(0, name.find('@')));
  }
  EXPECT_THAT(exported, UnorderedElementsAreArray(interface));
}

TEST_F(Library, NeedsLibcAndThePlatformOnly) {
  EXPECT_THAT(lines_of("readelf -dW " + library + " | sed -nE 's/.*NEEDED.*\\[(.*)\\]/\\1/p'"),
              UnorderedElementsAre("libmts.so.1", "libsdwrap.so.1", "libsysmgr.so.1", "libsdb.so.1", "libc.so.6"));
}

TEST_F(Library, BearsItsVersionedName) {
  EXPECT_THAT(output_of("readelf -dW " + library), HasSubstr("soname: [libks.so.1]"));
}

TEST_F(Library, IsHardened) {
  const std::string dynamic = output_of("readelf -dW " + library);
  EXPECT_THAT(dynamic, HasSubstr("BIND_NOW"));
  EXPECT_THAT(dynamic, Not(HasSubstr("TEXTREL")));
  const std::string segments = output_of("readelf -lW " + library);
  EXPECT_THAT(segments, HasSubstr("GNU_RELRO"));
  EXPECT_THAT(segments, Not(HasSubstr("RWE")));
  EXPECT_THAT(output_of("nm -D --undefined-only " + library), HasSubstr("__stack_chk_fail"));
}

TEST_F(Library, RunsNothingOnLoading) {
  // The C runtime's own two entries are there in every library; none of our objects brings another.
  EXPECT_THAT(output_of("readelf -SW " + library.substr(0, library.rfind(".so")) + ".a"),
              Not(HasSubstr(".init_array")));
}

TEST_F(Library, StaysUnder100KiBStripped) {
  const std::string stripped = testing::TempDir() + "libks_stripped.so";
  output_of("strip -o " + stripped + " " + library);
  const auto size = std::stol(output_of("stat -c %s " + stripped));
  EXPECT_LT(size, 100 * 1024);
  remove(stripped.c_str());
}

}  // namespace
