// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// explain.cc: what a result code means, from the table in codes.cc.
#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <vector>

#include "codes.h"
#include "command.h"

namespace ksctl {
namespace {

std::string number_text(const Code &code) {
  return code.number > UINT16_MAX ? fmt::format("0x{:08x}", code.number) : std::to_string(code.number);
}

std::vector<Code> every_code() {
  std::vector<Code> all(result_codes().begin(), result_codes().end());
  all.insert(all.end(), cache_codes().begin(), cache_codes().end());
  return all;
}

std::string upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
  return text;
}

// As printed: decimal, or hexadecimal behind 0x.
bool is_number_of(const std::string &given, const Code &code) {
  const bool is_hex = given.starts_with("0x") || given.starts_with("0X");
  const char *const begin = given.data() + (is_hex ? 2 : 0);
  const char *const end = given.data() + given.size();
  uint32_t number = 0;
  const auto [stop, error] = std::from_chars(begin, end, number, is_hex ? 16 : 10);
  return error == std::errc() && stop == end && number == code.number;
}

// A name with or without "KS_" at its start, in capitals or not.
bool is_name_of(const std::string &given, const Code &code) {
  return upper(given) == upper(code.name) || "KS_" + upper(given) == upper(code.name);
}

Object described(const Code &code) {
  return {{"code", number_text(code)},
          {"name", code.name},
          {"text", text_of(code)},
          {"causes", code.causes},
          {"remedy", code.remedy}};
}

// Words that a table of Markdown takes as they stand.
std::string row(const Code &code) {
  const bool is_constant = std::string_view(code.name).starts_with("KS_");
  const char *const quote = is_constant ? "`" : "";
  return fmt::format("| {} | {}{}{} | {} | {} | {} |\n", number_text(code), quote, code.name, quote, text_of(code),
                     code.causes, code.remedy);
}

std::string section(const char *title, std::span<const Code> codes) {
  std::string text =
      fmt::format("\n## {}\n\n| code | name | text | when | what to do |\n|---|---|---|---|---|\n", title);
  for (const Code &code : codes) text += row(code);
  return text;
}

std::string page() {
  return "# Result codes\n\n"
         "Every code that an operation may answer, and those that the PAC cache shows in reports. `ksctl explain CODE` "
         "tells the\nsame of one of them. This page is what `ksctl explain --page` prints; edit the table in "
         "`tools/ksctl/codes.cc`.\nWhich operation answers which code is told in its header.\n" +
         section("Results of operations", result_codes()) + "\nCodes 15 to 20 are unassigned.\n" +
         section("Codes of the PAC cache", cache_codes());
}

void explain(Session &session, const Arguments &arguments) {
  if (arguments.has("--page")) return session.output.text(page(), Object{{"page", page()}});
  const std::vector<Code> all = every_code();
  if (!arguments.has("CODE")) {
    static constexpr Column kColumns[] = {{"code", "CODE"}, {"name", "NAME"}, {"text", "TEXT"}};
    List rows;
    for (const Code &code : all) rows.emplace_back(described(code));
    return session.output.table("codes", kColumns, rows, "");
  }

  const std::string &given = arguments.text("CODE");
  const auto found = std::find_if(
      all.begin(), all.end(), [&](const Code &code) { return is_number_of(given, code) || is_name_of(given, code); });
  if (found == all.end()) {
    throw Failure(Exit::kNotFound, fmt::format("{}: no such code; `ksctl explain` lists them", given));
  }
  session.output.fields(described(*found));
}

constexpr Parameter kExplain[] = {
    {"CODE", Kind::kText, "A code in decimal, or behind 0x, or its name; without one, all are listed"},
    {"--page", Kind::kFlag, "Print all as the page docs/codes.md"},
};

}  // namespace

std::span<const Command> explain_commands() {
  static constexpr Command kCommands[] = {
      {"explain", "Tell what a result code means, its usual causes, and what to do", kExplain, explain},
  };
  return kCommands;
}

}  // namespace ksctl
