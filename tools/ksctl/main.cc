// ksctl: the operator's tool. The command line is made of the commands' rows and read here; what a command does stands
// in the file of its family.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <sstream>

#include "command.h"
#include "host_wire.h"

namespace ksctl {
namespace {

constexpr std::array kFamilies{
    service_commands,
    history_commands,
    capture_commands,
    doctor_commands,
};

// What may be given with every command, in front of it or behind.
struct Common {
  std::string socket;
  bool json = false;
};

// Chosen is the command that the command line asks for, with what was given to it.
struct Chosen {
  const Command *command = nullptr;
  std::map<std::string, std::string> given;
};

CLI::Validator one_of(const char *choices) {
  std::vector<std::string> names;
  std::istringstream parts(choices);
  for (std::string name; std::getline(parts, name, ',');) names.push_back(name);
  return CLI::IsMember(names);
}

void add_parameter(CLI::App &app, const Parameter &parameter, const std::shared_ptr<Chosen> &chosen) {
  const std::string name = parameter.name;
  CLI::Option *option = nullptr;
  if (parameter.kind == Kind::kFlag) {
    app.add_flag_callback(
        name, [chosen, name] { chosen->given[name]; }, parameter.help);
    return;
  }
  if (parameter.kind == Kind::kCommand) {
    // Each with a NUL behind it, which no argument can hold.
    app.add_option_function<std::vector<std::string>>(
           name,
           [chosen, name](const std::vector<std::string> &words) {
             for (const std::string &word : words) chosen->given[name] += word + '\0';
           },
           parameter.help)
        ->required(parameter.required)
        ->type_name("");
    return;
  }
  option = app.add_option_function<std::string>(
      name, [chosen, name](const std::string &value) { chosen->given[name] = value; }, parameter.help);
  option->required(parameter.required);
  switch (parameter.kind) {
    case Kind::kNumber:
      option->check(CLI::Range(uint64_t{0}, UINT64_MAX))->type_name("N");
      break;
    case Kind::kDescriptor:
      option->check(CLI::Range(0, 1 << 20))->type_name("FD");
      break;
    case Kind::kFile:
      option->type_name("FILE");
      break;
    case Kind::kFolder:
      option->type_name("FOLDER");
      break;
    case Kind::kChoice:
      option->check(one_of(parameter.choices))->type_name("");
      break;
    default:
      option->type_name("TEXT");
      break;
  }
  if (parameter.name[0] != '-') option->type_name("");
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

void add_command(CLI::App &app, const Command &command, const std::shared_ptr<Chosen> &chosen) {
  std::istringstream words(command.words);
  CLI::App &own = find_or_make(app, words);
  own.description(command.help);
  own.footer(command.footer);
  for (const Parameter &parameter : command.parameters) add_parameter(own, parameter, chosen);
  own.final_callback([&command, chosen] { chosen->command = &command; });
}

Format format_of(const Common &common) {
  if (common.json) return Format::kJson;
  return isatty(STDOUT_FILENO) ? Format::kTerminal : Format::kPlain;
}

bool wants_colour(Format format) {
  const char *no_color = std::getenv("NO_COLOR");
  return format == Format::kTerminal && (no_color == nullptr || no_color[0] == '\0');
}

std::string socket_of(const Common &common) {
  if (!common.socket.empty()) return common.socket;
  const char *from_environment = secure_getenv("KS_SOCKET");
  return from_environment != nullptr && from_environment[0] != '\0' ? from_environment : HOST_DEFAULT_SOCKET;
}

int run(const Chosen &chosen, const Common &common) {
  const Format format = format_of(common);
  Output output(format, wants_colour(format));
  Session session{output, socket_of(common)};
  Exit exit = Exit::kDone;
  try {
    chosen.command->run(session, Arguments(chosen.given));
  } catch (const Failure &failure) {
    std::fprintf(stderr, "ksctl: %s\n", printable(failure.text()).c_str());
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
  return static_cast<int>(exit);
}

}  // namespace
}  // namespace ksctl

int main(int argc, char **argv) {
  using namespace ksctl;
  Common common;
  const auto chosen = std::make_shared<Chosen>();
  CLI::App app("ksctl looks after a keystore service and what it keeps.", "ksctl");
  app.add_option("--socket", common.socket, "Socket of the service, instead of KS_SOCKET or " HOST_DEFAULT_SOCKET)
      ->type_name("FILE");
  app.add_flag("--json", common.json, "Print JSON, one object on one line");
  app.set_version_flag("--version", "ksctl " KS_VERSION);
  app.footer(
      "Exit status: 0 done, 1 failed, 2 wrong use, 3 not found, 4 not allowed, 5 no service, 6 expired, 7 conflict.");
  for (const auto family : kFamilies) {
    for (const Command &command : family()) add_command(app, command, chosen);
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    return app.exit(error) == 0 ? 0 : static_cast<int>(Exit::kUsage);
  }
  return run(*chosen, common);
}
