// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// output.h: prints what a command has to say: tables for a person at a terminal, plain lines for a pipe, JSON for
// programs. Nothing that came from outside reaches a terminal but as printable text.
#ifndef TOOLS_KSCTL_OUTPUT_H
#define TOOLS_KSCTL_OUTPUT_H

#include <span>
#include <string>
#include <string_view>

#include "value.h"

namespace ksctl {

enum class Format { kTerminal, kPlain, kJson };

// Column is one column of a table. `key` names it in JSON; `title` stands above it on a terminal.
struct Column {
  const char *key;
  const char *title;
};

class Output {
 public:
  // A command prints one document: one of the following, once. With JSON it is one object on one line. One that goes on
  // and on prints a document each time.
  Output(Format format, bool colour) : format_(format), colour_(colour) {}

  Format format() const { return format_; }
  bool colour() const { return colour_; }

  // table prints a list under the name that it has in JSON. On a terminal its columns are aligned below titles, and an
  // empty one says `nothing`; in a pipe a row is a line, cells parted by tabs. Each row is an object with the columns'
  // keys; what a row has beyond them is told in JSON only.
  void table(const char *name, std::span<const Column> columns, const List &rows, const char *nothing);

  // fields prints an object: a name and a value on each line, what is nested by names such as "limits.entries".
  void fields(const Object &object);

  // done says that it was done: the sentence to a person, the object to a program, nothing in a pipe.
  void done(const std::string &sentence, const Object &object);

  // complain prints a line on standard error, for what is wrong beside the one line that ends a command.
  void complain(const std::string &line) const;

  // strong and alarm mark text on a terminal that shows colours; elsewhere they leave it as it is.
  std::string strong(const std::string &text) const;
  std::string alarm(const std::string &text) const;

  // text prints a page of text, or in JSON the object.
  void text(std::string_view page, const Object &object);

 private:
  void json(const Value &value);

  const Format format_;
  const bool colour_;
};

// json_of gives a value as JSON on one line.
std::string json_of(const Value &value);

// printable gives text that does no harm on a terminal: what isn't printable UTF-8 is told as \xNN.
std::string printable(std::string_view text);

// duration_in_words words a duration as "3 d 4 h", to two units.
std::string duration_in_words(uint64_t seconds);

}  // namespace ksctl

#endif
