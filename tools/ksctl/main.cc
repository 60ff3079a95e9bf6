// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ksctl: the operator's tool. The command line is made of the commands' rows and read here; what a command does stands
// in the file of its family.
#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <sstream>

#include "command.h"
#include "host_wire.h"
#include "progress.h"

namespace ksctl {
namespace {

constexpr std::array kFamilies{
    service_commands,      vault_commands,   fleet_commands,      fleet_contents_commands, fleet_machine_commands,
    stats_commands,        top_commands,     config_commands,     secret_commands,         pac_commands,
    pac_transfer_commands, cache_commands,   context_commands,    history_commands,        capture_commands,
    doctor_commands,       explain_commands, completion_commands,
};

constexpr Parameter kCommon[] = {
    {"--socket", Kind::kFile, "Socket of the service, instead of KS_SOCKET or " HOST_DEFAULT_SOCKET},
    {"--json", Kind::kFlag, "Print JSON, one object on one line"},
};

// What was given of these.
using Common = Arguments;

// Chosen is the command that the command line asks for, with what was given to it.
struct Chosen {
  const Command *command = nullptr;
  std::map<std::string, std::string> given;
};

// CLI11 takes "-1" for the largest number there is.
std::string what_is_no_number(const std::string &text) {
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() ? "" : text + " isn't a number from 0 on";
}

CLI::Validator one_of(const char *choices) {
  std::vector<std::string> names;
  std::istringstream parts(choices);
  for (std::string name; std::getline(parts, name, ',');) names.push_back(name);
  return CLI::IsMember(names);
}

// unworded is a check that the help doesn't spell out: the parameter's type says as much in fewer words.
CLI::Validator unworded(CLI::Validator check) {
  check.description("");
  return check;
}

std::string alternatives(std::string choices) {
  std::replace(choices.begin(), choices.end(), ',', '|');
  return choices;
}

void add_parameter(CLI::App &app, const Parameter &parameter, std::map<std::string, std::string> &given) {
  const std::string name = parameter.name;
  CLI::Option *option = nullptr;
  if (parameter.kind == Kind::kFlag) {
    app.add_flag_callback(
        name, [&given, name] { given[name]; }, parameter.help);
    return;
  }
  if (parameter.kind == Kind::kCommand) {
    // Each with a NUL behind it, which no argument can hold.
    app.add_option_function<std::vector<std::string>>(
           name,
           [&given, name](const std::vector<std::string> &words) {
             for (const std::string &word : words) given[name] += word + '\0';
           },
           parameter.help)
        ->required(parameter.required)
        ->type_name("");
    return;
  }
  option = app.add_option_function<std::string>(
      name, [&given, name](const std::string &value) { given[name] = value; }, parameter.help);
  option->required(parameter.required);
  switch (parameter.kind) {
    case Kind::kNumber:
      option->check(CLI::Validator(what_is_no_number, ""))->type_name("N");
      break;
    case Kind::kDescriptor:
      option->check(unworded(CLI::Range(0, 1 << 20)))->type_name("FD");
      break;
    case Kind::kFile:
      option->type_name("FILE");
      break;
    case Kind::kFolder:
      option->type_name("FOLDER");
      break;
    case Kind::kChoice:
      option->check(unworded(one_of(parameter.choices)))->type_name(alternatives(parameter.choices));
      break;
    default:
      option->type_name("TEXT");
      break;
  }
  if (parameter.name[0] != '-' && parameter.kind != Kind::kChoice) option->type_name("");
}

// find_or_make gives the subcommand that `words` name, making those on the way.
CLI::App &find_or_make(CLI::App &app, std::istringstream &words) {
  std::string word;
  if (!(words >> word)) return app;
  const std::vector<CLI::App *> there = app.get_subcommands([&](const CLI::App *sub) { return sub->check_name(word); });
  CLI::App *next = there.empty() ? app.add_subcommand(word)->fallthrough() : there.front();
  app.require_subcommand(1);
  return find_or_make(*next, words);
}

void add_command(CLI::App &app, const Command &command, Chosen &chosen) {
  std::istringstream words(command.words);
  CLI::App &own = find_or_make(app, words);
  own.description(command.help);
  own.footer(command.footer);
  for (const Parameter &parameter : command.parameters) add_parameter(own, parameter, chosen.given);
  own.final_callback([&command, &chosen] { chosen.command = &command; });
}

// A word that begins several commands is described by the words behind it.
void describe_groups(CLI::App &app) {
  for (CLI::App *group : app.get_subcommands([](const CLI::App *) { return true; })) {
    if (!group->get_description().empty()) continue;
    std::string words;
    for (const CLI::App *sub : group->get_subcommands([](const CLI::App *) { return true; })) {
      words += (words.empty() ? "" : ", ") + sub->get_name();
    }
    group->description(words);
  }
}

Format format_of(const Common &common) {
  if (common.has("--json")) return Format::kJson;
  return isatty(STDOUT_FILENO) ? Format::kTerminal : Format::kPlain;
}

bool wants_colour(Format format) {
  const char *no_color = std::getenv("NO_COLOR");
  return format == Format::kTerminal && (no_color == nullptr || no_color[0] == '\0');
}

std::string socket_of(const Common &common) {
  if (const std::string given = common.text_or("--socket", ""); !given.empty()) return given;
  const char *from_environment = secure_getenv("KS_SOCKET");
  return from_environment != nullptr && from_environment[0] != '\0' ? from_environment : HOST_DEFAULT_SOCKET;
}

int report(const Failure &failure) {
  std::fprintf(stderr, "ksctl: %s\n", printable(failure.text()).c_str());
  return static_cast<int>(failure.exit());
}

int run(const Chosen &chosen, const Common &common) {
  const Format format = format_of(common);
  Output output(format, wants_colour(format));
  Session session{output, socket_of(common)};
  Exit exit = Exit::kDone;
  try {
    chosen.command->run(session, Arguments(chosen.given));
  } catch (const Failure &failure) {
    report(failure);
    exit = failure.exit();
  } catch (const std::exception &error) {
    std::fprintf(stderr, "ksctl: %s\n", printable(error.what()).c_str());
    exit = Exit::kFailed;
  }
  // What doesn't get to where it was sent to, as onto a full disk, wasn't printed.
  if ((std::fflush(stdout) != 0 || std::ferror(stdout) != 0) && exit == Exit::kDone) {
    std::fprintf(stderr, "ksctl: standard output: %s; what was to be printed is cut\n", std::strerror(errno));
    exit = Exit::kFailed;
  }
  if (const int number = caught_signal(); number != 0) raise(number);
  return static_cast<int>(exit);
}

}  // namespace

std::vector<const Command *> every_command() {
  std::vector<const Command *> all;
  for (const auto family : kFamilies) {
    for (const Command &command : family()) all.push_back(&command);
  }
  return all;
}

std::span<const Parameter> common_parameters() {
  return kCommon;
}

}  // namespace ksctl

int main(int argc, char **argv) {
  using namespace ksctl;
  std::map<std::string, std::string> common;
  Chosen chosen;
  CLI::App app("ksctl looks after a keystore service and what it keeps.", "ksctl");
  for (const Parameter &parameter : kCommon) add_parameter(app, parameter, common);
  app.set_version_flag("--version", "ksctl " KS_VERSION);
  app.footer(
      "Exit status: 0 done, 1 failed, 2 wrong use, 3 not found, 4 not allowed, 5 no service, 6 expired, 7 conflict.");
  for (const Command *command : every_command()) add_command(app, *command, chosen);
  describe_groups(app);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    return report(Failure(Exit::kUsage, fmt::format("{}; `ksctl --help` tells how it is used", error.what())));
  }
  return run(chosen, Common(common));
}
