// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "fleet_run/notes.h"

#include <charconv>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

namespace fleet_run {
namespace {

constexpr std::string_view kNamePrefix = "key-";

std::string contents_of(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream contents;
  if (!file || !(contents << file.rdbuf())) throw std::runtime_error(path + ": it can't be read");
  return contents.str();
}

template <typename Fixed>
void append_fixed(std::string &out, const Fixed &value) {
  out.append(reinterpret_cast<const char *>(&value), sizeof value);
}

// In cuts values from the front of what is left.
class In {
 public:
  explicit In(std::string_view left) : left_(left) {}

  template <typename Fixed>
  bool take(Fixed &value) {
    if (left_.size() < sizeof value) return false;
    std::memcpy(&value, left_.data(), sizeof value);
    left_.remove_prefix(sizeof value);
    return true;
  }

 private:
  std::string_view left_;
};

// VersionFront is what stands before the rows of a version in a file.
struct VersionFront {
  uint64_t version, entry_count;
  uint32_t machine, puts, deletes, zero;
};

bool take_version(In &in, Version &version) {
  VersionFront front{};
  if (!in.take(front)) return false;
  version = {
      .version = front.version, .entry_count = front.entry_count, .machine = front.machine, .puts = {}, .deletes = {}};
  version.puts.resize(front.puts);
  version.deletes.resize(front.deletes);
  for (RowNote &row : version.puts) {
    if (!in.take(row)) return false;
  }
  for (uint64_t &id : version.deletes) {
    if (!in.take(id)) return false;
  }
  return true;
}

}  // namespace

std::string name_of(uint16_t key) {
  return std::string(kNamePrefix) + std::to_string(key);
}

std::optional<uint16_t> key_of(std::string_view name) {
  if (!name.starts_with(kNamePrefix)) return std::nullopt;
  uint16_t key = 0;
  const char *end = name.data() + name.size();
  const auto [behind, error] = std::from_chars(name.data() + kNamePrefix.size(), end, key);
  return error == std::errc() && behind == end ? std::optional(key) : std::nullopt;
}

void append(std::string &out, const Version &version) {
  append_fixed(out, VersionFront{.version = version.version,
                                 .entry_count = version.entry_count,
                                 .machine = version.machine,
                                 .puts = static_cast<uint32_t>(version.puts.size()),
                                 .deletes = static_cast<uint32_t>(version.deletes.size()),
                                 .zero = 0});
  for (const RowNote &row : version.puts) append_fixed(out, row);
  for (const uint64_t id : version.deletes) append_fixed(out, id);
}

void read_operations(const std::string &path, std::vector<Operation> &operations) {
  const std::string contents = contents_of(path);
  In in(contents);
  for (Operation operation; in.take(operation);) operations.push_back(operation);
}

void read_versions(const std::string &path, std::vector<Version> &versions) {
  const std::string contents = contents_of(path);
  In in(contents);
  for (Version version; take_version(in, version);) versions.push_back(std::move(version));
}

void read_journal(const std::string &path, Run &run) {
  const std::map<std::string_view, std::vector<Span> *> spans{
      {"frozen", &run.frozen}, {"full", &run.full}, {"trouble", &run.trouble}};
  const std::map<std::string_view, int64_t *> numbers{{"max_age", &run.max_age},
                                                      {"answered_within", &run.answered_within}};
  std::istringstream lines(contents_of(path));
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream words(line);
    std::string word;
    words >> word;
    if (const auto list = spans.find(word); list != spans.end()) {
      Span &span = list->second->emplace_back();
      words >> span.machine >> span.from >> span.to;
    } else if (const auto number = numbers.find(word); number != numbers.end()) {
      words >> *number->second;
    } else if (word == "start") {
      Start &start = run.starts.emplace_back();
      words >> start.machine >> start.when;
    } else {
      words.setstate(std::ios::failbit);
    }
    if (!words) throw std::runtime_error(path + ": this isn't a line of a journal: " + line);
  }
}

}  // namespace fleet_run
