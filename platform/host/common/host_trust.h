// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// host_trust.h: whether what is found where the service should be may be taken for the service.
//
// A client sends secrets to whoever listens at the socket's path. So the path must be one that only its owner can fill,
// and the listener must be one who could have put it there in the first place.
#ifndef HOST_TRUST_H
#define HOST_TRUST_H

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>

namespace host {

// check_folder_of finds the owner of the folder that the path's last part is in. Returns false with errno when there is
// none, or EPERM when others than its owner could put something there: they may write to the folder itself, sticky or
// not, or could have put the folder there, since they may write to one above it. (In a sticky one, such as /tmp, only
// what belongs to root or to the caller is the caller's own choice.) With EPERM, `out_level` says which folder others
// may write: 0 for the path's own, 1 for the one above it, and so on.
bool check_folder_of(const char *path, uid_t *out_owner, uint32_t *out_level);
inline bool check_folder_of(const char *path, uid_t *out_owner) {
  uint32_t level;
  return check_folder_of(path, out_owner, &level);
}

// is_trusted_owner tells whether what belongs to `owner` can be the service's: root's, the caller's own, or of the
// owner of the socket's folder.
bool is_trusted_owner(uid_t owner, uid_t folder_owner);

// check_peer returns false with errno unless a trusted owner listens at the other end; EPERM for a stranger, whose
// number is then `out_peer`.
bool check_peer(int socket, uid_t folder_owner, uint32_t *out_peer);

}  // namespace host

#endif
