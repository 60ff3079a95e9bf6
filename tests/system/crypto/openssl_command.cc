// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "openssl_command.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "service/service_process.h"
#include "temporary_folder.h"

namespace openssl {
namespace {

// Folder is for the files that the command reads and writes: thousands of small ones, so rather in memory.
class Folder {
 public:
  std::string write(const std::string &name, const ByteString &content) const {
    std::ofstream(path(name), std::ios::binary)
        .write(reinterpret_cast<const char *>(content.data()), static_cast<std::streamsize>(content.size()));
    return path(name);
  }
  ByteString read(const std::string &name) const {
    std::ifstream file(path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  std::string path(const std::string &name) const { return folder_.path() + "/" + name; }

 private:
  const ks_test::TemporaryFolder folder_{access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp"};
};

// MD4, DES and RC4 come from the legacy provider.
std::string run(std::vector<std::string> arguments, const std::vector<std::string> &files = {}) {
  arguments.insert(arguments.begin(), "openssl");
  arguments.insert(arguments.end(), {"-provider", "legacy", "-provider", "default"});
  arguments.insert(arguments.end(), files.begin(), files.end());
  const ks_test::ProgramRun done = ks_test::run_program(arguments);
  if (done.status != 0) throw std::runtime_error("openssl " + arguments[1] + " failed: " + done.errors);
  return done.output;
}

ByteString cipher(const char *direction, const std::string &name, const ByteString &key, const ByteString &iv,
                  const ByteString &data) {
  const Folder folder;
  std::vector<std::string> arguments{"enc",    "-" + name,        "-K",  hex(key),
                                     "-nopad", direction,         "-in", folder.write("in", data),
                                     "-out",   folder.path("out")};
  if (!iv.empty()) arguments.insert(arguments.end(), {"-iv", hex(iv)});
  run(arguments);
  return folder.read("out");
}

std::vector<ByteString> digest_files(std::vector<std::string> arguments, const std::vector<ByteString> &texts) {
  const Folder folder;
  std::vector<std::string> files;
  for (const ByteString &one : texts) files.push_back(folder.write(std::to_string(files.size()), one));
  arguments.push_back("-r");
  std::istringstream lines(run(arguments, files));
  std::vector<ByteString> all;
  for (std::string line; std::getline(lines, line);) all.push_back(published::unhex(line.substr(0, line.find(' '))));
  if (all.size() != texts.size()) throw std::runtime_error("openssl dgst printed another number of lines");
  return all;
}

}  // namespace

std::string hex(const ByteString &bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string digits;
  for (const uint8_t byte : bytes) {
    digits += kDigits[byte >> 4];
    digits += kDigits[byte & 15];
  }
  return digits;
}

ByteString encrypt(const std::string &name, const ByteString &key, const ByteString &iv, const ByteString &data) {
  return cipher("-e", name, key, iv, data);
}

ByteString decrypt(const std::string &name, const ByteString &key, const ByteString &iv, const ByteString &data) {
  return cipher("-d", name, key, iv, data);
}

std::vector<ByteString> digests(const std::string &digest, const std::vector<ByteString> &texts) {
  return digest_files({"dgst", "-" + digest}, texts);
}

std::vector<ByteString> hmacs(const std::string &digest, const ByteString &key, const std::vector<ByteString> &texts) {
  return digest_files({"dgst", "-" + digest, "-mac", "HMAC", "-macopt", "hexkey:" + hex(key)}, texts);
}

}  // namespace openssl
