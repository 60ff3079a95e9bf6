// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// replay FILE-OR-FOLDER...: gives each file, and each file of a folder, to the target once. It stands in for libFuzzer
// where the compiler has none, so that what was found stays found.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

#include "fuzz.h"

namespace {

std::vector<uint8_t> content_of(const std::filesystem::path &path) {
  std::ifstream file(path, std::ios::binary);
  fuzz::require(file.good(), "a seed can be read");
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

int main(int argc, char **argv) {
  std::set<std::filesystem::path> seeds;  // in the order of their names
  for (int i = 1; i < argc; ++i) {
    if (!std::filesystem::is_directory(argv[i])) {
      seeds.emplace(argv[i]);
      continue;
    }
    for (const auto &entry : std::filesystem::directory_iterator(argv[i])) seeds.insert(entry.path());
  }
  for (const std::filesystem::path &seed : seeds) {
    printf("%s\n", seed.c_str());  // before it runs: the last line names the one that failed
    fflush(stdout);
    const std::vector<uint8_t> content = content_of(seed);
    LLVMFuzzerTestOneInput(content.data(), content.size());
  }
  if (seeds.empty()) fputs("no seeds\n", stderr);
  return seeds.empty() ? 1 : 0;
}
