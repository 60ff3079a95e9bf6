// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What passes between a command and the service, recorded: whole but for secrets, and without a mark on either side.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>

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
using ks_test::with_administrator;
using testing::AllOf;
using testing::ContainsRegex;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

uint32_t number_at(const std::string &bytes, size_t at) {
  uint32_t number = 0;
  if (at + 4 <= bytes.size()) std::memcpy(&number, bytes.data() + at, 4);
  return number;
}

// Captured is a datagram of a capture, with what stands in front of it.
struct Captured {
  bool reply = false;
  uint32_t pid = 0;
  uint32_t connection = 0;
  uint32_t opcode = 0;
  std::string datagram;
};

// read_capture takes a file apart by the format's own description; what isn't whole at its end is an error.
std::vector<Captured> read_capture(const std::string &path) {
  const std::string bytes = content_of(path);
  EXPECT_THAT(bytes,
              StartsWith(std::string("\x0a\x0d\x0d\x0a\x1c\0\0\0\x4d\x3c\x2b\x1a\1\0\0\0"
                                     "\xff\xff\xff\xff\xff\xff\xff\xff\x1c\0\0\0"
                                     "\1\0\0\0\x20\0\0\0\x93\0\0\0\0\0\0\0\x09\0\1\0\x09\0\0\0\0\0\0\0\x20\0\0\0",
                                     60)));
  std::vector<Captured> all;
  size_t at = 60;
  while (at < bytes.size()) {
    const size_t size = number_at(bytes, at + 4);
    const size_t packet = number_at(bytes, at + 20);
    if (number_at(bytes, at) != 6 || size < 48 || at + size > bytes.size() || packet + 32 > size ||
        number_at(bytes, at + size - 4) != size || number_at(bytes, at + 24) != packet) {
      ADD_FAILURE() << "no whole block at " << at;
      break;
    }
    Captured captured;
    captured.reply = bytes[at + 29] == 1;
    captured.pid = number_at(bytes, at + 32);
    captured.connection = number_at(bytes, at + 36);
    captured.datagram = bytes.substr(at + 44, packet - 16);
    EXPECT_EQ(bytes[at + 28], 1);
    EXPECT_EQ(number_at(bytes, at + 40), captured.datagram.size());
    captured.opcode = number_at(captured.datagram, 8);
    all.push_back(captured);
    at += size;
  }
  return all;
}

class KsctlCapture : public testing::Test {
 protected:
  std::string file() const { return service_.folder() + "/capture"; }
  ProgramRun capture(std::vector<std::string> command) const {
    command.insert(command.begin(), {"capture", file(), "--"});
    return ksctl(service_.socket(), command);
  }
  // Of a shell's commands, in which $EXAMPLES is where the examples are.
  ProgramRun capture_shell(const std::string &commands) const {
    return capture({"/bin/sh", "-ec", "EXAMPLES=" KS_SERVICE_DIR "/examples; " + commands});
  }

  ServiceProcess service_{with_administrator()};
};

TEST_F(KsctlCapture, RecordsRequestsAndRepliesInTheirOrder) {
  const ProgramRun run = capture_shell("$EXAMPLES/secrets store");

  EXPECT_EQ(run.status, 0) << run.errors;
  std::vector<Captured> stored;
  for (const Captured &captured : read_capture(file())) {
    if (captured.opcode == 66562) stored.push_back(captured);
  }
  ASSERT_THAT(stored, SizeIs(6));
  for (size_t i = 0; i < stored.size(); ++i) EXPECT_EQ(stored[i].reply, i % 2 == 1);
  EXPECT_EQ(stored[0].connection, stored[5].connection);
  EXPECT_NE(stored[0].pid, 0u);
  // The name, "correct horse battery staple" struck out, and the metadata.
  EXPECT_THAT(stored[0].datagram, HasSubstr(std::string("0\0\0\7wifi-psk****************************ssid=attic", 49)));
  EXPECT_EQ(stored[1].datagram.substr(32), std::string("\1\0\0\0", 4));
}

TEST_F(KsctlCapture, WritesForThisUserAlone) {
  capture({"/bin/true"});

  struct stat status {};
  ASSERT_EQ(stat(file().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(KsctlCapture, LeavesNothingBehindButTheFile) {
  const std::string temporary = service_.folder() + "/tmp";
  ASSERT_EQ(mkdir(temporary.c_str(), 0700), 0);

  run_program({"/usr/bin/env", "TMPDIR=" + temporary, ks_test::kKsctl, "--socket", service_.socket(), "capture", file(),
               "--", "/bin/sh", "-c", "test -S $KS_SOCKET"});

  EXPECT_TRUE(std::filesystem::is_empty(temporary));
}

TEST_F(KsctlCapture, ShowsTheCommandTheServicesGates) {
  EXPECT_EQ(capture_shell("cmp $KS_SOCKET.state " + service_.state_page()).status, 0);
}

TEST_F(KsctlCapture, RecordsAllProcessesOfTheCommand) {
  const ProgramRun run = capture_shell("$EXAMPLES/secrets store >/dev/null & $EXAMPLES/device >/dev/null & wait");

  EXPECT_EQ(run.status, 0) << run.errors;
  std::map<uint32_t, int> by_pid;
  for (const Captured &captured : read_capture(file())) ++by_pid[captured.pid];
  EXPECT_THAT(by_pid, SizeIs(2));
}

TEST_F(KsctlCapture, TellsHowTheCommandEnded) {
  const ProgramRun run = capture_shell("exit 3");

  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.errors, HasSubstr("ksctl: /bin/sh: ended with status 3; " + file() + " holds 0 datagrams of it\n"));
}

TEST_F(KsctlCapture, KeepsAFileThatIsThere) {
  std::ofstream(file()) << "precious";

  const ProgramRun run = capture({"/bin/true"});

  EXPECT_EQ(run.status, 7);
  EXPECT_EQ(content_of(file()), "precious");
}

TEST_F(KsctlCapture, RefusesACommandWithAnothersRights) {
  const std::string program = service_.folder() + "/elevated";
  std::filesystem::copy_file("/bin/true", program);
  ASSERT_EQ(chmod(program.c_str(), 04755), 0);

  const ProgramRun run = capture({program});

  EXPECT_EQ(run.status, 4);
  EXPECT_THAT(run.errors, StartsWith("ksctl: " + program + ": runs with another's rights"));
  EXPECT_FALSE(std::filesystem::exists(file()));
}

TEST_F(KsctlCapture, SaysThatThereIsNoService) {
  const ProgramRun run = ksctl("/nowhere/socket", {"capture", file(), "--", "/bin/true"});

  EXPECT_EQ(run.status, 5);
  EXPECT_FALSE(std::filesystem::exists(file()));
}

TEST_F(KsctlCapture, SaysThatTheCommandCannotBeRun) {
  const ProgramRun run = capture({"/nowhere/command"});

  EXPECT_EQ(run.status, 2);
  EXPECT_THAT(run.errors, StartsWith("ksctl: /nowhere/command: can't be run: No such file or directory"));
  EXPECT_FALSE(std::filesystem::exists(file()));
}

TEST_F(KsctlCapture, IsReadableAsFarAsItGoesWhenItIsKilled) {
  run_program({ks_test::kKsctl, "--socket", service_.socket(), "capture", file(), "--", "/bin/sh", "-c",
               KS_SERVICE_DIR "/examples/secrets store >&2; echo stored; read never <&1"},
              [](pid_t pid, const std::string &) { kill(pid, SIGKILL); });

  EXPECT_THAT(read_capture(file()), SizeIs(testing::Ge(8u)));
}

// A file that may not grow is like one whose disk is full.
TEST_F(KsctlCapture, LetsTheCommandGoOnWhenTheDiskIsFull) {
  const ProgramRun run = run_program({"/usr/bin/prlimit", "--fsize=800:", ks_test::kKsctl, "--socket",
                                      service_.socket(), "capture", file(), "--", "/bin/sh", "-c",
                                      "ulimit -S -f $(ulimit -H -f); KS=" KS_SERVICE_DIR
                                      "/examples; $KS/secrets store >/dev/null && $KS/secrets list"});

  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.output, HasSubstr("backup-key"));
  EXPECT_THAT(run.errors, HasSubstr("File too large; recording has stopped, and the command goes on\n"));
  EXPECT_THAT(run.errors, ContainsRegex("File too large; [0-9]+ datagrams are in it, [0-9]+ are not"));
  EXPECT_THAT(read_capture(file()), Not(IsEmpty()));
}

TEST_F(KsctlCapture, EndsTheExchangesOfAServiceThatIsKilled) {
  const ProgramRun run = capture_shell("$EXAMPLES/device >/dev/null; kill -9 " + std::to_string(service_.pid()) +
                                       "; ! $EXAMPLES/device >/dev/null 2>&1");

  EXPECT_EQ(run.status, 0) << run.errors;
}

// ---- Secrets.

// A part of a request: where its length and its offset stand in the descriptor, and what it holds.
struct Part {
  size_t length_at, length_width, offset_at, offset_width;
  std::string bytes;
};

const std::string kSecretName("0\0\0\7shown-name", 14);
const std::string kPacName("1\0\0\7shown-aid", 13);
const std::string kPlanted = "PLANTEDPLANTEDPLANTEDPLANTEDPLAN";

void put(Datagram &bytes, size_t at, size_t width, size_t value) {
  for (size_t i = 0; i < width; ++i) bytes[at + i] = static_cast<uint8_t>(value >> 8 * i);
}

// A descriptor whose reserved bytes hold what a program happened to have there, and its sections.
std::pair<Datagram, Datagram> request_of(size_t size, const std::vector<Part> &parts) {
  Datagram descriptor(kPlanted.begin(), kPlanted.begin() + static_cast<ptrdiff_t>(std::min<size_t>(size, 32)));
  descriptor.resize(size);
  Datagram sections;
  for (const Part &part : parts) {
    put(descriptor, part.length_at, part.length_width, part.bytes.size());
    put(descriptor, part.offset_at, part.offset_width, size + sections.size());
    sections.insert(sections.end(), part.bytes.begin(), part.bytes.end());
  }
  return {descriptor, sections};
}

Part name(const std::string &bytes = kSecretName) {
  return {0, 1, 1, 1, bytes};
}

// Run by the tests below as the command that is captured.
TEST(AClient, DISABLED_SendsEveryMessage) {
  RawClient client(getenv("KS_SOCKET"));
  client.hello();
  client.exchange(2, {});
  const auto send = [&client](uint32_t opcode, size_t size, const std::vector<Part> &parts) {
    const auto [descriptor, sections] = request_of(size, parts);
    return client.exchange(opcode, descriptor, sections).result();
  };
  EXPECT_EQ(client.exchange(66561, {4, 'P', 'L', 'A', 0, 0, 0, 0}).result(), 1u);
  EXPECT_EQ(send(66562, 12, {name(), {2, 1, 3, 1, ""}, {4, 2, 6, 2, kPlanted}, {8, 2, 10, 2, "shown-metadata"}}), 1u);
  EXPECT_EQ(send(66563, 6, {name(), {2, 2, 4, 2, "shown-metadata-2"}}), 1u);
  EXPECT_EQ(send(66569, 20, {name(kPacName), {4, 4, 8, 4, kPlanted}, {12, 4, 16, 4, kPlanted}}), 1u);
  for (const uint32_t opcode : {66565u, 66567u}) EXPECT_EQ(send(opcode, 2, {name()}), 1u);
  for (const uint32_t opcode : {66567u, 66570u}) EXPECT_EQ(send(opcode, 2, {name(kPacName)}), 1u);
  EXPECT_EQ(client.exchange(66566, {0, 0}).result(), 1u);
  send(66571, 20, {{2, 1, 3, 1, kPacName}, {4, 2, 8, 4, "shown-label"}, {12, 2, 16, 4, kPlanted}});
  const Part first{2, 1, 3, 1, kSecretName}, challenge{4, 1, 8, 4, kPlanted}, peer{12, 1, 16, 4, kPlanted},
      user{20, 1, 24, 4, "shown-user"};
  send(66572, 28, {first, challenge, peer, user});
  send(66573, 36, {first, challenge, peer, user, {28, 1, 32, 4, kPlanted}});
  send(66574, 8, {name(), {2, 1, 4, 4, kPlanted}});
  send(66575, 8, {name(), {2, 1, 4, 4, kSecretName}});
  send(66576, 6, {name(), {2, 1, 4, 2, kPlanted}});
  for (const uint32_t opcode : {66577u, 66578u}) send(opcode, 8, {name(), {2, 2, 4, 4, kPlanted}});
  for (const uint32_t opcode : {66579u, 66580u})
    send(opcode, 12, {name(), {2, 1, 4, 2, kPlanted}, {6, 2, 8, 4, kPlanted}});
  for (const uint32_t opcode : {66581u, 66582u, 66585u, 66586u, 66587u, 66588u}) {
    send(opcode, 6, {name(), {2, 2, 4, 2, kPlanted}});
  }
  for (const uint32_t opcode : {66583u, 66584u})
    send(opcode, 10, {name(), {2, 2, 4, 2, kPlanted}, {6, 2, 8, 2, kPlanted}});
  EXPECT_EQ(send(66568, 6, {name(), {2, 1, 3, 1, std::string("0\0\0\7shown-new", 13)}, {4, 1, 5, 1, "0"}}), 1u);
  EXPECT_EQ(client.exchange(66593, {}).result(), 1u);
  EXPECT_EQ(client.exchange(66594, {}).result(), 1u);
  EXPECT_EQ(send(66564, 2, {name(kPacName)}), 1u);
  if (getenv("WELL_FORMED") != nullptr) return;

  for (const uint32_t opcode : {3u, 66589u, 70000u}) send(opcode, 6, {name(), {2, 2, 4, 2, kPlanted}});
  // A name that is said to lie where the secret lies, a descriptor of another size, and no message at all.
  send(66562, 12, {name(kPlanted), {2, 1, 3, 1, kPlanted}, {4, 2, 6, 2, kPlanted}});
  Datagram overlapping =
      request_of(12, {name(), {2, 1, 3, 1, ""}, {4, 2, 6, 2, "0" + std::string(1, '\0') + kPlanted}}).first;
  overlapping[0] = 34;
  overlapping[1] = overlapping[6];
  const std::string section = kSecretName + "0" + std::string(1, '\0') + kPlanted;
  client.exchange(66562, overlapping, Datagram(section.begin(), section.end()));
  send(66562, 11, {name(), {4, 2, 6, 2, kPlanted}});
  client.send(Datagram(kPlanted.begin(), kPlanted.begin() + 20));
  client.receive();
}

std::vector<std::string> self_with(const std::string &variable) {
  return {"/usr/bin/env", variable, std::filesystem::read_symlink("/proc/self/exe").string(),
          "--gtest_also_run_disabled_tests", "--gtest_filter=AClient.*"};
}

TEST_F(KsctlCapture, StrikesOutEverySecretAndKeepsNames) {
  const ProgramRun run = capture(self_with("ALL=1"));

  ASSERT_EQ(run.status, 0) << run.output << run.errors;
  const std::string bytes = content_of(file());
  EXPECT_THAT(bytes, Not(HasSubstr("PLA")));
  for (const char *shown :
       {"shown-name", "shown-aid", "shown-label", "shown-user", "shown-metadata", "shown-metadata-2", "shown-new"}) {
    EXPECT_THAT(bytes, HasSubstr(shown));
  }
  std::map<uint32_t, int> requests;
  for (const Captured &captured : read_capture(file())) requests[captured.opcode] += captured.reply ? 0 : 1;
  EXPECT_EQ(requests[66567], 2);
  EXPECT_EQ(requests[70000], 1);
}

TEST_F(KsctlCapture, StrikesOutWhatIsMadeFromKeys) {
  capture_shell("$EXAMPLES/crypto");

  for (const Captured &captured : read_capture(file())) {
    const bool made_from_key = captured.reply && captured.opcode >= 66571 && captured.opcode <= 66588;
    EXPECT_THAT(made_from_key ? captured.datagram.substr(38) : "", Each('*')) << captured.opcode;
  }
}

// ---- The dissector.

TEST_F(KsctlCapture, IsUnderstoodInTshark) {
  if (run_program({"/bin/sh", "-c", "command -v tshark"}).status != 0) {
    GTEST_SKIP() << "there is no tshark on this machine; ./dev viewers installs it";
  }
  ASSERT_EQ(capture(self_with("WELL_FORMED=1")).status, 0);
  const std::vector<Captured> captured = read_capture(file());
  const auto tshark = [this](const std::string &filter) {
    return run_program({"/usr/bin/env", "tshark", "-X", "lua_script:" KS_SOURCE_DIR "/contrib/wireshark/ks.lua", "-r",
                        file(), "-Y", filter, "-T", "fields", "-e", "ks.opcode", "-e", "_ws.col.Info"});
  };

  const ProgramRun all = tshark("ks.opcode");
  const ProgramRun wrong = tshark("_ws.expert || _ws.malformed || _ws.lua.error");

  EXPECT_EQ(all.status, 0) << all.errors;
  EXPECT_EQ(static_cast<size_t>(std::count(all.output.begin(), all.output.end(), '\n')), captured.size());
  EXPECT_EQ(wrong.output, "");
  EXPECT_THAT(all.output, HasSubstr("66562\t> store secret shown-name\n66562\t< store secret: KS_SUCCESS\n"));
  EXPECT_THAT(all.output, Not(HasSubstr("message 6")));
}

TEST_F(KsctlCapture, ShowsAllOfAStatusInTshark) {
  if (run_program({"/bin/sh", "-c", "command -v tshark"}).status != 0) {
    GTEST_SKIP() << "there is no tshark on this machine; ./dev viewers installs it";
  }
  ASSERT_EQ(capture({KS_SERVICE_DIR "/ksctl", "status"}).status, 0);
  std::vector<std::string> command{
      "/usr/bin/env", "tshark", "-X", "lua_script:" KS_SOURCE_DIR "/contrib/wireshark/ks.lua",
      "-r",           file(),   "-Y", "ks.vault && ks.shared == 0 && ks.changes_refused == 0",
      "-T",           "fields"};
  for (const char *field : {"ks.bytes", "ks.byte_limit", "ks.receive_limit_ms", "ks.problem_count",
                            "ks.reload_failed_at", "ks.vault", "ks.configuration", "ks.refusal"}) {
    command.insert(command.end(), {"-e", field});
  }

  const ProgramRun shown = run_program(command);

  EXPECT_EQ(shown.output, "0\t268435456\t30000\t0\t0\t" + service_.vault() + "\t" + service_.folder() + "/ksd.toml\t\n")
      << shown.errors;
}

}  // namespace
