// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Commands about the vault: backups of a running service, restoring, and its master key.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "content_of.h"
#include "ksctl.h"
#include "service/raw_client.h"

namespace {

using ks_test::content_of;
using ks_test::Datagram;
using ks_test::ksctl;
using ks_test::ProgramRun;
using ks_test::RawClient;
using ks_test::run_program;
using ks_test::ServiceProcess;
using ks_test::ServiceSetup;
using ks_test::with_administrator;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr uint32_t kBeginBackup = 16, kNextPart = 17;
constexpr uint32_t kSuccess = 1, kInvalidArgs = 3, kNotFound = 5, kTimeout = 8;

constexpr char kCheaply[] = " --passphrase-fd 9 --passphrase-cost interactive";

// store stores "secret NAME" in VDC 7.
void store(const ServiceProcess &service, char name) {
  const Datagram sections{0x30, 0, 0, 7, static_cast<uint8_t>(name), 's'};
  ASSERT_EQ(RawClient(service.socket()).exchange(0x10402, {5, 12, 0, 17, 1, 0, 17, 0, 0, 0, 18, 0}, sections).result(),
            kSuccess);
}

bool exists(const ServiceProcess &service, char name) {
  const Datagram name_section{0x30, 0, 0, 7, static_cast<uint8_t>(name)};
  return RawClient(service.socket()).exchange(0x10407, {5, 2}, name_section).result() == kSuccess;
}

// with_passphrase runs ksctl with a passphrase on descriptor 9.
ProgramRun with_passphrase(const std::string &passphrase, const std::string &socket, const std::string &arguments) {
  return run_program(
      {"/bin/bash", "-c",
       "exec 9<<<'" + passphrase + "'; exec " + ks_test::kKsctl + " --socket " + socket + " " + arguments});
}

class KsctlVault : public testing::Test {
 protected:
  KsctlVault() : service(with_administrator()) {}

  ProgramRun run(const std::string &arguments, const std::string &passphrase = "correct horse") const {
    return with_passphrase(passphrase, service.socket(), arguments);
  }
  std::string file(const std::string &name) const { return service.folder() + "/" + name; }
  std::string places() const {
    return " --vault " + service.vault() + " --master-key-file " + service.master_key_file();
  }

  ServiceProcess service;
};

TEST_F(KsctlVault, BacksUpARunningServiceAndRestoresIt) {
  store(service, 'a');
  const ProgramRun made = run("--json backup " + file("b") + kCheaply);
  ASSERT_EQ(made.status, 0) << made.errors;
  EXPECT_THAT(made.output, StartsWith("{\"file\":\"" + file("b") + "\",\"entries\":1,\"version\":1,\"bytes\":"));
  struct stat info {};
  ASSERT_EQ(stat(file("b").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);
  EXPECT_THAT(service.log(), HasSubstr("user " + std::to_string(getuid()) + " (pid "));
  EXPECT_THAT(service.log(), HasSubstr(") takes a backup of 1 entries"));
  store(service, 'b');

  EXPECT_EQ(run("restore " + file("b") + places() + " --passphrase-fd 9").status, 1) << "a service has it open";
  ASSERT_EQ(service.stop(), 0);
  const ProgramRun restored = run("--json restore " + file("b") + places() + " --passphrase-fd 9");
  ASSERT_EQ(restored.status, 0) << restored.errors;
  EXPECT_THAT(restored.output, HasSubstr("\"made_key\":false,\"kept\":\"" + service.vault() + "-before-restore-1\"}"));
  service.start();
  EXPECT_TRUE(exists(service, 'a'));
  EXPECT_FALSE(exists(service, 'b'));
  EXPECT_THAT(service.log(), Not(HasSubstr("warning"))) << "the daemon starts without complaint";
}

TEST_F(KsctlVault, VerifiesABackupAndRestoresNothing) {
  ASSERT_EQ(run("backup " + file("b") + kCheaply).status, 0);
  const ProgramRun verified = run("--json restore " + file("b") + " --verify --passphrase-fd 9");
  EXPECT_EQ(verified.status, 0) << verified.errors;
  EXPECT_THAT(verified.output, HasSubstr("\"entries\":0,\"version\":0,\"made_at\":"));
  const ProgramRun wrong = run("restore " + file("b") + " --verify --passphrase-fd 9", "another");
  EXPECT_EQ(wrong.status, 1);
  EXPECT_THAT(wrong.errors, HasSubstr(file("b") + ": doesn't open: the passphrase is another one"));
  EXPECT_EQ(run("restore " + file("b") + " --passphrase-fd 9").status, 2);
  EXPECT_EQ(run("restore " + file("none") + " --verify --passphrase-fd 9").status, 3);
}

TEST_F(KsctlVault, NeverWritesABackupOverAFile) {
  std::ofstream(file("b")) << "dear";
  const ProgramRun made = run("backup " + file("b") + kCheaply);
  EXPECT_EQ(made.status, 7);
  EXPECT_THAT(made.errors, HasSubstr(file("b") + ": is there already"));
  EXPECT_EQ(content_of(file("b")), "dear");
  EXPECT_EQ(run("backup " + file("none/b") + kCheaply).status, 1);
}

TEST_F(KsctlVault, LeavesNothingOfABackupWhoseServiceGoes) {
  const ProgramRun made = with_passphrase("x", file("no-socket"), "backup " + file("b") + " --passphrase-fd 9");
  EXPECT_EQ(made.status, 5);
  EXPECT_FALSE(std::filesystem::exists(file("b")));
  EXPECT_FALSE(std::filesystem::exists(file("b.part")));
}

TEST_F(KsctlVault, ChecksAVaultThatNoServiceHas) {
  store(service, 'a');
  service.kill();
  const ProgramRun in_use = run("vault check" + places());
  EXPECT_EQ(in_use.status, 0) << in_use.errors;
  EXPECT_THAT(in_use.output, HasSubstr("entries\t1\nversion\t1\nschema\t2\nclosed_in_order\tno\n"));
  service.start();
  EXPECT_EQ(run("vault check" + places()).status, 1) << "a service has it open";
  ASSERT_EQ(service.stop(), 0);
  EXPECT_THAT(run("vault check" + places()).output, HasSubstr("closed_in_order\tyes\n"));
  EXPECT_FALSE(std::filesystem::exists(service.vault() + "-wal"));
  std::string bytes = content_of(service.vault());
  char &of_entry = bytes[bytes.size() - 4096 - 10];  // behind the page of the entries comes that of key changes
  of_entry = static_cast<char>(of_entry ^ 1);
  std::ofstream(service.vault(), std::ios::binary) << bytes;
  const ProgramRun damaged = run("vault check" + places());
  EXPECT_EQ(damaged.status, 1);
  EXPECT_THAT(damaged.errors, HasSubstr(service.vault() + ": the vault is damaged ("));
}

TEST_F(KsctlVault, ChangesTheMasterKeyWhileTheServiceGoesOn) {
  store(service, 'a');
  const std::string before = content_of(service.master_key_file());
  const ProgramRun changed = run("--json vault rekey");
  EXPECT_EQ(changed.status, 0) << changed.errors;
  EXPECT_EQ(changed.output, "{\"entries\":1,\"needs_restart\":false}\n");
  const std::string after = content_of(service.master_key_file());
  EXPECT_EQ(after.size(), 32u);
  EXPECT_NE(after, before);
  store(service, 'b');
  service.restart();
  EXPECT_TRUE(exists(service, 'a') && exists(service, 'b'));
  const ProgramRun with_file = run("vault rekey --new-key-file " + file("next"));
  EXPECT_EQ(with_file.status, 7);
  EXPECT_FALSE(std::filesystem::exists(file("next")));
}

TEST_F(KsctlVault, MovesAMasterKeyUnderAPassphrase) {
  const ProgramRun exported =
      run("vault export-key " + file("k") + " --master-key-file " + service.master_key_file() + kCheaply);
  ASSERT_EQ(exported.status, 0) << exported.errors;
  EXPECT_THAT(content_of(file("k")), StartsWith("-----BEGIN KS MASTER KEY-----\n"));
  EXPECT_THAT(content_of(file("k")), Not(HasSubstr(content_of(service.master_key_file()))));
  const ProgramRun wrong =
      run("vault import-key " + file("k") + " --master-key-file " + file("moved") + " --passphrase-fd 9", "wrong");
  EXPECT_EQ(wrong.status, 1);
  EXPECT_FALSE(std::filesystem::exists(file("moved")));
  ASSERT_EQ(run("vault import-key " + file("k") + " --master-key-file " + file("moved") + " --passphrase-fd 9").status,
            0);
  EXPECT_EQ(content_of(file("moved")), content_of(service.master_key_file()));
  EXPECT_EQ(run("vault import-key " + file("k") + " --master-key-file " + file("moved") + " --passphrase-fd 9").status,
            7);
}

TEST(BackupMessage, IsRefusedInAnotherShapeAndWithoutABeginning) {
  const ServiceProcess service(with_administrator());
  RawClient client(service.socket());
  EXPECT_EQ(client.exchange(kBeginBackup, Datagram(67)).result(), kInvalidArgs);
  EXPECT_EQ(client.exchange(kBeginBackup, Datagram(68), {0}).result(), kInvalidArgs);
  EXPECT_EQ(client.exchange(kNextPart, {}).result(), kNotFound);
  EXPECT_EQ(client.exchange(kBeginBackup, Datagram(68)).result(), kSuccess);
  EXPECT_EQ(client.exchange(kNextPart, {0}).result(), kInvalidArgs);
  EXPECT_EQ(client.exchange(kNextPart, {}).data().size(), 96u + 17) << "head and trailer, and the seal";
  EXPECT_EQ(client.exchange(kNextPart, {}).data().size(), 0u);
  EXPECT_EQ(client.exchange(kNextPart, {}).result(), kNotFound);
}

TEST(BackupMessage, IsAnsweredToAFewAtATime) {
  const ServiceProcess service(with_administrator());
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < 4; ++i) {
    clients.push_back(std::make_unique<RawClient>(service.socket()));
    EXPECT_EQ(clients.back()->exchange(kBeginBackup, Datagram(68)).result(), kSuccess);
    EXPECT_EQ(clients.back()->exchange(kBeginBackup, Datagram(68)).result(), kSuccess) << "in the place of its own";
  }
  RawClient another(service.socket());
  EXPECT_EQ(another.exchange(kBeginBackup, Datagram(68)).result(), kTimeout);
  while (!clients[0]->exchange(kNextPart, {}).data().empty()) {
  }
  EXPECT_EQ(another.exchange(kBeginBackup, Datagram(68)).result(), kSuccess) << "one was read to its end";
  EXPECT_EQ(clients[0]->exchange(kBeginBackup, Datagram(68)).result(), kTimeout);
}

TEST(BackupMessage, EndsABackupThatIsNotReadOn) {
  ServiceSetup setup = with_administrator();
  setup.config.insert(setup.config.find("[service]\n") + 10, "receive_limit_ms = 50\n");
  const ServiceProcess service(setup);
  RawClient client(service.socket());
  ASSERT_EQ(client.exchange(kBeginBackup, Datagram(68)).result(), kSuccess);
  RawClient another(service.socket());
  while (service.log().find("left its backup unread; it was ended") == std::string::npos) {
    ASSERT_EQ(another.exchange(66593, {}).result(), kSuccess);  // nobody else is held up
  }
  EXPECT_EQ(client.exchange(kNextPart, {}).result(), kNotFound) << "the connection goes on";
}

// run_with_host_key runs a command of systemd-creds where nothing of the machine's own is changed: its key is made and
// kept in memory.
ProgramRun run_with_host_key(const std::string &commands) {
  return run_program(
      {"/usr/bin/unshare", "--mount", "/bin/bash", "-c", "set -e; mount -t tmpfs none /var/lib/systemd; " + commands});
}

// The key as systemd hands it over, sealed under the host's key on disk; and another one in its place, which a change
// of the master key moves the vault to.
TEST(SystemdCredential, IsTheMasterKeyAndIsChanged) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root, for a host key of its own";
  if (access("/usr/bin/systemd-creds", X_OK) != 0) GTEST_SKIP() << "systemd-creds isn't installed";
  const ks_test::TemporaryFolder folder;
  const std::string key = folder.path() + "/key", credential = folder.path() + "/key.cred",
                    handed_over = folder.path() + "/master-key";
  std::ofstream(key) << std::string(32, 'k');
  const auto hand_over = [&](const std::string &from) {
    std::filesystem::remove(handed_over);
    return run_with_host_key("cd " + folder.path() + "; systemd-creds encrypt --with-key=host --name=master-key " +
                             from + " " + credential + "; systemd-creds decrypt --name=master-key " + credential + " " +
                             handed_over);
  };
  if (const ProgramRun run = hand_over(key); run.status != 0) GTEST_SKIP() << "no host key here: " << run.errors;

  ServiceSetup setup = with_administrator();
  setup.environment = {"CREDENTIALS_DIRECTORY=" + folder.path()};
  // Without --master-key-file and its value.
  setup.wrapper = {"/bin/bash", "-c", R"(exec "${@:1:5}" "${@:8}")", "bash"};
  ServiceProcess service(setup);
  store(service, 'a');
  EXPECT_THAT(content_of(credential), Not(HasSubstr(std::string(32, 'k'))));

  EXPECT_EQ(ksctl(service.socket(), {"vault", "rekey"}).status, 2) << "somebody has to put the next one there";
  const std::string next = folder.path() + "/next";
  const ProgramRun changed = ksctl(service.socket(), {"--json", "vault", "rekey", "--new-key-file", next});
  EXPECT_EQ(changed.output, "{\"entries\":1,\"needs_restart\":true}\n") << changed.errors;
  service.restart();
  EXPECT_TRUE(exists(service, 'a')) << "the key before opens it still";
  EXPECT_EQ(service.stop(), 0);
  ASSERT_EQ(hand_over(next).status, 0);
  service.start();
  EXPECT_TRUE(exists(service, 'a'));
  EXPECT_EQ(service.stop(), 0);
  ASSERT_EQ(hand_over(key).status, 0);
  EXPECT_THROW(service.start(), std::runtime_error);
  EXPECT_THAT(service.log(), HasSubstr("belongs to another master key"));
}

// A key that is sealed in its file opens with the passphrase alone.
TEST(PassphraseAtStart, OpensTheKeyAndNothingElseDoes) {
  ServiceSetup setup = with_administrator();
  setup.wrapper = {"/bin/bash", "-c", "exec 9<<<'correct horse'; exec \"$@\"", "bash"};
  setup.arguments = {"--passphrase-fd", "9"};
  ServiceProcess service(setup);
  EXPECT_THAT(content_of(service.master_key_file()), StartsWith("-----BEGIN KS MASTER KEY-----\n"));
  store(service, 'a');
  ASSERT_EQ(service.stop(), 0);
  const auto start_with = [&](const std::string &passphrase) {
    return run_program({"/bin/bash", "-c",
                        "exec 9<<<'" + passphrase + "'; exec " KS_SERVICE_DIR "/ksd --config " + service.folder() +
                            "/ksd.toml --vault " + service.vault() + " --master-key-file " + service.master_key_file() +
                            " --socket " + service.socket() + " --passphrase-fd 9" +
                            (geteuid() == 0 ? " --allow-root" : "")});
  };
  const ProgramRun wrong = start_with("another");
  EXPECT_EQ(wrong.status, 1);
  EXPECT_THAT(wrong.errors, HasSubstr(service.master_key_file() + ": the master key doesn't open: the passphrase is"));
  EXPECT_EQ(start_with("").status, 1);
  service.start();
  EXPECT_TRUE(exists(service, 'a'));
  const ProgramRun changed = ksctl(service.socket(), {"vault", "rekey"});
  EXPECT_EQ(changed.status, 0) << changed.errors;
  EXPECT_THAT(content_of(service.master_key_file()), StartsWith("-----BEGIN KS MASTER KEY-----\n"))
      << "the next one is sealed alike";
  service.restart();
  EXPECT_TRUE(exists(service, 'a'));
}

}  // namespace
