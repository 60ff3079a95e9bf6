// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// sdb_folder.h: where a database lies, and whether it is safe to use it there.
#ifndef SDB_FOLDER_H
#define SDB_FOLDER_H

#include <sys/stat.h>

#include <climits>
#include <cstdint>

namespace sdb {

struct Thread;

// Location is a URI taken apart.
struct Location {
  char folder[PATH_MAX];
  const char *name;  // within the URI's own text
};

// parse_uri takes "lmdb:///folder/name" apart; false when it has another form.
bool parse_uri(const char *uri, Location *out_location);

// Folder is an open folder that has been found safe.
//
// Whoever can open LMDB's files can stall or damage everybody who uses them. So a folder belongs to the user of the
// process and has mode 0700. An administrator who wants several users to share a database says so by the folder: it
// belongs to root, to the group of those users, and has exactly mode 2770.
struct Folder {
  int fd;
  bool shared;
  struct stat status;

  // Modes are set to the letter, whatever the umask: the other users of a shared folder need their access.
  mode_t file_mode() const { return shared ? 0660 : 0600; }
};

// open_folder opens the folder, making a private one when it is missing and the folder above it is there.
uint32_t open_folder(Thread *thread, const char *path, Folder *out_folder);

// open_file opens a file of the folder for reading and writing, making an empty one when it is missing. It must be an
// ordinary file that belongs to the user, or in a shared folder to anybody, and that nobody else may write.
uint32_t open_file(Thread *thread, const Folder &folder, const char *path, const char *name, int *out_fd);

}  // namespace sdb

#endif
