// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// pac_file.h: PAC files of EAP-FAST supplicants, as text and in binary. docs/ksctl.md tells the forms.
#ifndef TOOLS_KSCTL_PAC_FILE_H
#define TOOLS_KSCTL_PAC_FILE_H

#include "pac_metadata.h"
#include "secret_input.h"

namespace ksctl {

inline constexpr size_t kPacKeySize = 32;

// FilePac is a PAC as a file has it. What the file doesn't tell is none.
struct FilePac {
  uint16_t type = kTunnelPac;
  Secret key;
  std::optional<Bytes> a_id;
  std::optional<Bytes> opaque;
  std::optional<Bytes> info;
};

// parse_pac_file reads either form, told apart by the first bytes. `name` is the file's, for messages. Failure kFailed,
// with the line or the place, for what is none of them and for a file without keys; nothing of the content is told.
std::vector<FilePac> parse_pac_file(std::span<const uint8_t> content, const std::string &name);

// KeylessPac is a PAC as far as the keystore gives it out.
struct KeylessPac {
  Bytes a_id;
  PacParts parts;
  PacInfo info;
};

enum class PacForm { kText, kBinary };

// keyless_file makes a file without keys. Its head is another than a supplicant's, so that none takes it.
std::string keyless_file(const std::vector<KeylessPac> &pacs, PacForm form);

}  // namespace ksctl

#endif
