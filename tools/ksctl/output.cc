// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "output.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>

namespace ksctl {
namespace {

using Json = nlohmann::ordered_json;

template <typename... Visitors>
struct Overloaded : Visitors... {
  using Visitors::operator()...;
};
template <typename... Visitors>  // which Clang 14 doesn't deduce by itself
Overloaded(Visitors...)->Overloaded<Visitors...>;

Json to_json(const Value &value) {
  return std::visit(Overloaded{[](std::monostate) -> Json { return nullptr; },
                               [](const std::string &text) -> Json { return printable(text); },
                               [](const List &list) {
                                 Json array = Json::array();
                                 for (const Value &element : list) array.push_back(to_json(element));
                                 return array;
                               },
                               [](const Object &object) {
                                 Json map = Json::object();
                                 for (const auto &[key, element] : object) map[key] = to_json(element);
                                 return map;
                               },
                               [](const auto &number) -> Json { return number; }},
                    value.variant());
}

bool is_number(const Value &value) {
  return std::holds_alternative<int64_t>(value.variant()) || std::holds_alternative<uint64_t>(value.variant()) ||
         std::holds_alternative<double>(value.variant());
}

// cell words a value on one line.
std::string cell(const Value &value) {
  return std::visit(Overloaded{[](std::monostate) -> std::string { return "-"; },
                               [](bool truth) -> std::string { return truth ? "yes" : "no"; },
                               [](const std::string &text) { return printable(text); },
                               [](const List &list) {
                                 std::string joined;
                                 for (const Value &element : list)
                                   joined += (joined.empty() ? "" : ", ") + cell(element);
                                 return joined;
                               },
                               [](const Object &object) {
                                 std::string joined;
                                 for (const auto &[key, element] : object) {
                                   joined += (joined.empty() ? "" : ", ") + key + " " + cell(element);
                                 }
                                 return joined;
                               },
                               [](double number) {
                                 char digits[32];
                                 const bool large = number >= 100 || number <= -100;
                                 std::snprintf(digits, sizeof digits, large ? "%.0f" : "%.3g", number);
                                 return std::string(digits);
                               },
                               [](auto integer) { return std::to_string(integer); }},
                    value.variant());
}

const Value *member(const Value &row, const char *key) {
  const Object *object = std::get_if<Object>(&row.variant());
  if (object == nullptr) return nullptr;
  const auto found =
      std::find_if(object->begin(), object->end(), [key](const auto &pair) { return pair.first == key; });
  return found == object->end() ? nullptr : &found->second;
}

// The length of a character of UTF-8 at the start of `text`, 0 when it is none that a terminal shows as it stands.
size_t printable_length(std::string_view text) {
  const auto byte = [text](size_t i) { return static_cast<uint8_t>(text[i]); };
  if (byte(0) < 0x80) return byte(0) >= 0x20 && byte(0) != 0x7f ? 1 : 0;
  const size_t length = byte(0) >= 0xf5 ? 0 : byte(0) >= 0xf0 ? 4 : byte(0) >= 0xe0 ? 3 : byte(0) >= 0xc2 ? 2 : 0;
  if (length == 0 || length > text.size()) return 0;
  uint32_t code = byte(0) & (0xffu >> (length + 1));
  for (size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return 0;
    code = code << 6 | (byte(i) & 0x3f);
  }
  const bool overlong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
  const bool surrogate = code >= 0xd800 && code < 0xe000;
  const bool control = code < 0xa0 || (code >= 0x2028 && code <= 0x202e) || (code >= 0x2066 && code <= 0x2069);
  return overlong || surrogate || control || code > 0x10ffff ? 0 : length;
}

// How many characters a terminal needs for what is printable.
size_t width(const std::string &text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xc0) != 0x80; }));
}

std::string padded(const std::string &text, size_t to, bool right) {
  const std::string blanks(to - std::min(to, width(text)), ' ');
  return right ? blanks + text : text + blanks;
}

void flatten(const std::string &prefix, const Value &value, std::vector<std::pair<std::string, std::string>> &lines) {
  const Object *object = std::get_if<Object>(&value.variant());
  if (object == nullptr) return lines.emplace_back(prefix, cell(value)), void();
  for (const auto &[key, element] : *object) {
    flatten(prefix.empty() ? key : fmt::format("{}.{}", prefix, key), element, lines);
  }
}

void print(const std::string &line) {
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fputc('\n', stdout);
}

}  // namespace

std::string json_of(const Value &value) {
  return to_json(value).dump();
}

std::string printable(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const size_t length = printable_length(text);
    if (length == 0) {
      char escaped[5];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned>(static_cast<uint8_t>(text[0])));
      out += escaped;
    } else {
      out += text.substr(0, length);
    }
    text.remove_prefix(std::max<size_t>(length, 1));
  }
  return out;
}

std::string duration_in_words(uint64_t seconds) {
  constexpr struct {
    uint64_t seconds;
    const char *name;
  } units[] = {{86400, " d"}, {3600, " h"}, {60, " min"}, {1, " s"}};
  std::string words;
  int named = 0;
  for (const auto &unit : units) {
    if (named == 2 || (seconds < unit.seconds && !(unit.seconds == 1 && words.empty()))) continue;
    words += (words.empty() ? "" : " ") + std::to_string(seconds / unit.seconds) + unit.name;
    seconds %= unit.seconds;
    ++named;
  }
  return words;
}

void Output::table(const char *name, std::span<const Column> columns, const List &rows, const char *nothing) {
  if (format_ == Format::kJson) return json(Object{{name, rows}});
  if (rows.empty()) return format_ == Format::kTerminal ? print(nothing) : void();

  std::vector<size_t> widths;
  std::vector<bool> right;
  for (const Column &column : columns) {
    size_t widest = width(column.title);
    bool numbers = true;
    for (const Value &row : rows) {
      const Value *value = member(row, column.key);
      if (value == nullptr) continue;
      widest = std::max(widest, width(cell(*value)));
      numbers = numbers && is_number(*value);
    }
    widths.push_back(widest);
    right.push_back(numbers);
  }
  const auto line = [&](auto &&text_of) {
    std::string text;
    for (size_t i = 0; i < columns.size(); ++i) {
      if (format_ == Format::kPlain) {
        text += (i == 0 ? "" : "\t") + text_of(i);
      } else {
        text += (i == 0 ? "" : "  ") + padded(text_of(i), widths[i], right[i]);
      }
    }
    while (format_ == Format::kTerminal && text.ends_with(' ')) text.pop_back();
    return text;
  };
  if (format_ == Format::kTerminal) {
    print(strong(line([&](size_t i) { return std::string(columns[i].title); })));
  }
  for (const Value &row : rows) {
    print(line([&](size_t i) {
      const Value *value = member(row, columns[i].key);
      return value == nullptr ? std::string("-") : cell(*value);
    }));
  }
}

void Output::fields(const Object &object) {
  if (format_ == Format::kJson) return json(object);
  std::vector<std::pair<std::string, std::string>> lines;
  flatten("", object, lines);
  size_t widest = 0;
  for (const auto &[key, text] : lines) widest = std::max(widest, width(key));
  for (const auto &[key, text] : lines) {
    print(format_ == Format::kPlain ? fmt::format("{}\t{}", key, text)
                                    : fmt::format("{}  {}", strong(padded(key, widest, false)), text));
  }
}

void Output::done(const std::string &sentence, const Object &object) {
  if (format_ == Format::kJson) return json(object);
  if (format_ == Format::kTerminal) print(printable(sentence));
}

void Output::text(std::string_view page, const Object &object) {
  if (format_ == Format::kJson) return json(object);
  std::fwrite(page.data(), 1, page.size(), stdout);
}

void Output::json(const Value &value) {
  print(json_of(value));
}

void Output::complain(const std::string &line) const {
  std::fprintf(stderr, "%s\n", printable(line).c_str());
}

std::string Output::alarm(const std::string &text) const {
  return colour_ ? "\033[1;31m" + text + "\033[0m" : text;
}

std::string Output::strong(const std::string &text) const {
  return colour_ ? "\033[1m" + text + "\033[0m" : text;
}

}  // namespace ksctl
