// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// docs/operating.md: the commands that it gives are run as they stand there.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "docs/page.h"
#include "service/raw_client.h"
#include "service/service_process.h"

namespace {

using ks_test::Datagram;
using ks_test::ProgramRun;
using ks_test::RawClient;
using ks_test::ServiceProcess;
using ks_test::ServiceSetup;

class OperatingPage : public testing::Test {
 protected:
  OperatingPage() : service(with_administrator()) { std::ofstream(file("passphrase")) << "correct horse\n"; }

  static ServiceSetup with_administrator() {
    ServiceSetup setup;
    const std::string users = "users = [" + std::to_string(getuid()) + "]\n";
    setup.config = "[administrators]\n" + users + "[[vdc]]\nid = 7\n" + users;
    return setup;
  }

  std::string file(const std::string &name) const { return service.folder() + "/" + name; }

  // run runs a block of the page. The names that it uses are those of the service, unless others are given.
  ProgramRun run(const std::string &block, const std::string &changed = "") const {
    static const docs::Page page("operating.md");
    const std::string setting = "set -eu; export PATH=" KS_SERVICE_DIR ":$PATH KS_SOCKET=" + service.socket() +
                                "; BACKUP=" + file("backup") + " VAULT=" + service.vault() +
                                " KEY=" + service.master_key_file() + " PASSPHRASE=" + file("passphrase") + "\n";
    return ks_test::run_program({"/bin/bash", "-c", setting + changed + "\n" + page.text("sh", block)});
  }
  void succeeds(const std::string &block, const std::string &changed = "") const {
    const ProgramRun done = run(block, changed);
    EXPECT_EQ(done.status, 0) << block << ": " << done.errors;
  }

  void store(char name) const {
    const Datagram sections{0x30, 0, 0, 7, static_cast<uint8_t>(name), 's'};
    const Datagram descriptor{5, 12, 0, 17, 1, 0, 17, 0, 0, 0, 18, 0};
    ASSERT_EQ(RawClient(service.socket()).exchange(0x10402, descriptor, sections).result(), 1u);
  }
  bool has(char name) const {
    const Datagram section{0x30, 0, 0, 7, static_cast<uint8_t>(name)};
    return RawClient(service.socket()).exchange(0x10407, {5, 2}, section).result() == 1;
  }

  ServiceProcess service;
};

TEST_F(OperatingPage, BacksUpVerifiesRestoresAndOutlivesALostKey) {
  store('a');
  succeeds("backup");
  succeeds("verify");
  store('b');
  ASSERT_EQ(service.stop(), 0);
  succeeds("restore");
  service.start();
  EXPECT_TRUE(has('a'));
  EXPECT_FALSE(has('b'));

  ASSERT_EQ(service.stop(), 0);
  std::filesystem::remove(service.master_key_file());
  succeeds("lost-key");
  std::filesystem::rename(service.master_key_file() + ".new", service.master_key_file());
  service.start();
  EXPECT_TRUE(has('a'));
}

TEST_F(OperatingPage, MovesAVaultToAnotherMachine) {
  store('a');
  ASSERT_EQ(service.stop(), 0);
  succeeds("move-here");
  std::filesystem::create_directory(file("there"));
  std::filesystem::copy_file(service.vault(), file("there/vault.db"));
  succeeds("move-there", "VAULT=" + file("there/vault.db") + " KEY=" + file("there/master.key"));
}

TEST_F(OperatingPage, ChangesTheMasterKey) {
  store('a');
  succeeds("rekey");
  service.restart();
  EXPECT_TRUE(has('a'));
}

}  // namespace
