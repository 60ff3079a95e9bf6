// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// pac.h: PACs for the tests of ksctl: as lines of a supplicant's file, and as the service is told of them.
#ifndef TESTS_TOOLS_KSCTL_PAC_H
#define TESTS_TOOLS_KSCTL_PAC_H

#include <fstream>
#include <stdexcept>
#include <string>

#include "ksctl.h"
#include "service/raw_client.h"

namespace ks_test {

inline const std::string kPacFileHead = "wpa_supplicant EAP-FAST PAC file - version 1\n";
inline const std::string kPacKey = "0b97390f37517809811efd9c6e65942b632ce953893808ba360b037cd185e414";

// PAC-Infos in hexadecimal: lifetime, and I-ID "alice".
inline std::string pac_info(const std::string &expires) {
  return "00030004" + expires + "00050005616c696365";
}
inline const std::string kIn2038 = "7fff0008";  // 2038-01-18T09:02:00Z
inline const std::string kIn2001 = "3b9aca00";  // 2001-09-09T01:46:40Z

// pac_lines are those of one PAC; everything is in hexadecimal.
inline std::string pac_lines(const std::string &a_id, const std::string &info, const std::string &opaque = "0a0b0c") {
  return "START\nPAC-Type=1\nPAC-Key=" + kPacKey + "\nPAC-Opaque=" + opaque + "\nPAC-Info=" + info + "\nA-ID=" + a_id +
         "\nEND\n";
}

// pac_file writes a file of mode 0600 into the service's folder.
inline std::string pac_file(const ServiceProcess &service, const std::string &content) {
  const std::string path = service.folder() + "/pacs";
  unlink(path.c_str());
  const mode_t before = umask(0077);
  std::ofstream(path, std::ios::binary) << content;
  umask(before);
  return path;
}

// import_pacs brings PACs into the keystore, expired ones too.
inline void import_pacs(const ServiceProcess &service, const std::string &lines) {
  const ProgramRun run = ksctl(
      service.socket(), {"pac", "import", pac_file(service, kPacFileHead + lines), "--with-expired", "--replace"});
  if (run.status != 0) throw std::runtime_error("pac import: " + run.errors);
}

// wire_pac is the name of a PAC of VDC 7 on the wire.
inline Datagram wire_pac(const std::string &a_id) {
  Datagram name{0x31, 0, 0, 7};
  name.insert(name.end(), a_id.begin(), a_id.end());
  return name;
}

// The messages on a PAC as another program would send them, past cache and ksctl.
inline Datagram stored_metadata(const ServiceProcess &service, const std::string &a_id) {
  RawClient client(service.socket());
  const Datagram name = wire_pac(a_id);
  return client.exchange(66567, {static_cast<uint8_t>(name.size()), 2}, name).data();
}

inline void replace_behind_the_cache(const ServiceProcess &service, const std::string &a_id, const Datagram &metadata) {
  RawClient client(service.socket());
  Datagram sections = wire_pac(a_id);
  const auto name_size = static_cast<uint8_t>(sections.size());
  sections.push_back(0x4b);  // the key
  sections.insert(sections.end(), metadata.begin(), metadata.end());
  const auto key_at = static_cast<uint8_t>(20 + name_size);
  const auto metadata_at = static_cast<uint8_t>(key_at + 1);
  const Datagram descriptor{
      name_size, 20, 0, 0,           1, 0, 0, 0, key_at, 0, 0, 0, static_cast<uint8_t>(metadata.size()),
      0,         0,  0, metadata_at, 0, 0, 0};
  if (client.exchange(66569, descriptor, sections).result() != 1) throw std::runtime_error("store PAC");
}

inline void clear_behind_the_cache(const ServiceProcess &service, const std::string &a_id) {
  RawClient client(service.socket());
  const Datagram name = wire_pac(a_id);
  if (client.exchange(66564, {static_cast<uint8_t>(name.size()), 2}, name).result() != 1) {
    throw std::runtime_error("clear PAC");
  }
}

}  // namespace ks_test

#endif
