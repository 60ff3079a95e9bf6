// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "vault/placing.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

#include "base/refuse.h"
#include "base/trust.h"
#include "vault/files.h"

namespace ksd::vault {
namespace {

// In the order in which the old ones go: a vault is never there with another's log.
constexpr std::array kEndings{"-wal", "-witness", ""};

std::string draft_of(const std::string &path) {
  return path + "-restore.new";
}
std::string ready_of(const std::string &path) {
  return path + "-restore";
}
std::string base_name(const std::string &path) {
  return path.substr(path.rfind('/') + 1);  // npos + 1 is 0
}

[[noreturn]] void refuse_place(const std::string &what) {
  const int error = errno;
  refuse("{}: can't be put in its place: {}; look after its disk and folder", what, errno_text(error));
}

void require(bool done, const std::string &what) {
  if (!done) refuse_place(what);
}

void remove_draft(const std::string &path) {
  const std::string vault = draft_of(path) + "/" + base_name(path);
  for (const char *ending : {"", "-wal", "-witness", ".new", ".new-journal", "-journal", "-witness.new"}) {
    unlink((vault + ending).c_str());
  }
  rmdir(draft_of(path).c_str());
}

// Placing moves files between the vault's folder, the one of the new vault, and one in it for the old vault.
class Placing {
 public:
  explicit Placing(const std::string &path)
      : path_(path), ready_(ready_of(path)), new_vault_(ready_ + "/" + base_name(path)), old_(ready_ + "/old") {}

  std::string finish() {
    require(mkdir(old_.c_str(), 0700) == 0 || errno == EEXIST, old_);
    if (file_exists(new_vault_)) {
      // What stands in a place whose new file is still here is the old one.
      for (const std::string ending : kEndings) {
        if (ending == "-witness" && !file_exists(new_vault_ + ending)) continue;
        move(path_ + ending, old_ + "/" + base_name(path_) + ending);
      }
      sync();
      move(new_vault_ + "-witness", path_ + "-witness");
      move(new_vault_, path_);
      sync();
    }
    return put_old_aside();
  }

 private:
  static void move(const std::string &from, const std::string &to) {
    require(rename(from.c_str(), to.c_str()) == 0 || errno == ENOENT, from);
  }

  void sync() const {
    for (const std::string &folder : {old_, ready_, folder_of(path_)}) require(sync_folder(folder), folder);
  }

  std::string put_old_aside() const {
    std::string kept;
    if (rmdir(old_.c_str()) != 0 && errno != ENOENT) {
      require(errno == ENOTEMPTY || errno == EEXIST, old_);
      int number = 1;
      do {
        kept = fmt::format("{}-before-restore-{}", path_, number++);
      } while (file_exists(kept));
      require(rename(old_.c_str(), kept.c_str()) == 0, old_);
    }
    require(rmdir(ready_.c_str()) == 0, ready_);
    require(sync_folder(folder_of(path_)), path_);
    return kept;
  }

  const std::string path_, ready_, new_vault_, old_;
};

}  // namespace

NewVault::NewVault(const std::string &path)
    : path_(path), folder_(draft_of(path)), vault_(folder_ + "/" + base_name(path)) {
  remove_draft(path_);  // of a restore that was cut short
  if (mkdir(folder_.c_str(), 0700) != 0) {
    refuse("{}: can't be made: {}; the new vault is made there first", folder_, errno_text(errno));
  }
}

NewVault::~NewVault() {
  remove_draft(path_);
}

std::string NewVault::place() {
  require(sync_folder(folder_), folder_);
  require(rename(folder_.c_str(), ready_of(path_).c_str()) == 0, folder_);
  require(sync_folder(folder_of(path_)), path_);
  return finish_placing(path_);
}

std::string finish_placing(const std::string &path) {
  if (!file_exists(ready_of(path))) return {};
  if (const auto why = why_others_may_write(ready_of(path))) refuse("{}: {}", path, *why);
  return Placing(path).finish();
}

}  // namespace ksd::vault
