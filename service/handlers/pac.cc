// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// pac.cc: the messages on PACs as such: store, presence, and the T-PRF on a PAC's key. A PAC's metadata is opaque here:
// whatever a client stores comes back as it was, and only the reader judges it.
#include <array>

#include "crypto/hmac.h"
#include "handlers/handler.h"
#include "handlers/named_key.h"
#include "ks_pac.h"

namespace ksd::handlers {
namespace {

// A reply tells the length of what it holds in 16 bits, so nothing longer can be kept.
constexpr size_t kLongestPart = UINT16_MAX;

// Each 20 bytes of a T-PRF's output cost a pass over label and random, so what is harmless elsewhere would be millions
// of bytes here. EAP-FAST has labels of some 30 bytes and a random of 64 (RFC 4851, section 5).
constexpr size_t kLongestTPrfInput = 1024;

void store_pac(Service &service, const Request &request, Reply &reply) {
  const auto descriptor = request.descriptor<KsStorePacDescriptor>();
  if (!descriptor) return reply.result(KS_INVALID_ARGS);
  const auto name = request_name(request, *descriptor);
  const auto key = request.section(descriptor->key_offset, descriptor->key_len);
  const auto metadata = request.section(descriptor->metadata_offset, descriptor->metadata_len);
  if (!name || name->tag != KS_NAME_TAG_PAC || !key || key->empty() || !metadata) return reply.result(KS_INVALID_ARGS);
  if (key->size() > kLongestPart || metadata->size() > kLongestPart) return reply.result(KS_RPC_TOO_LARGE);

  if (!allowed_name(service, request, *name)) return reply.result(KS_INVALID_ARGS);
  reply.result(service.store().put(*name, std::nullopt, *key, *metadata, request.caller.counted_as));
}

// The flag is one byte behind the length, so that the reply has 7.
void pac_exists(Service &service, const Request &request, Reply &reply) {
  const auto descriptor = request.descriptor<KsNameDescriptor>();
  if (!descriptor) return reply.result(KS_INVALID_ARGS);
  const auto name = request_name(request, *descriptor);
  if (!name) return reply.result(KS_INVALID_ARGS);

  const bool exists =
      allowed_name(service, request, *name) && name->tag == KS_NAME_TAG_PAC && service.store().exists(*name);
  if (!exists) return reply.result(KS_NOT_FOUND);
  *reply.data_area(1) = 1;
}

// An absent random has an offset of 0, which is no place in a message, so it is not looked at.
std::optional<Bytes> random_section(const Request &request, const KsPacKeyTPrfDescriptor &descriptor) {
  if (descriptor.random_len == 0) return Bytes();
  return request.section(descriptor.random_offset, descriptor.random_len);
}

void pac_key_t_prf(Service &service, const Request &request, Reply &reply) {
  const auto descriptor = request.descriptor<KsPacKeyTPrfDescriptor>();
  if (!descriptor) return reply.result(KS_INVALID_ARGS);
  const auto name = request_name(request, *descriptor);
  const auto label = request.section(descriptor->label_offset, descriptor->label_len);
  const auto random = random_section(request, *descriptor);
  const uint16_t wanted = descriptor->output_len;
  if (!name || !label || !random || wanted == 0 || wanted > crypto::kTPrfMaxOutput)
    return reply.result(KS_INVALID_ARGS);
  if (label->size() > kLongestTPrfInput || random->size() > kLongestTPrfInput) return reply.result(KS_RPC_TOO_LARGE);

  const NamedKey<crypto::HmacSha1Key> key(service, request, *name,
                                          {.algorithm = crypto::Algorithm::kTPrf, .owner = KeyDemand::Owner::kPac});
  if (!key) return reply.result(key.result());
  crypto::t_prf(*key, *label, *random, {reply.data_area(wanted), wanted});
}

constexpr std::array kPacRows{
    Row{KS_OP_STORE_PAC, "store PAC", store_pac, Work::kChange},
    Row{KS_OP_PAC_EXISTS, "PAC exists", pac_exists},
    Row{KS_OP_PAC_KEY_T_PRF, "PAC key T-PRF", pac_key_t_prf},
};

}  // namespace

std::span<const Row> pac_rows() {
  return kPacRows;
}

}  // namespace ksd::handlers
