// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "pac_file.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string_view>

#include "base/bytes.h"
#include "failure.h"
#include "keystore.h"

namespace ksctl {
namespace {

constexpr std::string_view kTextHead = "wpa_supplicant EAP-FAST PAC file - version 1";
constexpr std::string_view kKeylessTextHead = "EAP-FAST PAC file without keys - version 1";

constexpr std::string_view kMagic("\x6a\xe4\x92\x0c", 4);
constexpr uint16_t kVersion = 0;
constexpr uint16_t kKeylessVersion = 0x8000;

constexpr size_t kLongestLine = 2 * size_t{UINT16_MAX} + 64;  // a field of 65,535 bytes, and its name

Failure without_keys(const std::string &name) {
  return {Exit::kFailed, fmt::format("{}: has no keys, since `ksctl pac export` made it; import the supplicant's own "
                                     "file",
                                     name)};
}

// ---- Text: a head, and for each PAC lines between START and END.

class TextReader {
 public:
  TextReader(std::string_view content, const std::string &name) : rest_(content), name_(name) {}

  std::vector<FilePac> read() {
    std::string_view line;
    if (!next(line) || (line != kTextHead && line != kKeylessTextHead)) {
      throw wrong("isn't the head of a PAC file; give a supplicant's file, in text or binary");
    }
    if (line == kKeylessTextHead) throw without_keys(name_);
    std::vector<FilePac> pacs;
    while (next(line)) {
      if (line.empty()) continue;
      if (line != "START") throw wrong("stands outside START and END");
      pacs.push_back(read_pac());
    }
    return pacs;
  }

 private:
  FilePac read_pac() {
    FilePac pac;
    bool typed = false;
    std::string_view line;
    while (next(line)) {
      if (line == "END") return pac;
      const size_t equals = line.find('=');
      if (equals == std::string_view::npos) throw wrong("has no \"=\", and END is missing");
      const std::string_view field = line.substr(0, equals);
      const std::string_view value = line.substr(equals + 1);
      if (field == "PAC-Type") {
        if (typed) throw twice(field);
        typed = true;
        pac.type = type_in(value);
      } else if (field == "PAC-Key") {
        if (pac.key) throw twice(field);
        pac.key = key_in(value);
      } else if (std::optional<Bytes> *const bytes = place_of(field, pac)) {
        if (*bytes) throw twice(field);
        *bytes = unhex(value);
        if (!*bytes) throw not_hex(field);
      }  // other fields, such as identities once more as text, tell nothing new
    }
    throw wrong("is the last one, and END is missing; the file is cut");
  }

  static std::optional<Bytes> *place_of(std::string_view field, FilePac &pac) {
    if (field == "A-ID") return &pac.a_id;
    if (field == "PAC-Opaque") return &pac.opaque;
    if (field == "PAC-Info") return &pac.info;
    return nullptr;
  }

  uint16_t type_in(std::string_view value) const {
    uint16_t type = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), type);
    if (error != std::errc() || end != value.data() + value.size()) throw wrong("PAC-Type isn't a number up to 65535");
    return type;
  }

  Secret key_in(std::string_view value) const {
    const std::shared_ptr<ksd::SecretBytes> key = ksd::SecretBytes::allocate(kPacKeySize);
    if (value.size() != 2 * kPacKeySize || !unhex(value, key->writable())) {
      throw wrong(fmt::format("PAC-Key isn't of {} digits in hexadecimal", 2 * kPacKeySize));
    }
    return key;
  }

  // A line without its end. False behind the last one.
  bool next(std::string_view &line) {
    if (rest_.empty()) return false;
    ++number_;
    const size_t end = rest_.find('\n');
    line = rest_.substr(0, end);
    rest_.remove_prefix(end == std::string_view::npos ? rest_.size() : end + 1);
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (line.size() > kLongestLine) throw wrong(fmt::format("is longer than {} characters", kLongestLine));
    if (line.find('\0') != std::string_view::npos) throw wrong("holds a NUL byte");
    return true;
  }

  Failure twice(std::string_view field) const { return wrong(fmt::format("is a second {} of the same PAC", field)); }
  Failure not_hex(std::string_view field) const { return wrong(fmt::format("{} isn't in hexadecimal", field)); }
  Failure wrong(const std::string &how) const {
    return {Exit::kFailed, fmt::format("{}: line {}: {}; nothing was imported", name_, std::max(number_, 1), how)};
  }

  std::string_view rest_;
  const std::string &name_;
  int number_ = 0;
};

// ---- Binary: a head of magic and version, and each PAC behind the other. Numbers are big-endian.

class BinaryReader {
 public:
  BinaryReader(std::span<const uint8_t> content, const std::string &name) : content_(content), name_(name) {}

  std::vector<FilePac> read() {
    take(kMagic.size(), "head");
    const uint16_t version = number("version");
    if (version == kKeylessVersion) throw without_keys(name_);
    if (version != kVersion) {
      throw Failure(Exit::kFailed, fmt::format("{}: is of version {}; version {} is known", name_, version, kVersion));
    }
    std::vector<FilePac> pacs;
    while (position_ < content_.size()) {
      ++entry_;
      FilePac pac;
      pac.type = number("PAC-Type");
      pac.key = ksd::SecretBytes::copy_of(take(kPacKeySize, "PAC-Key"));
      pac.opaque = field("PAC-Opaque");
      pac.info = field("PAC-Info");
      pac.a_id = parse_pac_info(*pac.info).a_id;
      pacs.push_back(std::move(pac));
    }
    return pacs;
  }

 private:
  std::span<const uint8_t> take(size_t size, const char *what) {
    if (content_.size() - position_ < size) {
      throw Failure(Exit::kFailed,
                    fmt::format("{}: PAC {}, byte {}: its {} ends behind the file; the file is cut, and nothing was "
                                "imported",
                                name_, entry_, position_, what));
    }
    const auto taken = content_.subspan(position_, size);
    position_ += size;
    return taken;
  }
  uint16_t number(const char *what) {
    const auto bytes = take(2, what);
    return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
  }
  Bytes field(const char *what) {
    const auto bytes = take(number(what), what);
    return {bytes.begin(), bytes.end()};
  }

  const std::span<const uint8_t> content_;
  const std::string &name_;
  size_t position_ = 0;
  int entry_ = 0;
};

// ---- Without keys.

uint16_t type_of(const KeylessPac &pac) {
  return pac.info.type.value_or(kTunnelPac);
}

std::string text_of(const KeylessPac &pac) {
  std::string text = fmt::format("START\nPAC-Type={}\nPAC-Opaque={}\nPAC-Info={}\nA-ID={}\n", type_of(pac),
                                 hex(pac.parts.opaque), hex(pac.parts.info), hex(pac.a_id));
  if (pac.info.identity) text += fmt::format("I-ID={}\n", hex(ksd::bytes_of(*pac.info.identity)));
  if (pac.info.issuer) text += fmt::format("A-ID-Info={}\n", hex(ksd::bytes_of(*pac.info.issuer)));
  return text + "END\n";
}

void add_number(std::string &out, size_t number) {
  out += static_cast<char>(number >> 8);
  out += static_cast<char>(number);
}

void add_field(std::string &out, const Bytes &field) {
  add_number(out, field.size());
  out.append(field.begin(), field.end());
}

}  // namespace

std::vector<FilePac> parse_pac_file(std::span<const uint8_t> content, const std::string &name) {
  const std::string_view text(reinterpret_cast<const char *>(content.data()), content.size());
  if (text.starts_with(kMagic)) return BinaryReader(content, name).read();
  return TextReader(text, name).read();
}

std::string keyless_file(const std::vector<KeylessPac> &pacs, PacForm form) {
  std::string file;
  if (form == PacForm::kText) {
    file = std::string(kKeylessTextHead) + "\n";
    for (const KeylessPac &pac : pacs) file += text_of(pac);
    return file;
  }
  file = kMagic;
  add_number(file, kKeylessVersion);
  for (const KeylessPac &pac : pacs) {
    add_number(file, type_of(pac));
    add_field(file, pac.a_id);
    add_field(file, pac.parts.opaque);
    add_field(file, pac.parts.info);
  }
  return file;
}

}  // namespace ksctl
