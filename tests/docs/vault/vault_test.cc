// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// docs/vault-format.md against a real daemon, without any of its code: what is made by the page, the daemon opens; what
// the daemon writes opens by the page.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sodium.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include "docs/page.h"
#include "service/raw_client.h"
#include "service/service_process.h"

namespace {

using docs::Octets;
using docs::Pattern;
using ks_test::RawClient;
using ks_test::ServiceProcess;

constexpr size_t kNonceSize = 24;
constexpr size_t kTagSize = 16;
constexpr uint32_t kSuccess = 1;

const docs::Page page("vault-format.md");

// Database is a SQLite database, for short statements.
class Database {
 public:
  explicit Database(const std::string &path) {
    sqlite3 *db = nullptr;
    sqlite3_open(path.c_str(), &db);
    db_.reset(db);
  }

  // run binds `values` in their order and gives the first row's columns as bytes, numbers as their digits.
  std::vector<Octets> run(const std::string &sql, const std::vector<Octets> &values = {}) {
    sqlite3_stmt *statement = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(db_.get(), sql.c_str(), -1, &statement, nullptr), SQLITE_OK) << sql;
    const std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> owned(statement, sqlite3_finalize);
    int place = 0;
    for (const Octets &value : values) {
      sqlite3_bind_blob(statement, ++place, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
    }
    std::vector<Octets> columns;
    if (sqlite3_step(statement) != SQLITE_ROW) return columns;
    for (int i = 0; i < sqlite3_column_count(statement); ++i) {
      const auto *data = static_cast<const uint8_t *>(sqlite3_column_blob(statement, i));
      columns.emplace_back(data, data + sqlite3_column_bytes(statement, i));
    }
    return columns;
  }
  std::string text(const std::string &sql) {
    const std::vector<Octets> row = run(sql);
    return row.empty() ? "" : std::string(row[0].begin(), row[0].end());
  }
  void script(const std::string &sql) {
    EXPECT_EQ(sqlite3_exec(db_.get(), sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sql;
  }

 private:
  std::unique_ptr<sqlite3, decltype(&sqlite3_close)> db_{nullptr, sqlite3_close};
};

void write_file(const std::string &path, const Octets &content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char *>(content.data()), static_cast<std::streamsize>(content.size()));
  ASSERT_EQ(chmod(path.c_str(), 0600), 0);
}

// begin_anew leaves a stopped service without a vault, and with the page's master key.
void begin_anew(ServiceProcess &service) {
  service.stop();
  std::filesystem::remove(service.vault());
  for (const char *beside : {"-wal", "-witness"}) std::filesystem::remove(service.vault() + beside);
  write_file(service.master_key_file(), page.filled("master-key"));
}

Octets derive(uint64_t number, size_t length) {
  Octets key(length);
  crypto_kdf_derive_from_key(key.data(), length, number, "ksdvault", page.filled("master-key").data());
  return key;
}

// open gives what was sealed, or nothing.
Octets open(const Octets &sealed, const Octets &associated) {
  if (sealed.size() < kNonceSize + kTagSize) return {};
  Octets plain(sealed.size() - kNonceSize - kTagSize);
  const int refused = crypto_aead_xchacha20poly1305_ietf_decrypt(
      plain.data(), nullptr, nullptr, sealed.data() + kNonceSize, sealed.size() - kNonceSize, associated.data(),
      associated.size(), sealed.data(), derive(1, 32).data());
  return refused == 0 ? plain : Octets();
}

// with_vault_id puts a vault's own id in the place of the page's.
Octets with_vault_id(Octets associated, const Octets &vault_id) {
  std::copy(vault_id.begin(), vault_id.end(), associated.begin() + 2);
  return associated;
}

// run_ksctl runs ksctl with the page's passphrase on descriptor 9, and gives its errors.
std::string run_ksctl(const std::string &arguments) {
  const ks_test::ProgramRun run =
      ks_test::run_program({"/bin/bash", "-c", "exec 9<<<'correct horse'; exec " KS_SERVICE_DIR "/ksctl " + arguments});
  EXPECT_EQ(run.status, 0) << run.errors;
  return run.errors;
}

// key_by_page makes a key of the page's passphrase.
Octets key_by_page(const Octets &parameters) {
  const auto number = [&](size_t at) {
    return size_t{parameters.at(at)} | size_t{parameters.at(at + 1)} << 8 | size_t{parameters.at(at + 2)} << 16;
  };
  Octets key(32);
  const std::string passphrase = "correct horse";
  EXPECT_EQ(crypto_pwhash(key.data(), key.size(), passphrase.data(), passphrase.size(), &parameters.at(8), number(0),
                          number(4) * 1024, crypto_pwhash_ALG_ARGON2ID13),
            0);
  return key;
}

// open_backup gives the stream of a backup of one part, or nothing.
Octets open_backup(const Octets &backup) {
  if (backup.size() < 60 + 17) return {};
  const Octets key = key_by_page({backup.begin() + 12, backup.begin() + 36});
  crypto_secretstream_xchacha20poly1305_state state;
  crypto_secretstream_xchacha20poly1305_init_pull(&state, &backup[36], key.data());
  Octets plain(backup.size() - 60 - 17);
  unsigned char tag = 0;
  const int refused = crypto_secretstream_xchacha20poly1305_pull(&state, plain.data(), nullptr, &tag, &backup[60],
                                                                 backup.size() - 60, backup.data(), 36);
  return refused == 0 && tag == crypto_secretstream_xchacha20poly1305_TAG_FINAL ? plain : Octets();
}

Octets joined(const std::vector<Octets> &parts) {
  Octets all;
  for (const Octets &one : parts) all.insert(all.end(), one.begin(), one.end());
  return all;
}

Octets read_file(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

Octets mark_of(const Octets &row_and_version) {
  Octets mark(32);
  const Octets key = derive(2, 32);
  crypto_generichash(mark.data(), mark.size(), row_and_version.data(), row_and_version.size(), key.data(), key.size());
  return mark;
}

Octets part(const Octets &whole, size_t from, size_t length) {
  const auto begin = whole.begin() + static_cast<ptrdiff_t>(from);
  return {begin, begin + static_cast<ptrdiff_t>(length)};
}

std::string without_blanks(std::string text) {
  std::erase_if(text, [](char c) { return c == ' ' || c == '\n'; });
  return text;
}

// Those of the wire names "wifi" and "home", in VDC 7.
Octets named(const std::string &name) {
  Octets wire = {0x30, 0, 0, 7};
  wire.insert(wire.end(), name.begin(), name.end());
  return wire;
}

// make_vault_of_page makes the vault of the examples, with a witness of `version`.
void make_vault_of_page(const ServiceProcess &service, uint8_t version) {
  Database db(service.vault());
  db.script(page.text("sql", "vault-schema"));
  db.run("INSERT INTO vault VALUES (1, ?, ?, ?)",
         {page.filled("key-id"), page.filled("vault-id"), page.filled("sealed-header")});
  db.run("INSERT INTO entry VALUES (1, ?)", {page.filled("sealed-entry")});
  Octets what = page.filled("vault-id");
  what.insert(what.end(), {version, 0, 0, 0, 0, 0, 0, 0});
  const Octets key = derive(4, 32);
  Octets witness(1024);
  witness[512] = version;
  crypto_generichash(&witness[520], 32, what.data(), what.size(), key.data(), key.size());
  if (version == 1) {
    EXPECT_EQ(part(witness, 512, 40), page.filled("witness-slot"));
  }
  write_file(service.vault() + "-witness", witness);
}

TEST(VaultPage, DerivesItsKeysFromItsMasterKey) {
  EXPECT_EQ(derive(1, 32), page.bytes("seal-key"));
  EXPECT_EQ(derive(2, 32), page.bytes("mark-key"));
  EXPECT_EQ(derive(3, 16), page.bytes("key-id"));
}

TEST(VaultPage, SealsItsRecordsAsItSays) {
  EXPECT_EQ(open(page.filled("sealed-header"), page.filled("header-associated-data")), page.bytes("header"));
  EXPECT_EQ(open(page.filled("sealed-entry"), page.filled("entry-associated-data")), page.bytes("entry"));
  EXPECT_EQ(mark_of({1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}), page.bytes("mark"));
  EXPECT_EQ(part(page.filled("header"), 24, 32), page.bytes("mark"));
}

TEST(VaultPage, MakesAVaultThatTheDaemonOpens) {
  ServiceProcess service;
  begin_anew(service);
  make_vault_of_page(service, 1);
  service.start();

  RawClient client(service.socket());
  const auto metadata = client.exchange(66567, {8, 2}, named("home"));
  EXPECT_EQ(metadata.data(), Octets({'c', 'h', 'a', 'n', 'n', 'e', 'l', ' ', '1', '1'}));
  // The MD5 digest of "a", "correct horse" and "b", made by another implementation.
  Octets sections = named("wifi");
  sections.insert(sections.end(), {'a', 'b'});
  const auto digest = client.exchange(66583, {8, 10, 1, 0, 18, 0, 1, 0, 19, 0}, sections);
  EXPECT_EQ(digest.data(), Pattern("f7 ac c3 03 fc b9 67 f0 b4 bf e4 75 2c 34 39 10"));
}

TEST(VaultPage, OpensWhatTheDaemonWrites) {
  ServiceProcess service;
  begin_anew(service);
  service.start();
  Octets sections = named("wifi");
  for (const Octets &section : {named("home"), part(page.filled("entry"), 38, 23)}) {
    sections.insert(sections.end(), section.begin(), section.end());
  }
  ASSERT_EQ(RawClient(service.socket()).exchange(66562, {8, 12, 8, 20, 13, 0, 28, 0, 10, 0, 41, 0}, sections).result(),
            kSuccess);
  ASSERT_EQ(service.stop(), 0);

  Database db(service.vault());
  const std::vector<Octets> vault = db.run("SELECT key_id, vault_id, header FROM vault");
  ASSERT_EQ(vault.size(), 3u);
  EXPECT_EQ(vault[0], page.bytes("key-id"));
  ASSERT_EQ(vault[1].size(), 16u);
  EXPECT_EQ(open(vault[2], with_vault_id(page.filled("header-associated-data"), vault[1])), page.bytes("header"));
  const std::vector<Octets> entry = db.run("SELECT sealed FROM entry WHERE id = 1");
  ASSERT_EQ(entry.size(), 1u);
  EXPECT_EQ(open(entry[0], with_vault_id(page.filled("entry-associated-data"), vault[1])),
            page.bytes("entry").with_any(8, 4))  // of whoever runs the test
      << "row 1";
}

TEST(VaultPage, ShowsTheWitnessAndItsKey) {
  EXPECT_EQ(derive(4, 32), page.filled("witness-key"));
  ServiceProcess service;
  begin_anew(service);
  make_vault_of_page(service, 1);
  service.start();
  EXPECT_EQ(service.stop(), 0);
}

TEST(VaultPage, TellsWhenTheWitnessIsAheadOfTheVault) {
  ServiceProcess service;
  begin_anew(service);
  make_vault_of_page(service, 2);
  EXPECT_THROW(service.start(), std::runtime_error);
}

TEST(VaultPage, SealsTheNextMasterKeyUnderThePresentOne) {
  EXPECT_EQ(open(page.filled("sealed-next-key"), page.filled("next-key-associated-data")),
            page.bytes("next-master-key"));
  Octets id(16);
  crypto_kdf_derive_from_key(id.data(), id.size(), 3, "ksdvault", page.filled("next-master-key").data());
  EXPECT_EQ(id, page.bytes("next-key-id"));
}

// A daemon that finds the page's change begun ends it: the page's next key is in the place of the page's key then.
TEST(VaultPage, BeginsAChangeOfKeysThatTheDaemonEnds) {
  ServiceProcess service;
  begin_anew(service);
  make_vault_of_page(service, 1);
  {
    Database db(service.vault());
    db.run("INSERT INTO key_change VALUES (1, ?, ?, 0)", {page.filled("next-key-id"), page.filled("sealed-next-key")});
  }
  service.start();
  RawClient client(service.socket());
  while (read_file(service.master_key_file()) != page.filled("next-master-key")) {
    ASSERT_EQ(client.exchange(66593, {}).result(), kSuccess);  // it serves meanwhile
  }
  service.stop();
  EXPECT_EQ(Database(service.vault()).run("SELECT key_id FROM vault").at(0), page.filled("next-key-id"));
  EXPECT_TRUE(Database(service.vault()).run("SELECT * FROM key_change").empty());
  service.start();
  EXPECT_EQ(RawClient(service.socket()).exchange(66567, {8, 2}, named("home")).result(), kSuccess);
}

TEST(VaultPage, OpensAVaultOfTheFirstSchema) {
  ServiceProcess service;
  begin_anew(service);
  make_vault_of_page(service, 1);
  Database(service.vault()).script("DROP TABLE key_change; PRAGMA user_version = 1");
  service.start();
  EXPECT_EQ(RawClient(service.socket()).exchange(66567, {8, 2}, named("home")).result(), kSuccess);
  service.stop();
  EXPECT_EQ(Database(service.vault()).text("PRAGMA user_version"), "1") << "it is served as it is";
  run_ksctl("vault migrate --vault " + service.vault() + " --master-key-file " + service.master_key_file());
  EXPECT_EQ(Database(service.vault()).text("PRAGMA user_version"), "2");
  service.start();
  EXPECT_EQ(RawClient(service.socket()).exchange(66567, {8, 2}, named("home")).result(), kSuccess);
}

TEST(BackupPage, MakesItsKeyOfItsPassphrase) {
  EXPECT_EQ(key_by_page(page.filled("passphrase-parameters")), page.filled("passphrase-key"));
}

TEST(BackupPage, IsSealedAsItSays) {
  const Octets body = joined({page.filled("backup-head"), page.filled("backup-entry-head"), page.filled("entry")});
  EXPECT_EQ(open_backup(page.filled("backup")), joined({body, page.filled("backup-trailer")}));
  Octets hash(32);
  crypto_generichash(hash.data(), hash.size(), body.data(), body.size(), nullptr, 0);
  EXPECT_EQ(part(page.filled("backup-trailer"), 16, 32), hash);
}

TEST(BackupPage, MakesABackupThatIsRestored) {
  ServiceProcess service;
  begin_anew(service);
  const std::string file = service.folder() + "/backup";
  write_file(file, page.filled("backup"));
  run_ksctl("restore " + file + " --vault " + service.vault() + " --master-key-file " + service.master_key_file() +
            " --passphrase-fd 9");
  service.start();
  const auto metadata = RawClient(service.socket()).exchange(66567, {8, 2}, named("home"));
  EXPECT_EQ(metadata.data(), Octets({'c', 'h', 'a', 'n', 'n', 'e', 'l', ' ', '1', '1'}));
}

TEST(BackupPage, OpensABackupThatWasMade) {
  ks_test::ServiceSetup setup;
  setup.config = "[administrators]\nusers = [" + std::to_string(getuid()) + "]\n[[vdc]]\nid = 7\nusers = []\n";
  ServiceProcess service(setup);
  begin_anew(service);
  make_vault_of_page(service, 1);
  service.start();
  const std::string file = service.folder() + "/backup";
  run_ksctl("--socket " + service.socket() + " backup " + file + " --passphrase-fd 9 --passphrase-cost interactive");
  const Octets backup = read_file(file), stream = open_backup(backup);
  EXPECT_EQ(part(backup, 0, 12), part(page.filled("backup"), 0, 12));
  EXPECT_EQ(backup.size(), page.filled("backup").size());
  ASSERT_EQ(stream.size(), 48 + 12 + 61 + 48u);
  EXPECT_EQ(part(stream, 8, 113),
            part(joined({page.filled("backup-head"), page.filled("backup-entry-head"), page.filled("entry")}), 8, 113))
      << "but for the time";
  EXPECT_EQ(part(stream, 121, 16), part(page.filled("backup-trailer"), 0, 16));
}

TEST(SealedKeyPage, IsTheMasterKeyUnderThePassphrase) {
  ServiceProcess service;
  begin_anew(service);
  const std::string text = page.text("text", "sealed-master-key"), file = service.folder() + "/sealed";
  write_file(file, {text.begin(), text.end()});
  const std::string moved = service.folder() + "/moved.key";
  run_ksctl("vault import-key " + file + " --master-key-file " + moved + " --passphrase-fd 9");
  EXPECT_EQ(read_file(moved), page.filled("master-key"));

  Octets sealed(100);
  size_t size = 0;
  const std::string digits = text.substr(text.find('\n'), text.rfind("-----END") - text.find('\n'));
  ASSERT_EQ(sodium_base642bin(sealed.data(), sealed.size(), digits.data(), digits.size(), "\n", &size, nullptr,
                              sodium_base64_VARIANT_ORIGINAL),
            0);
  ASSERT_EQ(size, 100u);
  EXPECT_EQ(part(sealed, 0, 4), Octets({'k', 's', 'k', '1'}));
  Octets key(32);
  EXPECT_EQ(
      crypto_secretbox_open_easy(key.data(), &sealed[52], 48, &sealed[28], key_by_page(part(sealed, 4, 24)).data()), 0);
  EXPECT_EQ(key, page.filled("master-key"));
}

TEST(VaultPage, ShowsTheDaemonsSchema) {
  ServiceProcess service;
  service.stop();
  Database of_daemon(service.vault());
  Database of_page(":memory:");
  of_page.script(page.text("sql", "vault-schema"));
  const std::string tables = "SELECT group_concat(sql, ';') FROM (SELECT sql FROM sqlite_schema ORDER BY name)";
  EXPECT_EQ(without_blanks(of_daemon.text(tables)), without_blanks(of_page.text(tables)));
  for (const char *number : {"application_id", "user_version", "auto_vacuum"}) {
    const std::string pragma = std::string("PRAGMA ") + number;
    EXPECT_EQ(of_daemon.text(pragma), of_page.text(pragma)) << number;
  }
}

}  // namespace
