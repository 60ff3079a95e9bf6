// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// trust.h: whether a file is in hands that may decide over keys: this process's user's or root's, and nobody else's.
#ifndef SERVICE_BASE_TRUST_H
#define SERVICE_BASE_TRUST_H

#include <sys/types.h>

#include <optional>
#include <string>

namespace ksd {

// folder_of gives the folder that `path` lies in, "." for a bare name.
std::string folder_of(const std::string &path);

// why_others_may_write tells how somebody else could change the file or folder at `path`, and what to run against it,
// or gives nothing when only this user and root can. A path that can't be examined gives nothing either: whoever opens
// it learns why.
std::optional<std::string> why_others_may_write(const std::string &path);

// why_others_may_replace is that for `path` and for the folder that it stands in, whose writers could put another file
// in its place. In a sticky folder they can't. The file, not the folder, may belong to `owner_too` as well.
std::optional<std::string> why_others_may_replace(const std::string &path, uid_t owner_too = 0);

}  // namespace ksd

#endif
