// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ks_pac_key_t_prf and its cache half: what can be computed on a PAC's key, which never leaves the keystore.
//
//   descriptor  output length | name, label, random: each a length and an offset   (20 bytes)
//   sections    name | label | random, unless it is null
//   reply       result | length | output
#include "pac/requests.h"
#include "transport/exchange.h"
#include "transport/owned_block.h"
#include "transport/trace.h"

KsResult ks_pac_key_t_prf_req(const uint8_t *aid, uint8_t aid_len, const uint8_t *label, uint16_t label_len,
                              const uint8_t *random, uint16_t random_len, uint16_t output_len, KsSection *sections,
                              KsPacKeyTPrfDescriptor *descriptor) {
  // DIFFERS(tprf-exact-name): a buffer that ends with the name, where other PAC requests have 35 bytes. Levelled, the
  // block would have another size.
  void *name = ks::new_wire_name(KS_NAME_TAG_PAC, aid, aid_len, ks::NameBuffer::kExact);
  if (name == nullptr) return KS_NO_MEMORY;

  descriptor->output_len = output_len;
  descriptor->name_len = ks::wire_len(aid_len);
  descriptor->name_offset = sizeof *descriptor;
  descriptor->label_len = label_len;
  descriptor->label_offset = descriptor->name_len + uint32_t{sizeof *descriptor};
  descriptor->random_len = random_len;
  descriptor->random_offset = random_len != 0 ? descriptor->label_offset + label_len : 0;

  sections[0] = {name, descriptor->name_len};
  sections[1] = {label, label_len};
  // Without a random the list has two entries, also under a descriptor that announces one.
  if (random != nullptr) sections[2] = {random, random_len};
  return KS_SUCCESS;
}

// DIFFERS(tprf-short-reply): a reply shorter than asked for is a success, where the readers of digests and ciphers take
// the expected length only. Levelled, it would be KS_FAILURE with nothing copied.
KsResult ks_pac_key_t_prf_resp(uint16_t, const void *payload, uint8_t *output, uint16_t output_len) {
  if (const KsResult result = ks::reply_result(payload); result != KS_SUCCESS) return result;
  const uint16_t len = ks::reply_len(payload);
  if (len > output_len) {
    KS_TRACE(KS_SUBTYPE_NORMAL, "Buffer too small output buffer len :%d output data len :%d \n", output_len, len);
    return KS_FAILURE;
  }
  memcpy(output, ks::reply_data(payload), len);
  return KS_SUCCESS;
}

KsResult ks_cache_get_pac_tprf(const uint8_t *aid, uint32_t aid_len, const uint8_t *label, uint16_t label_len,
                               const uint8_t *random, uint16_t random_len, uint8_t **output, uint16_t *output_len) {
  uint8_t *name = ks::new_cache_name(aid, aid_len);
  if (name == nullptr) return KS_NO_MEMORY;
  ks::OwnedBlock result;
  uint16_t result_len = 0;
  const KsResult read = ks_cache_read_tprf(name, ks::wire_len(aid_len), label, label_len, random, random_len,
                                           result.place(), &result_len);
  free(name);
  if (read != KS_SUCCESS) return read;
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Found valid TPRF in cache.");
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":output_len = %d.", result_len);
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Found valid TPRF in cache.\n");
  KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":output_len = %d.\n", result_len);
  *output = result.take();
  *output_len = result_len;
  return KS_SUCCESS;
}

KsResult ks_pac_key_t_prf(const uint8_t *aid, uint8_t aid_len, const uint8_t *label, uint16_t label_len,
                          const uint8_t *random, uint16_t random_len, uint8_t *output, uint16_t output_len) {
  if (!ks::is_aid(aid, aid_len) || output == nullptr || output_len == 0) return KS_INVALID_ARGS;

  const bool was_open = is_cache_present() == 1;
  if (!was_open && ks_sdb_init(app_uuid) != KS_SUCCESS) {
    KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Cache absent. Using smartcard.");
  } else {
    uint8_t *cached = nullptr;
    uint16_t cached_len = 0;
    if (ks_cache_get_pac_tprf(aid, aid_len, label, label_len, random, random_len, &cached, &cached_len) == KS_SUCCESS) {
      KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Valid PAC tprf found in cache.");
      if (cached_len > output_len) {
        // DIFFERS(tprf-cached-too-long): final, although the keystore could compute the shorter output; and the cached
        // copy stays allocated. Levelled with any other miss, the keystore would be asked.
        KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":Buffer too small output buffer len :%d output data len :%d \n", output_len,
                      cached_len);
        return KS_FAILURE;
      }
      memcpy(output, cached, cached_len);
      // DIFFERS(tprf-cached-copy): freed only when the cache was open before this call. Levelled, the call that opens
      // it would leave one block less.
      if (was_open) free(cached);
      return KS_SUCCESS;
    }
    KS_TRACE_HERE(KS_SUBTYPE_NORMAL, ":PAC TPRF not found in cache.");
  }

  ks::Exchange exchange(ks::kPacKeyTPrf);
  ks::SectionList list(ks::kPacKeyTPrf, ks::kOwnsName, random != nullptr ? 1 : 0);
  if (!list.allocated()) {
    KS_TRACE(KS_SUBTYPE_NORMAL, "Calloc Failed");
    return KS_NO_MEMORY;
  }
  KsPacKeyTPrfDescriptor descriptor;
  if (const KsResult built = ks_pac_key_t_prf_req(aid, aid_len, label, label_len, random, random_len, output_len,
                                                  list.data(), &descriptor);
      built != KS_SUCCESS) {
    return built;
  }

  if (const KsResult sent = ks_exchange(exchange, descriptor, list); sent != KS_SUCCESS) return sent;

  return ks_pac_key_t_prf_resp(exchange.size(), exchange.payload(), output, output_len);
}
