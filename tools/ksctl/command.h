// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// command.h: what a command of ksctl is: a row with its words, its help, its parameters and its function. The command
// line is read, the help printed and completions are made from these rows.
#ifndef TOOLS_KSCTL_COMMAND_H
#define TOOLS_KSCTL_COMMAND_H

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "failure.h"
#include "output.h"

namespace ksctl {

enum class Kind {
  kFlag,        // has no value
  kText,        // any
  kNumber,      // not negative, decimal
  kDescriptor,  // the number of an open file descriptor
  kFile,        // completed with the names of files
  kFolder,
  kChoice,   // one of `choices`
  kCommand,  // a command and its arguments: all that is left
};

// Parameter is an option ("--json") or, without dashes, an argument in its place ("NAME").
struct Parameter {
  const char *name;
  Kind kind = Kind::kText;
  const char *help = "";
  bool required = false;
  const char *choices = "";  // of kChoice, parted by commas
};

// Of several commands.
inline constexpr Parameter kMasterKeyFile{"--master-key-file", Kind::kFile, "The file of the master key", true};

// Arguments are what the user gave, by the names of the parameters. What is of the wrong kind doesn't get here.
class Arguments {
 public:
  explicit Arguments(std::map<std::string, std::string> given) : given_(std::move(given)) {}

  bool has(const char *name) const { return given_.contains(name); }
  const std::string &text(const char *name) const { return given_.at(name); }  // of one that is there
  std::string text_or(const char *name, const char *otherwise) const { return has(name) ? text(name) : otherwise; }
  uint64_t number(const char *name) const { return std::stoull(text(name)); }  // of one that is there
  // words gives a command and its arguments.
  std::vector<std::string> words(const char *name) const {
    std::vector<std::string> list;
    const std::string &packed = text(name);
    for (size_t at = 0; at < packed.size(); at = packed.find('\0', at) + 1) list.emplace_back(packed.c_str() + at);
    return list;
  }
  std::optional<int> descriptor(const char *name) const {
    return has(name) ? std::optional<int>(std::stoi(text(name))) : std::nullopt;
  }

 private:
  std::map<std::string, std::string> given_;
};

// Session is what every command has: where to print, and which service it is about.
struct Session {
  Output &output;
  std::string socket;  // of --socket, KS_SOCKET or the default
};

struct Command {
  const char *words;  // "secret put"
  const char *help;   // one line
  std::span<const Parameter> parameters;
  void (*run)(Session &session, const Arguments &arguments);  // throws Failure
  const char *footer = "";                                    // what the help says at its end
};

// The families, each in a file of its name.
std::span<const Command> service_commands();         // status, owners, limits, reload, checkpoint
std::span<const Command> vault_commands();           // backup, restore, vault
std::span<const Command> fleet_commands();           // fleet status, request, admit, join
std::span<const Command> fleet_contents_commands();  // fleet import, restore, accept
std::span<const Command> fleet_machine_commands();   // fleet list, leave, rotate
std::span<const Command> stats_commands();           // stats
std::span<const Command> top_commands();             // top
std::span<const Command> config_commands();          // config check
std::span<const Command> history_commands();         // history
std::span<const Command> capture_commands();         // capture
std::span<const Command> doctor_commands();          // doctor
std::span<const Command> secret_commands();          // secret put, list, show, rename, rm
std::span<const Command> pac_commands();             // pac list, show, rm, age-out
std::span<const Command> pac_transfer_commands();    // pac import, export
std::span<const Command> cache_commands();           // cache list, warm, purge
std::span<const Command> context_commands();         // context list, clear
std::span<const Command> explain_commands();         // explain
std::span<const Command> completion_commands();      // completion

// Of all families, for what is made from the table.
std::vector<const Command *> every_command();

// common_parameters are those that may be given with every command, in front of it or behind.
std::span<const Parameter> common_parameters();

}  // namespace ksctl

#endif
