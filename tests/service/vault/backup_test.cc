// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Backups: what is in one, and what is said of one that isn't as it was made.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sodium.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <future>
#include <thread>

#include "vault/restore.h"
#include "vault_files/backup_files.h"

namespace ksd::vault {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

class Backup : public testing::Test {
 protected:
  Backup() { disk.skip_syncs(); }

  std::string verify_refusal(const std::string &content, std::string_view passphrase = kPassphrase) const {
    const UniqueFd file = file_of(content);
    return refusal_of([&] { verify_backup(file.get(), "b", bytes_of(passphrase), kNoProgress); });
  }

  // restored gives the vault that a backup becomes, in a folder of its own.
  std::unique_ptr<Vault> restored(const std::string &content) const {
    restore(content, target);
    return target.open();
  }

  Disk disk;
  Folder folder, target;
};

using RestoredVault = Backup;

uint8_t *octets_of(std::string &text) {
  return reinterpret_cast<uint8_t *>(text.data());
}

TEST_F(Backup, HoldsEachEntryWithItsNamesOwnerAndPlace) {
  const auto vault = folder.open();
  put(*vault, "gone", "x");
  put(*vault, "b", "secret b", "meta b", 1001);
  vault->put(secret_name("a"), secret_name("alias"), bytes_of("secret a"), bytes_of(""), 1002);
  vault->put({KS_NAME_TAG_PAC, 3, std::string("\0\xff", 2)}, std::nullopt, bytes_of(""), bytes_of("meta"), 1003);
  vault->remove(secret_name("gone"));
  put(*vault, "b", "other", "meta b", 1001);
  const std::string backup = backup_of(*vault);

  const auto copy = restored(backup);
  EXPECT_THAT(names_in(*copy), ElementsAre("b", "a", std::string("\0\xff", 2)));
  EXPECT_EQ(secret_in(*copy, secret_name("b")), "other");
  EXPECT_EQ(metadata_in(*copy, secret_name("b")), "meta b");
  EXPECT_EQ(secret_in(*copy, secret_name("alias")), "secret a");
  EXPECT_EQ(metadata_in(*copy, {KS_NAME_TAG_PAC, 3, std::string("\0\xff", 2)}), "meta");
  copy->use_limits({.entries_per_user = 1});
  EXPECT_EQ(put(*copy, "c", "x", "", 1001), KS_STORE_FULL) << "entries belong to whom they belonged";
  EXPECT_EQ(put(*copy, "c", "x", "", 1004), KS_SUCCESS);
  EXPECT_EQ(names_in(*copy).back(), "c");
}

TEST_F(Backup, OfAnEmptyVaultIsAVaultWithoutEntries) {
  const std::string backup = backup_of(*folder.open());
  EXPECT_EQ(restored(backup)->count(), 0u);
}

TEST_F(Backup, HoldsEntriesOfAnyLengthOverAnyNumberOfParts) {
  const auto vault = folder.open();
  for (size_t i = 0; i < 24; ++i) {
    put(*vault, std::to_string(i), std::string(i * 2731, 's'), std::string((23 - i) * 2731, 'm'));
  }
  const std::string backup = backup_of(*vault);
  EXPECT_GT(backup.size(), 1'000'000u);
  const auto copy = restored(backup);
  for (size_t i = 0; i < 24; ++i) {
    EXPECT_EQ(secret_in(*copy, secret_name(std::to_string(i))), std::string(i * 2731, 's'));
    EXPECT_EQ(metadata_in(*copy, secret_name(std::to_string(i))), std::string((23 - i) * 2731, 'm'));
  }
}

// The lengths around which the last part becomes full, and one more is begun.
TEST_F(Backup, EndsWhereAPartEnds) {
  constexpr size_t kBesideMetadata = 48 + 12 + 22 + 5 + 1 + 48;  // head, entry's head, entry, trailer
  for (const size_t size : {kBackupPartSize - 49, kBackupPartSize - 1, kBackupPartSize, kBackupPartSize + 1}) {
    SCOPED_TRACE(size);
    const Folder own;
    const auto vault = own.open();
    put(*vault, "a", "s", std::string(size - kBesideMetadata, 'm'));
    const std::string backup = backup_of(*vault);
    EXPECT_EQ(backup.size(), 60 + size + 17 * (1 + (size > kBackupPartSize)));
    EXPECT_EQ(verify_refusal(backup), "(nothing)");
    EXPECT_THAT(verify_refusal(backup + "x"), StartsWith("b: "));
    if (size != kBackupPartSize) continue;
    EXPECT_THAT(verify_refusal(backup + "x"), HasSubstr("goes on behind its end"));
  }
}

TEST_F(Backup, SaysWhatItIsOnceItIsOpen) {
  const auto vault = folder.open();
  put(*vault, "a", "x");
  put(*vault, "a", "y");
  const UniqueFd file = file_of(backup_of(*vault, 1234567890));
  const BackupContents contents = verify_backup(file.get(), "b", bytes_of(kPassphrase), kNoProgress);
  EXPECT_EQ(contents.time, 1234567890u);
  EXPECT_EQ(contents.entry_count, 1u);
  EXPECT_EQ(contents.last_id, 1u);
  EXPECT_EQ(contents.last_version, 2u);
}

TEST_F(Backup, KeepsNothingReadable) {
  const auto vault = folder.open();
  put(*vault, "a-name", "a-secret", "some-metadata");
  const std::string backup = backup_of(*vault);
  for (const char *text : {"a-name", "a-secret", "some-metadata"}) EXPECT_EQ(backup.find(text), backup.npos) << text;
}

TEST_F(Backup, IsRefusedWithAnotherPassphrase) {
  const std::string backup = backup_of(*folder.open());
  for (const std::string_view other : {"", "passphras", "passphrase "}) {
    EXPECT_EQ(verify_refusal(backup, other), "b: doesn't open: the passphrase is another one, or the file is damaged");
  }
}

TEST_F(Backup, IsRefusedWithAnyByteFlipped) {
  const auto vault = folder.open();
  put(*vault, "a", "secret", "metadata");
  const std::string whole = backup_of(*vault);
  for (size_t at = 0; at < whole.size(); ++at) {
    SCOPED_TRACE(at);
    std::string damaged = whole;
    damaged[at] = static_cast<char>(damaged[at] ^ 1);
    EXPECT_THAT(verify_refusal(damaged), StartsWith("b: "));
  }
  EXPECT_EQ(verify_refusal(whole), "(nothing)");
}

TEST_F(Backup, IsRefusedCutAnywhere) {
  const auto vault = folder.open();
  put(*vault, "a", "secret", std::string(200, 'm'));
  const std::string whole = backup_of(*vault);
  for (size_t size = 0; size < whole.size(); ++size) {
    SCOPED_TRACE(size);
    const std::string refusal = verify_refusal(whole.substr(0, size));
    EXPECT_THAT(refusal, StartsWith("b: "));
    EXPECT_EQ(refusal.starts_with("b: isn't a backup of ksd"), size < kBackupOpeningSize) << refusal;
  }
}

// What it says at its end, sealed as it ought to be: somebody has the passphrase, or made the file with another
// program.
TEST_F(Backup, IsRefusedWhenItsEndDoesntAgreeWithTheRest) {
  const auto vault = folder.open();
  put(*vault, "a", "secret", "metadata");
  const std::string whole = backup_of(*vault);
  BackupOpening opening;
  std::copy_n(whole.begin(), opening.size(), opening.begin());
  const auto key = key_of_passphrase(bytes_of(kPassphrase), *parameters_in(opening));
  std::array<uint8_t, crypto_secretstream_xchacha20poly1305_HEADERBYTES> header;
  std::copy_n(whole.begin() + kBackupOpeningSize, header.size(), header.begin());
  const std::vector<uint8_t> sealed = bytes_of(whole.substr(opening.size() + header.size()));
  std::string plain(sealed.size() - crypto_secretstream_xchacha20poly1305_ABYTES, 0);
  crypto_secretstream_xchacha20poly1305_state state;
  ASSERT_EQ(crypto_secretstream_xchacha20poly1305_init_pull(&state, header.data(), key->bytes().data()), 0);
  ASSERT_EQ(crypto_secretstream_xchacha20poly1305_pull(&state, octets_of(plain), nullptr, nullptr, sealed.data(),
                                                       sealed.size(), opening.data(), opening.size()),
            0);
  const auto sealed_again = [&](std::string content) {
    std::string parts(sealed.size(), 0);
    crypto_secretstream_xchacha20poly1305_init_push(&state, header.data(), key->bytes().data());
    crypto_secretstream_xchacha20poly1305_push(&state, octets_of(parts), nullptr, octets_of(content), content.size(),
                                               opening.data(), opening.size(),
                                               crypto_secretstream_xchacha20poly1305_TAG_FINAL);
    return whole.substr(0, opening.size()) + std::string(header.begin(), header.end()) + parts;
  };
  EXPECT_EQ(verify_refusal(sealed_again(plain)), "(nothing)");
  constexpr size_t kTrailerSize = 8 + 8 + 32;
  for (size_t at = plain.size() - kTrailerSize; at < plain.size(); ++at) {
    SCOPED_TRACE(at);
    std::string other = plain;
    other[at] = static_cast<char>(other[at] ^ 1);
    EXPECT_THAT(verify_refusal(sealed_again(other)), HasSubstr("is damaged or cut"));
  }
}

TEST_F(Backup, IsRefusedWithPartsMissingExchangedOrAdded) {
  const auto vault = folder.open();
  for (int i = 0; i < 4; ++i) put(*vault, std::to_string(i), "s", std::string(60000, 'm'));
  const std::string whole = backup_of(*vault);
  const auto part = [&](size_t number) { return whole.substr(60 + number * kSealedPartSize, kSealedPartSize); };
  const std::string opening = whole.substr(0, 60), rest = whole.substr(60 + 3 * kSealedPartSize);
  EXPECT_EQ(verify_refusal(opening + part(0) + part(1) + part(2) + rest), "(nothing)");
  EXPECT_THAT(verify_refusal(opening + part(0) + part(2) + rest), HasSubstr("is damaged or cut before byte "));
  EXPECT_THAT(verify_refusal(opening + part(1) + part(0) + part(2) + rest), HasSubstr("another one, or the file"));
  EXPECT_THAT(verify_refusal(opening + part(0) + part(2) + part(1) + rest), HasSubstr("is damaged or cut"));
  EXPECT_THAT(verify_refusal(opening + part(0) + part(1) + part(2)), HasSubstr("is damaged or cut"));
  EXPECT_THAT(verify_refusal(whole + "x"), HasSubstr("is damaged or cut"));
}

TEST_F(Backup, IsRefusedByWordsThatTellWhatTheFileIs) {
  const std::string whole = backup_of(*folder.open());
  EXPECT_THAT(verify_refusal("no backup at all"), HasSubstr("isn't a backup of ksd"));
  std::string newer = whole;
  newer[8] = 3;
  EXPECT_THAT(verify_refusal(newer), HasSubstr("is a backup of version 3, but this program knows versions 1 and 2"));
  std::string costly = whole;
  costly[15] = 127;
  EXPECT_THAT(verify_refusal(costly), HasSubstr("isn't a backup of ksd")) << "and nobody computes for a year";
  const UniqueFd folder_itself(open(folder.path().c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_THAT(refusal_of([&] { verify_backup(folder_itself.get(), "b", bytes_of("x"), kNoProgress); }),
              StartsWith("b: can't be read: "));
}

TEST_F(Backup, TellsHowFarReadingHasCome) {
  const auto vault = folder.open();
  for (int i = 0; i < 3; ++i) put(*vault, std::to_string(i), "s");
  std::vector<uint64_t> told;
  const UniqueFd file = file_of(backup_of(*vault));
  verify_backup(file.get(), "b", bytes_of(kPassphrase), [&](uint64_t done, uint64_t all) {
    told.push_back(done);
    EXPECT_EQ(all, 3u);
  });
  EXPECT_THAT(told, ElementsAre(1, 2, 3));
}

// Everything that was answered before the snapshot is in it, and nothing half of what was under way.
TEST_F(Backup, MadeWhileOthersStoreHoldsWhatWasAnsweredAndNothingTorn) {
  const auto vault = folder.open();
  std::atomic<int> answered{0};
  std::jthread storing([&](const std::stop_token &done) {
    for (int i = 0; !done.stop_requested(); ++i) {
      const std::string text = std::to_string(i);
      ASSERT_EQ(vault->put(secret_name("n" + std::to_string(i % 50)), std::nullopt, bytes_of(text), bytes_of(text), 1),
                KS_SUCCESS);
      answered = i;
    }
  });
  for (int round = 0; round < 8; ++round) {
    while (answered < round * 60) std::this_thread::yield();
    const int before = answered;
    Folder other;
    restore(backup_of(*vault), other);
    const auto copy = other.open();
    for (int n = 0; n < std::min(50, before + 1); ++n) {
      const EntryName name = secret_name("n" + std::to_string(n));
      EXPECT_EQ(secret_in(*copy, name), metadata_in(*copy, name));
      EXPECT_GE(std::atoi(secret_in(*copy, name).c_str()), before - 50) << "n" << n;
    }
  }
}

TEST_F(Backup, LetsGoOfEachEntryAsItIsSealed) {
  const auto vault = folder.open();
  for (int i = 0; i < 10; ++i) put(*vault, std::to_string(i), "s", std::string(60000, 'm'));
  const size_t before = guarded_memory_use().used_slots;
  const std::shared_ptr<SecretBytes> key = SecretBytes::allocate(32);
  BackupWriter writer(vault->snapshot(), 0, *key, {});
  for (int i = 0; i < 10; ++i) vault->remove(secret_name(std::to_string(i)));
  std::vector<uint8_t> part(kSealedPartSize);
  const size_t held = guarded_memory_use().used_slots;
  for (int i = 0; i < 12; ++i) writer.next(part.data());
  EXPECT_LT(guarded_memory_use().used_slots, held - 4);
  while (writer.next(part.data()) != 0) {
  }
  EXPECT_LE(guarded_memory_use().used_slots, before);
}

TEST_F(RestoredVault, OpensWithoutAnyComplaintAndGoesOn) {
  const auto vault = folder.open();
  put(*vault, "a", "x");
  restore(backup_of(*vault), target);
  const std::string witness = read_file(target.witness());
  EXPECT_EQ(witness.size(), 1024u);
  EXPECT_EQ(witness[0], 1) << "it tells of the version that was restored";
  EXPECT_FALSE(std::filesystem::exists(target.log()));
  for (const std::string &file : {target.vault(), target.key(), target.witness()}) {
    struct stat info {};
    ASSERT_EQ(stat(file.c_str(), &info), 0) << file;
    EXPECT_EQ(info.st_mode & 07777, 0600u) << file;
  }
  target.open();
  EXPECT_EQ(read_file(target.witness()), witness) << "it isn't made anew";
  put(*target.open(), "b", "y");
  EXPECT_THAT(names_in(*target.open()), ElementsAre("a", "b"));
}

TEST_F(RestoredVault, IsAnotherVaultThanTheOneItCameFrom) {
  const auto vault = folder.open();
  put(*vault, "a", "x");
  restore(backup_of(*vault), target);
  EXPECT_NE(read_file(target.key()), read_file(folder.key())) << "a key was drawn";
  Folder same_key;
  std::filesystem::copy_file(folder.key(), same_key.key());
  restore(backup_of(*vault), same_key);
  EXPECT_EQ(secret_in(*same_key.open(), secret_name("a")), "x");
  EXPECT_NE(read_file(same_key.vault()).substr(4096), read_file(folder.vault()).substr(4096));
}

TEST_F(RestoredVault, TakesThePlaceOfTheOldOneWhichIsKept) {
  const std::string backup = [&] {
    const auto vault = folder.open();
    put(*vault, "a", "x");
    return backup_of(*vault);
  }();
  put(*folder.open(), "later", "y");
  const std::string old_vault = read_file(folder.vault()), old_witness = read_file(folder.witness());
  write_file(folder.log(), "an old log");
  const Restored restored = restore(backup, folder);
  EXPECT_FALSE(restored.made_key);
  EXPECT_EQ(restored.kept, folder.vault() + "-before-restore-1");
  EXPECT_EQ(read_file(restored.kept + "/vault.db"), old_vault);
  EXPECT_EQ(read_file(restored.kept + "/vault.db-witness"), old_witness);
  EXPECT_EQ(read_file(restored.kept + "/vault.db-wal"), "an old log");
  EXPECT_THAT(names_in(*folder.open()), ElementsAre("a"));
  EXPECT_EQ(restore(backup, folder).kept, folder.vault() + "-before-restore-2");
  EXPECT_FALSE(std::filesystem::exists(folder.vault() + "-restore"));
  EXPECT_FALSE(std::filesystem::exists(folder.vault() + "-restore.new"));
}

TEST_F(RestoredVault, LeavesEverythingAsItWasWhenTheBackupIsRefused) {
  std::string backup;
  {
    const auto vault = folder.open();
    put(*vault, "a", "x", std::string(60000, 'm'));
    backup = backup_of(*vault);
  }
  const auto state_of = [&](const Folder &of) {
    std::vector<std::string> files;
    for (const auto &file : std::filesystem::directory_iterator(of.path())) {
      files.push_back(file.path().string() + (file.is_regular_file() ? read_file(file.path()) : ""));
    }
    std::sort(files.begin(), files.end());
    return files;
  };
  std::string damaged = backup;
  damaged[40000] = static_cast<char>(damaged[40000] ^ 1);
  const auto before = state_of(folder);
  for (const auto &given :
       {std::pair(backup, "wrong"), {damaged, "passphrase"}, {backup.substr(0, 50000), "passphrase"}}) {
    EXPECT_THAT(refusal_of([&] { restore(given.first, folder, given.second); }), StartsWith("b: "));
    EXPECT_EQ(state_of(folder), before);
    EXPECT_THAT(refusal_of([&] { restore(given.first, target, given.second); }), StartsWith("b: "));
    EXPECT_FALSE(std::filesystem::exists(target.vault()));
    EXPECT_FALSE(std::filesystem::exists(target.key()));
  }
}

TEST_F(RestoredVault, IsNotMadeWhileAServiceHoldsTheOldOne) {
  const auto vault = folder.open();
  put(*vault, "a", "x");
  const std::string backup = backup_of(*vault);
  EXPECT_THAT(refusal_of([&] { restore(backup, folder); }), HasSubstr("in use by another process"));
  EXPECT_EQ(vault->count(), 1u);
}

TEST_F(RestoredVault, IsNotMadeWhereOthersMayWriteOrThereIsNoFolder) {
  const std::string backup = backup_of(*folder.open());
  chmod(target.path().c_str(), 0777);
  EXPECT_THAT(refusal_of([&] { restore(backup, target); }), HasSubstr("run: chmod go-w " + target.path()));
  RestoreOptions nowhere = restore_options(target);
  nowhere.vault = target.path() + "/none/vault.db";
  chmod(target.path().c_str(), 0700);
  const UniqueFd file = file_of(backup);
  EXPECT_THAT(refusal_of([&] { restore_backup(file.get(), "b", bytes_of(kPassphrase), nowhere, kNoProgress); }),
              HasSubstr("folder " + target.path() + "/none: No such file"));
}

TEST_F(RestoredVault, HasItsWitnessWhereItIsToldTo) {
  const auto vault = folder.open();
  put(*vault, "a", "x");
  RestoreOptions options = restore_options(target);
  options.witness = target.path() + "/elsewhere";
  const UniqueFd file = file_of(backup_of(*vault));
  restore_backup(file.get(), "b", bytes_of(kPassphrase), options, kNoProgress);
  EXPECT_EQ(read_file(options.witness).size(), 1024u);
  EXPECT_FALSE(std::filesystem::exists(target.witness()));
}

TEST_F(RestoredVault, MayHaveAKeyThatIsSealedUnderAPassphrase) {
  const auto vault = folder.open();
  put(*vault, "a", "x");
  RestoreOptions options = restore_options(target);
  options.master_key.passphrase = SecretBytes::copy_of(bytes_of("of the key"));
  const UniqueFd file = file_of(backup_of(*vault));
  restore_backup(file.get(), "b", bytes_of(kPassphrase), options, kNoProgress);
  EXPECT_THAT(read_file(target.key()), StartsWith("-----BEGIN KS MASTER KEY-----\n"));
  VaultOptions opening = target.options();
  EXPECT_THAT(refusal_of([&] { open_vault(opening); }), HasSubstr("give it with --passphrase-fd"));
  opening.passphrase = SecretBytes::copy_of(bytes_of("of the key"));
  EXPECT_EQ(open_vault(opening)->count(), 1u);
}

}  // namespace
}  // namespace ksd::vault
