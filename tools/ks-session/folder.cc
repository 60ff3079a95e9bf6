// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "folder.h"

#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace ks_session {
namespace {

constexpr size_t kLongestFolder = sizeof(sockaddr_un{}.sun_path) - sizeof "/ksd.sock";

[[noreturn]] void fail(const std::string &what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

// As a text of TOML, whatever characters a folder's name is made of.
std::string quoted(const std::string &text) {
  std::string result = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') result += '\\';
    result += c;
  }
  return result + '"';
}

}  // namespace

Folder::Folder(const std::string &keep) {
  if (keep.empty()) {
    make_fresh();
    remover_.watch_over(path_);
  } else {
    use(keep);
  }
  if (mkdir(file("cache").c_str(), 0700) < 0 && errno != EEXIST) fail(file("cache"));
}

void Folder::make_fresh() {
  const char *base = std::getenv("TMPDIR");
  std::string name = base != nullptr ? base : "/tmp";
  name += "/ks-XXXXXX";
  if (name.size() > kLongestFolder || name.front() != '/') name = "/tmp/ks-XXXXXX";
  if (mkdtemp(name.data()) == nullptr) fail("can't make a folder " + name);
  path_ = name;
}

void Folder::use(const std::string &keep) {
  if (mkdir(keep.c_str(), 0700) < 0 && errno != EEXIST) fail("can't make the folder " + keep);
  std::array<char, PATH_MAX> absolute;
  if (realpath(keep.c_str(), absolute.data()) == nullptr) fail(keep);
  path_ = absolute.data();
  check_length();
  struct stat status {};
  if (stat(path_.c_str(), &status) < 0) fail(path_);
  if (!S_ISDIR(status.st_mode) || status.st_uid != geteuid() || (status.st_mode & 077) != 0) {
    throw std::runtime_error(path_ + ": isn't a folder of this user alone; run chmod 700 on it or name another");
  }
}

void Folder::check_length() const {
  if (path_.size() <= kLongestFolder) return;
  throw std::runtime_error(path_ + ": too long for the socket in it; " + std::to_string(kLongestFolder) +
                           " bytes are possible");
}

void Folder::write_config(uint16_t vdc) const {
  std::ofstream config(file("ksd.toml"));
  config << "# Written by ks-session, anew for each session.\n"
         << "[service]\nsocket = " << quoted(file("ksd.sock")) << "\nvault = " << quoted(file("vault.db"))
         << "\nmaster_key_file = " << quoted(file("master.key"))
         << "\ncache_uri = " << quoted("lmdb://" + file("cache")) << '\n'
         << "allow_nobody = true\n\n"                             // whoever this is, nobody else reaches the service
         << "[administrators]\nusers = [" << getuid() << "]\n\n"  // the service is this user's own
         << "[[vdc]]\nid = " << vdc << "\nusers = [" << getuid() << "]\n";
  config.close();
  if (!config) fail("can't write " + file("ksd.toml"));
}

}  // namespace ks_session
