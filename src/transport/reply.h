// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// reply.h: what every reply begins with.
#ifndef TRANSPORT_REPLY_H
#define TRANSPORT_REPLY_H

#include <stddef.h>
#include <string.h>

#include "ks_types.h"

namespace ks {

// ReplyHead lies at a reply's first byte, of any alignment, and the data behind it. A refusal may end with the result.
struct __attribute__((packed)) ReplyHead {
  KsResult result;
  uint16_t len;  // of the data, in bytes; believed, as no reply is checked to hold that much
};
static_assert(offsetof(ReplyHead, result) == 0 && sizeof(ReplyHead::result) == 4);
static_assert(offsetof(ReplyHead, len) == 4);
static_assert(sizeof(ReplyHead) == 6);

inline KsResult reply_result(const void *payload) {
  KsResult result;
  memcpy(&result, payload, sizeof result);
  return result;
}

inline uint16_t reply_len(const void *payload) {
  uint16_t len;
  memcpy(&len, static_cast<const uint8_t *>(payload) + offsetof(ReplyHead, len), sizeof len);
  return len;
}

// reported_len is the length as reports show it, also of a refusal, which may end before it: then it is 0.
inline uint16_t reported_len(uint16_t size, const void *payload) {
  return size < sizeof(ReplyHead) ? uint16_t{0} : reply_len(payload);
}

inline const uint8_t *reply_data(const void *payload) {
  return static_cast<const uint8_t *>(payload) + sizeof(ReplyHead);
}

// copy_reply_data allocates the length of a success's data in zeroed bytes, stores the block in `out` even when there
// is none, and copies the data and its length.
KsResult copy_reply_data(const void *payload, uint8_t **out, uint16_t *out_len);

// read_exactly copies the reply's data to `output` when it is as long as expected, and returns the final result. Any
// other length is reported and a KS_FAILURE, with nothing written.
KsResult read_exactly(const void *payload, void *output, uint16_t expected_len);

}  // namespace ks

#endif
