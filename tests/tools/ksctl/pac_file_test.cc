// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// PAC files of supplicants: in, and out again without keys.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>
#include <iterator>

#include "content_of.h"
#include "pac.h"
#include "published_vectors.h"

namespace {

using ks_test::content_of;
using ks_test::Datagram;
using ks_test::import_pacs;
using ks_test::kIn2001;
using ks_test::kIn2038;
using ks_test::kPacFileHead;
using ks_test::kPacKey;
using ks_test::ksctl;
using ks_test::pac_file;
using ks_test::pac_info;
using ks_test::pac_lines;
using ks_test::ProgramRun;
using ks_test::RawClient;
using ks_test::ServiceProcess;
using ks_test::stored_metadata;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

std::string unhex(const std::string &digits) {
  std::string bytes;
  for (size_t i = 0; i < digits.size(); i += 2) {
    bytes += static_cast<char>(std::stoul(digits.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

ProgramRun import(const ServiceProcess &service, const std::string &content,
                  const std::vector<std::string> &options = {}) {
  std::vector<std::string> arguments{"pac", "import", pac_file(service, content)};
  arguments.insert(arguments.end(), options.begin(), options.end());
  return ksctl(service.socket(), arguments);
}

// The T-PRF of RFC 4851's appendix on the key of the PAC a1 b2.
std::string t_prf(const ServiceProcess &service) {
  const auto &vector = published::kTPrf[0];
  const std::string label = vector.label;
  const std::string seed = unhex(vector.seed);
  Datagram sections = ks_test::wire_pac(unhex("a1b2"));
  sections.insert(sections.end(), label.begin(), label.end());
  sections.insert(sections.end(), seed.begin(), seed.end());
  const auto label_size = static_cast<uint8_t>(label.size());
  const Datagram descriptor{
      48, 0, 6, 20, label_size, 0, 0, 0, 26, 0, 0, 0, 64, 0, 0, 0, static_cast<uint8_t>(26 + label_size), 0, 0, 0};
  const Datagram output = RawClient(service.socket()).exchange(66571, descriptor, sections).data();
  return {output.begin(), output.end()};
}

// What the keystore has of a PAC with the opaque 0a 0b 0c, an A-ID, a lifetime in 2038 and the identity "alice".
const std::string kInfo = "00040002a1b2" + pac_info(kIn2038);
const std::string kMetadata = "000200030a0b0c00090017" + kInfo;

std::string metadata_of(const ServiceProcess &service) {
  const Datagram metadata = stored_metadata(service, unhex("a1b2"));
  return {metadata.begin(), metadata.end()};
}

TEST(KsctlPacImport, StoresKeyAndMetadataOfATextFile) {
  const ServiceProcess service;

  const ProgramRun run = import(service, kPacFileHead + "START\nPAC-Type=1\nPAC-Key=" + kPacKey +
                                             "\nPAC-Opaque=0a0b0c\nPAC-Info=" + kInfo +
                                             "\nA-ID=a1b2\nI-ID=616c696365\nI-ID-txt=alice\nA-ID-Info=00\nEND\n");

  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_EQ(run.output, "a1b2\t\\xa1\\xb2\tstored\t-\n");
  EXPECT_THAT(run.errors, IsEmpty());
  EXPECT_EQ(metadata_of(service), unhex(kMetadata));
  EXPECT_EQ(t_prf(service), unhex(published::kTPrf[0].output));
}

TEST(KsctlPacImport, StoresKeyAndMetadataOfABinaryFile) {
  const ServiceProcess service;

  const ProgramRun run = import(service, unhex("6ae4920c00000001" + kPacKey + "00030a0b0c" + "0017" + kInfo));

  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_EQ(run.output, "a1b2\t\\xa1\\xb2\tstored\t-\n");
  EXPECT_EQ(metadata_of(service), unhex(kMetadata));
  EXPECT_EQ(t_prf(service), unhex(published::kTPrf[0].output));
}

TEST(KsctlPacImport, TakesLinesWithCarriageReturns) {
  const ServiceProcess service;
  std::string content;
  for (const char c : kPacFileHead + pac_lines("a1b2", kInfo))
    content += c == '\n' ? std::string("\r\n") : std::string(1, c);

  EXPECT_EQ(import(service, content).status, 0);
  EXPECT_EQ(metadata_of(service), unhex(kMetadata));
}

TEST(KsctlPacImport, ListsWhatItSkipsAndWhy) {
  const ServiceProcess service;
  import_pacs(service, pac_lines("aa", kInfo));
  const std::string typed = "START\nPAC-Type=3\nPAC-Key=" + kPacKey + "\nA-ID=01\nEND\n";

  const ProgramRun run =
      import(service, kPacFileHead + pac_lines("aa", pac_info(kIn2038)) + typed + "START\nEND\n" +
                          pac_lines(std::string(64, '7'), kInfo) + "START\nA-ID=02\nPAC-Opaque=00\nPAC-Info=" + kInfo +
                          "\nEND\nSTART\nPAC-Key=" + kPacKey + "\nA-ID=03\nPAC-Info=" + kInfo +
                          "\nEND\nSTART\nPAC-Key=" + kPacKey + "\nA-ID=04\nPAC-Opaque=00\nEND\n" +
                          pac_lines("05", "000300ff") + pac_lines("06", pac_info(kIn2001)) + pac_lines("07", kInfo) +
                          pac_lines("07", kInfo));

  EXPECT_EQ(run.output,
            "aa\t\\xaa\tskipped\tthe keystore has a PAC of this A-ID; --replace replaces it\n"
            "01\t\\x01\tskipped\ta PAC of type user authorization has no key to keep\n"
            "\t\tskipped\tit has no A-ID, by which a PAC is known\n" +
                std::string(64, '7') + "\t" + std::string(32, 'w') +
                "\tskipped\tits A-ID has 32 bytes, and the keystore takes 31\n"
                "02\t\\x02\tskipped\tit has no PAC-Key\n"
                "03\t\\x03\tskipped\tit has no PAC-Opaque\n"
                "04\t\\x04\tskipped\tit has no PAC-Info\n"
                "05\t\\x05\tskipped\tits PAC-Info is damaged\n"
                "06\t\\x06\tskipped\tit expired on 2001-09-09T01:46:40Z; --with-expired takes it\n"
                "07\t\\x07\tstored\t-\n"
                "07\t\\x07\tskipped\tanother PAC of this A-ID stands before it in the file\n");
  EXPECT_EQ(run.status, 7);
  EXPECT_THAT(run.errors, HasSubstr("10 of 11 PACs were skipped; the list says why"));
  EXPECT_EQ(import(service, kPacFileHead + pac_lines("06", pac_info(kIn2001))).status, 6);
  const ProgramRun replaced = import(service, kPacFileHead + pac_lines("aa", pac_info(kIn2038)), {"--replace"});
  EXPECT_EQ(replaced.status, 0);
  EXPECT_EQ(replaced.output, "aa\t\\xaa\treplaced\t-\n");
}

TEST(KsctlPacImport, LeavesNoCopyOfAPacThatItReplaces) {
  const ServiceProcess service;
  import_pacs(service, pac_lines("aa", pac_info(kIn2001)));
  EXPECT_EQ(ksctl(service.socket(), {"cache", "warm"}).status, 0);

  import_pacs(service, pac_lines("aa", pac_info(kIn2038)));

  EXPECT_THAT(ksctl(service.socket(), {"cache", "list"}).output, IsEmpty());
}

// A file that is damaged anywhere changes nothing, also where it is good in front of that. No message shows a key.
TEST(KsctlPacImport, RefusesADamagedFileAsAWhole) {
  const ServiceProcess service;
  const std::string good = pac_lines("01", kInfo);
  const std::string head = kPacFileHead + good;  // 8 lines
  const std::string binary = unhex("6ae4920c00000001" + kPacKey + "00030a0b0c" + "0017" + kInfo);
  const std::pair<std::string, const char *> damaged[] = {
      {"", "line 1: isn't the head of a PAC file; give a supplicant's file, in text or binary"},
      {"wpa_supplicant EAP-FAST PAC file - version 2\n" + good, "line 1: isn't the head of a PAC file"},
      {head + "START\nPAC-Type=1\n", "line 10: is the last one, and END is missing; the file is cut"},
      {head + good.substr(0, good.size() - 4), "line 14: is the last one, and END is missing"},
      {head + "END\n", "line 9: stands outside START and END"},
      {head + "START\nSTART\n", "line 10: has no \"=\", and END is missing"},
      {head + "START\nPAC-Type=-1\n", "line 10: PAC-Type isn't a number up to 65535"},
      {head + "START\nPAC-Type=65536\n", "line 10: PAC-Type isn't a number up to 65535"},
      {head + "START\nPAC-Key=" + kPacKey.substr(2) + "\n", "line 10: PAC-Key isn't of 64 digits in hexadecimal"},
      {head + "START\nPAC-Key=" + kPacKey.substr(1) + "g\n", "line 10: PAC-Key isn't of 64 digits in hexadecimal"},
      {head + "START\nPAC-Key=" + kPacKey + "\nPAC-Key=" + kPacKey + "\n",
       "line 11: is a second PAC-Key of the same PAC"},
      {head + "START\nA-ID=1\n", "line 10: A-ID isn't in hexadecimal"},
      {head + "START\nPAC-Info=0g\n", "line 10: PAC-Info isn't in hexadecimal"},
      {head + "START\nPAC-Opaque=" + std::string(140000, 'a') + "\n", "line 10: is longer than 131134 characters"},
      {head + "START\nA-ID=" + std::string("\0", 1) + "\n", "line 10: holds a NUL byte"},
      {head + std::string(1 << 20, '\n'), "has more than 1048576 bytes; is it the right file?"},
      {binary.substr(0, 5), "PAC 0, byte 4: its version ends behind the file"},
      {unhex("6ae4920c0001"), "is of version 1; version 0 is known"},
      {binary + binary.substr(6, 20), "PAC 2, byte 72: its PAC-Key ends behind the file"},
      {binary.substr(0, binary.size() - 1), "PAC 1, byte 47: its PAC-Info ends behind the file; the file is cut"},
      {binary.substr(0, 40) + unhex("ffff") + "x", "PAC 1, byte 42: its PAC-Opaque ends behind the file"},
  };
  for (const auto &[content, error] : damaged) {
    const ProgramRun run = import(service, content);
    EXPECT_EQ(run.status, 1) << error;
    EXPECT_THAT(run.errors, HasSubstr(error));
    EXPECT_EQ(std::count(run.errors.begin(), run.errors.end(), '\n'), 1);
    EXPECT_THAT(run.errors, Not(HasSubstr(kPacKey.substr(4, 8))));
  }
  EXPECT_THAT(ksctl(service.socket(), {"pac", "list"}).output, IsEmpty());
}

TEST(KsctlPacImport, SaysWhatIsWrongWithTheFileItself) {
  const ServiceProcess service;
  EXPECT_EQ(ksctl(service.socket(), {"pac", "import", "/nowhere/pacs"}).status, 3);
  const ProgramRun endless = ksctl(service.socket(), {"pac", "import", "/dev/zero"});
  EXPECT_EQ(endless.status, 1);
  EXPECT_THAT(endless.errors, HasSubstr("/dev/zero: has more than 1048576 bytes"));
  EXPECT_THAT(ksctl(service.socket(), {"pac", "import", service.folder()}).errors, HasSubstr("Is a directory"));

  const std::string path = pac_file(service, kPacFileHead + pac_lines("01", kInfo));
  std::filesystem::permissions(path, std::filesystem::perms(0644));
  const ProgramRun open = ksctl(service.socket(), {"pac", "import", path});
  EXPECT_EQ(open.status, 0);
  EXPECT_EQ(open.errors, "ksctl: " + path + ": others can read these keys; chmod 600 it, or remove it\n");
}

class KsctlPacExport : public testing::Test {
 protected:
  KsctlPacExport() {
    import_pacs(service,
                pac_lines("a1b2", kInfo + "0007000649737375657200" + "0a00020002") + pac_lines("63", "000500026964"));
  }
  ProgramRun run(std::vector<std::string> options = {}) {
    options.insert(options.begin(), {"pac", "export", path});
    return ksctl(service.socket(), options);
  }

  const ServiceProcess service;
  const std::string path = service.folder() + "/exported";
};

TEST_F(KsctlPacExport, WritesEverythingButKeysAsText) {
  const ProgramRun exported = run();

  EXPECT_EQ(exported.status, 0) << exported.errors;
  EXPECT_EQ(exported.errors,
            "ksctl: " + path + ": holds no keys, which never leave the keystore; no supplicant can log in with it\n");
  EXPECT_EQ(content_of(path),
            "EAP-FAST PAC file without keys - version 1\n"
            "START\nPAC-Type=2\nPAC-Opaque=0a0b0c\nPAC-Info=" +
                kInfo +
                "00070006497373756572000a00020002\nA-ID=a1b2\nI-ID=616c696365\n"
                "A-ID-Info=497373756572\nEND\n"
                "START\nPAC-Type=1\nPAC-Opaque=0a0b0c\nPAC-Info=000500026964\nA-ID=63\nI-ID=6964\n"
                "END\n");
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(KsctlPacExport, WritesEverythingButKeysInBinary) {
  EXPECT_EQ(run({"--form", "binary", "--json"}).output,
            "{\"file\":\"" + path + "\",\"written\":2,\"keys\":false,\"skipped\":[]}\n");

  EXPECT_EQ(content_of(path), unhex("6ae4920c8000"
                                    "0002"
                                    "0002a1b2"
                                    "00030a0b0c"
                                    "0027" +
                                    kInfo +
                                    "00070006497373756572000a00020002"
                                    "0001"
                                    "000163"
                                    "00030a0b0c"
                                    "0006000500026964"));
}

TEST_F(KsctlPacExport, IsTakenBackByNobody) {
  for (const char *form : {"text", "binary"}) {
    EXPECT_EQ(run({"--form", form, "--replace"}).status, 0);
    const ProgramRun back = ksctl(service.socket(), {"pac", "import", path});
    EXPECT_EQ(back.status, 1) << form;
    EXPECT_EQ(back.errors,
              "ksctl: " + path + ": has no keys, since `ksctl pac export` made it; import the supplicant's own file\n");
  }
}

TEST_F(KsctlPacExport, ReplacesNothingUnasked) {
  std::ofstream(path) << "mine";

  const ProgramRun refused = run();
  EXPECT_EQ(refused.status, 7);
  EXPECT_EQ(refused.errors, "ksctl: " + path + ": there is such a file; --replace replaces it\n");
  EXPECT_EQ(content_of(path), "mine");
  EXPECT_EQ(run({"--replace"}).status, 0);
  EXPECT_THAT(content_of(path), HasSubstr("without keys"));
}

TEST_F(KsctlPacExport, ReplacesNothingButTheUsersOwnFile) {
  const std::string target = service.folder() + "/target";
  std::ofstream(target) << "another's";
  std::filesystem::create_symlink(target, path);
  for (const std::vector<std::string> &options : {std::vector<std::string>{}, {"--replace"}}) {
    EXPECT_EQ(run(options).status, options.empty() ? 7 : 4);
  }
  EXPECT_EQ(content_of(target), "another's");

  std::filesystem::remove(path);
  std::ofstream(path) << "another's";
  if (getuid() == 0) {  // who else could give a file away
    ASSERT_EQ(chown(path.c_str(), 12345, 12345), 0);
    const ProgramRun refused = run({"--replace"});
    EXPECT_EQ(refused.status, 4);
    EXPECT_THAT(refused.errors, HasSubstr("belongs to user 12345, and isn't replaced"));
    EXPECT_EQ(content_of(path), "another's");
  }
}

TEST_F(KsctlPacExport, LeavesNothingBehindWhereItCannotWrite) {
  const ProgramRun nowhere = ksctl(service.socket(), {"pac", "export", "/nowhere/pacs"});
  EXPECT_EQ(nowhere.status, 3);
  EXPECT_EQ(nowhere.errors, "ksctl: /nowhere/pacs: No such file or directory; look at the path\n");

  const auto files = [&] {
    return std::distance(std::filesystem::directory_iterator(service.folder()), std::filesystem::directory_iterator());
  };
  std::filesystem::create_directory(path);
  const auto before = files();
  EXPECT_EQ(run({"--replace"}).status, 4);
  EXPECT_EQ(run().status, 7);
  EXPECT_EQ(files(), before);
}

}  // namespace
