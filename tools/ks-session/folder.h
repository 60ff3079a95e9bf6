// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// folder.h: the folder in which a session keeps everything: socket, state, history, configuration, vault, cache, log.
#ifndef TOOLS_KS_SESSION_FOLDER_H
#define TOOLS_KS_SESSION_FOLDER_H

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "common/remover.h"

namespace ks_session {

class Folder {
 public:
  // An empty `keep` makes a fresh folder that goes with the object, or with this process and the service when they are
  // killed. Otherwise `keep` is made when absent, and stays. Throws std::runtime_error with what is wrong and what to
  // do.
  explicit Folder(const std::string &keep);
  Folder(const Folder &) = delete;
  Folder &operator=(const Folder &) = delete;

  const std::string &path() const { return path_; }
  std::string file(const char *name) const { return path_ + '/' + name; }

  // lifeline is for the service to inherit, so that the folder stays until it has ended too; -1 for none.
  int lifeline() const { return remover_.lifeline(); }

  // write_config writes a configuration with this user in `vdc` and the user's cache in the folder.
  void write_config(uint16_t vdc) const;

 private:
  void make_fresh();
  void use(const std::string &keep);
  void check_length() const;

  std::string path_;
  ks_tools::Remover remover_;
};

}  // namespace ks_session

#endif
