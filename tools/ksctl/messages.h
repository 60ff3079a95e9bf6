// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// messages.h: the messages to the service as those who look on know them: their names, where the parts of a request
// lie, and which parts may be seen by whom a capture is shown to.
#ifndef TOOLS_KSCTL_MESSAGES_H
#define TOOLS_KSCTL_MESSAGES_H

#include <cstdint>
#include <span>
#include <string>

namespace ksctl {

// Shown says what a capture keeps of a part. What no part covers, and each part of a message that isn't known, is
// struck out.
enum class Shown : uint8_t {
  kNever,     // keys, passwords, what is encrypted or decrypted, what is made from a key
  kAlways,    // what tells nothing about a key
  kName,      // a wire name; struck out unless it has the form of one
  kMetadata,  // of a secret; that of a PAC holds its opaque part and is struck out
};

// Field is a number in a descriptor, in the machine's byte order. Of width 0: none.
struct Field {
  uint8_t at = 0;
  uint8_t width = 0;
};

struct Section {
  Field length;
  Field offset;
  Shown shown = Shown::kNever;
};

struct Message {
  uint32_t opcode;
  const char *name;
  uint8_t descriptor_size;
  std::span<const Section> sections;
  Shown reply;             // the data behind result and length, or all behind the result where there is no length
  bool has_length = true;  // whether a length stands behind a reply's result
  Field numbers[2] = {};   // of the descriptor, beside the lengths and offsets of sections
};

// message_of gives the row of an opcode, or null for one that isn't known.
const Message *message_of(uint32_t opcode);

// message_name gives the name of a message, its number for one that isn't known, or "message" for 0.
std::string message_name(uint32_t opcode);

}  // namespace ksctl

#endif
