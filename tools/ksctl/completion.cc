// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// completion.cc: completions for shells, made from the table of commands.
//
// Each script finds the words of the command so far, with options and their values left out, and looks up what may come
// there: further words, options, an argument.
#include <algorithm>
#include <map>
#include <set>
#include <sstream>
#include <vector>

#include "command.h"

namespace ksctl {
namespace {

struct Word {
  std::string word;
  std::string help;
};

// Place is what may come behind the words of a command, or of the beginning of one.
struct Place {
  std::vector<Word> words;
  std::vector<Parameter> options;    // those of all commands left out
  std::vector<Parameter> arguments;  // without dashes
};

using Places = std::map<std::string, Place>;  // by the words, parted by blanks

bool is_option(const Parameter &parameter) {
  return parameter.name[0] == '-';
}

void add_word(Places &places, const std::string &before, const std::string &word, const std::string &help) {
  std::vector<Word> &words = places[before].words;
  const auto found = std::find_if(words.begin(), words.end(), [&](const Word &there) { return there.word == word; });
  if (found == words.end()) words.push_back({word, help});
}

Places places() {
  Places places;
  for (const Command *command : every_command()) {
    std::istringstream words(command->words);
    std::string before;
    for (std::string word; words >> word;) {
      const std::string behind = before.empty() ? word : before + " " + word;
      add_word(places, before, word, behind == command->words ? command->help : "");
      before = behind;
    }
    places[before];  // also that of a command without parameters
    for (const Parameter &parameter : command->parameters) {
      (is_option(parameter) ? places[before].options : places[before].arguments).push_back(parameter);
    }
  }
  for (auto &[before, place] : places) {
    place.options.insert(place.options.end(), common_parameters().begin(), common_parameters().end());
    place.options.push_back({"--help", Kind::kFlag, "Print this and end"});
  }
  places[""].options.push_back({"--version", Kind::kFlag, "Print the version and end"});
  return places;
}

// The options of all places whose value is the next word.
std::set<std::string> options_with_value(const Places &places) {
  std::set<std::string> names;
  for (const auto &[before, place] : places) {
    for (const Parameter &option : place.options) {
      if (option.kind != Kind::kFlag) names.insert(option.name);
    }
  }
  return names;
}

std::string joined(const auto &names, const char *between) {
  std::string all;
  for (const auto &name : names) all += (all.empty() ? "" : between) + std::string(name);
  return all;
}

std::string choices_of(const Parameter &parameter) {
  std::string choices = parameter.choices;
  std::replace(choices.begin(), choices.end(), ',', ' ');
  return choices;
}

// Quoted for bash and zsh.
std::string quoted(const std::string &text) {
  std::string out = "'";
  for (const char c : text) out += c == '\'' ? "'\\''" : std::string(1, c);
  return out + "'";
}

std::string quoted_for_fish(const std::string &text) {
  std::string out = "'";
  for (const char c : text) out += (c == '\'' || c == '\\' ? "\\" : "") + std::string(1, c);
  return out + "'";
}

std::vector<std::string> quoted_paths(const Places &places) {
  std::vector<std::string> paths;
  for (const auto &[before, place] : places) {
    if (!before.empty()) paths.push_back(quoted(before));
  }
  return paths;
}

// value completes a value, in the words of one shell.
using ValueWriter = std::string(const Parameter &parameter);

std::string value_in_bash(const Parameter &parameter) {
  switch (parameter.kind) {
    case Kind::kFile:
      return "_ksctl_reply -f";
    case Kind::kFolder:
      return "_ksctl_reply -d";
    case Kind::kChoice:
      return "_ksctl_reply -W " + quoted(choices_of(parameter));
    default:
      return ":";
  }
}

std::string value_in_zsh(const Parameter &parameter) {
  switch (parameter.kind) {
    case Kind::kFile:
      return "_files";
    case Kind::kFolder:
      return "_files -/";
    case Kind::kChoice:
      return "compadd -- " + choices_of(parameter);
    default:
      return "_message " + quoted(parameter.help);
  }
}

// The rows of `case` for the value behind an option, and for an argument in its place.
std::string value_cases(const Places &places, ValueWriter *writer) {
  std::string text;
  for (const auto &[before, place] : places) {
    for (const Parameter &option : place.options) {
      if (option.kind == Kind::kFlag) continue;
      text += "    " + quoted(before + ":" + option.name) + ") " + writer(option) + "; return ;;\n";
    }
  }
  return text;
}

std::string argument_cases(const Places &places, ValueWriter *writer) {
  std::string text;
  for (const auto &[before, place] : places) {
    for (size_t i = 0; i < place.arguments.size(); ++i) {
      text += "    " + quoted(before + ":" + std::to_string(i)) + ") " + writer(place.arguments[i]) + "; return ;;\n";
    }
  }
  return text;
}

// What bash and zsh have in common: `at` becomes the words of the command so far, `given` the number of arguments
// behind them. The array of words and the number of the present one differ in name.
std::string finding_the_place(const Places &places, const char *word, const char *first, const char *current) {
  return "  local at='' given=0 i next\n"
         "  for ((i = " +
         std::string(first) + "; i < " + current + "; i++)); do\n    next=" + word +
         "\n"
         "    case $next in\n      " +
         joined(options_with_value(places), " | ") +
         ") ((i += 1)); continue ;;\n"
         "      -*) continue ;;\n"
         "    esac\n"
         "    case ${at:+$at }$next in\n      " +
         joined(quoted_paths(places), " | ") +
         ") at=${at:+$at }$next ;;\n"
         "      *) ((given += 1)) ;;\n"
         "    esac\n"
         "  done\n";
}

std::string for_bash() {
  const Places all = places();
  std::string text =
      "# Completion of ksctl for bash, made by `ksctl completion bash`. Source it, or keep it as\n"
      "# /usr/share/bash-completion/completions/ksctl.\n"
      "_ksctl_reply() {\n"
      "  [[ $1 == -W ]] || compopt -o filenames 2>/dev/null\n"
      "  mapfile -t COMPREPLY < <(compgen \"$@\" -- \"${COMP_WORDS[COMP_CWORD]}\")\n"
      "}\n\n"
      "_ksctl() {\n"
      "  COMPREPLY=()\n" +
      finding_the_place(all, "${COMP_WORDS[i]}", "1", "COMP_CWORD") +
      "  case \"$at:${COMP_WORDS[COMP_CWORD - 1]}\" in\n" + value_cases(all, value_in_bash) +
      "  esac\n"
      "  if [[ ${COMP_WORDS[COMP_CWORD]} == -* ]]; then\n"
      "    case $at in\n";
  for (const auto &[before, place] : all) {
    std::vector<std::string> names;
    for (const Parameter &option : place.options) names.emplace_back(option.name);
    text += "      " + quoted(before) + ") _ksctl_reply -W " + quoted(joined(names, " ")) + " ;;\n";
  }
  text +=
      "    esac\n"
      "    return\n"
      "  fi\n"
      "  case $at:$given in\n" +
      argument_cases(all, value_in_bash) + "  esac\n  case $at in\n";
  for (const auto &[before, place] : all) {
    std::vector<std::string> names;
    for (const Word &word : place.words) names.push_back(word.word);
    if (!names.empty()) text += "    " + quoted(before) + ") _ksctl_reply -W " + quoted(joined(names, " ")) + " ;;\n";
  }
  return text + "  esac\n}\n\ncomplete -F _ksctl ksctl\n";
}

// A list for zsh's _describe: names, and behind a colon what they are for.
std::string with_help(const auto &list, auto &&name_of) {
  std::string text = "(";
  for (const auto &element : list) text += " " + quoted(std::string(name_of(element)) + ":" + element.help);
  return text + " )";
}

std::string for_zsh() {
  const Places all = places();
  std::string text =
      "#compdef ksctl\n"
      "# Completion of ksctl for zsh, made by `ksctl completion zsh`. Keep it as _ksctl in a folder of $fpath.\n"
      "_ksctl() {\n"
      "  local -a list\n" +
      finding_the_place(all, "${words[i]}", "2", "CURRENT") + "  case \"$at:${words[CURRENT - 1]}\" in\n" +
      value_cases(all, value_in_zsh) +
      "  esac\n"
      "  if [[ ${words[CURRENT]} == -* ]]; then\n"
      "    case $at in\n";
  for (const auto &[before, place] : all) {
    text += "      " + quoted(before) +
            ") list=" + with_help(place.options, [](const Parameter &option) { return option.name; }) + " ;;\n";
  }
  text +=
      "    esac\n"
      "    _describe option list\n"
      "    return\n"
      "  fi\n"
      "  case $at:$given in\n" +
      argument_cases(all, value_in_zsh) + "  esac\n  case $at in\n";
  for (const auto &[before, place] : all) {
    if (place.words.empty()) continue;
    text += "    " + quoted(before) + ") list=" + with_help(place.words, [](const Word &word) { return word.word; }) +
            "; _describe command list ;;\n";
  }
  return text + "  esac\n}\n\n_ksctl \"$@\"\n";
}

std::string value_in_fish(const Parameter &parameter) {
  switch (parameter.kind) {
    case Kind::kFlag:
      return "";
    case Kind::kFile:
      return " -r -F";
    case Kind::kFolder:
      return " -x -a '(__fish_complete_directories)'";
    case Kind::kChoice:
      return " -x -a " + quoted_for_fish(choices_of(parameter));
    default:
      return " -x";
  }
}

std::string for_fish() {
  const Places all = places();
  std::string text =
      "# Completion of ksctl for fish, made by `ksctl completion fish`. Keep it as\n"
      "# ~/.config/fish/completions/ksctl.fish.\n"
      "function __ksctl_at --description 'whether these are the words of the command so far'\n"
      "  set -l words\n"
      "  set -l skip 0\n"
      "  for word in (commandline -opc)[2..]\n"
      "    if test $skip = 1\n"
      "      set skip 0\n"
      "      continue\n"
      "    end\n"
      "    switch $word\n"
      "      case " +
      joined(options_with_value(all), " ") +
      "\n"
      "        set skip 1\n"
      "      case '-*'\n"
      "      case '*'\n"
      "        set -a words $word\n"
      "    end\n"
      "  end\n"
      "  test \"$words\" = \"$argv[1]\"; and return\n"
      "  test -n \"$argv[2]\"; and string match -q -- \"$argv[1] *\" \"$words\"\n"
      "end\n\n"
      "complete -c ksctl -f\n";
  for (const auto &[before, place] : all) {
    const std::string here = "complete -c ksctl -n \"__ksctl_at " + quoted_for_fish(before) + "\"";
    const std::string behind = "complete -c ksctl -n \"__ksctl_at " + quoted_for_fish(before) + " too\"";
    for (const Word &word : place.words) {
      text += here + " -a " + word.word + " -d " + quoted_for_fish(word.help) + "\n";
    }
    for (const Parameter &argument : place.arguments) {
      if (const std::string value = value_in_fish(argument); value != " -x") text += here + value + "\n";
    }
    for (const Parameter &option : place.options) {
      text +=
          behind + " -l " + (option.name + 2) + value_in_fish(option) + " -d " + quoted_for_fish(option.help) + "\n";
    }
  }
  return text;
}

void completion(Session &session, const Arguments &arguments) {
  const std::string &shell = arguments.text("SHELL");
  const std::string script = shell == "bash" ? for_bash() : shell == "zsh" ? for_zsh() : for_fish();
  session.output.text(script, Object{{"shell", shell}, {"script", script}});
}

constexpr Parameter kCompletion[] = {{"SHELL", Kind::kChoice, "The shell", true, "bash,zsh,fish"}};

}  // namespace

std::span<const Command> completion_commands() {
  static constexpr Command kCommands[] = {
      {"completion", "Print a shell's completion of this command line", kCompletion, completion,
       "For bash: `source <(ksctl completion bash)`."},
  };
  return kCommands;
}

}  // namespace ksctl
