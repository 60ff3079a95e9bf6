// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "administration.h"

#include <pwd.h>

namespace ksctl {

Value user_name(uint32_t uid) {
  if (uid == HOST_ALL_UNMAPPED) return "(unmapped)";
  passwd entry{};
  passwd *found = nullptr;
  char texts[4096];
  if (getpwuid_r(uid, &entry, texts, sizeof texts, &found) != 0 || found == nullptr) return {};
  return found->pw_name;
}

void refuse_cut_reply() {
  throw Failure(Exit::kFailed, "the reply isn't whole; service and ksctl are of different versions");
}

}  // namespace ksctl
