// request.h: what the requests of the cryptographic operations have in common.
#ifndef CRYPTO_REQUEST_H
#define CRYPTO_REQUEST_H

#include "transport/sections.h"

namespace ks {

// Most data that DES, digests and HMACs take in one request, in bytes; AES takes all that 16 bits can count.
inline constexpr uint16_t kMaxData = 1024;

}  // namespace ks

#endif
