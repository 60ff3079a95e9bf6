/* SPDX-FileCopyrightText: 2026 The ks developers
 * SPDX-License-Identifier: Apache-2.0 */

/* ks_device.h: operations on the keystore chip that take no name. */
#ifndef KS_DEVICE_H
#define KS_DEVICE_H

#include "ks_types.h"

/* KsRandomDescriptor is the whole request for random numbers. */
typedef struct {
  uint8_t count;
  uint8_t reserved[3]; /* not written; the service ignores it */
  uint32_t request_word;
} KsRandomDescriptor;

KS_STATIC_ASSERT(sizeof(KsRandomDescriptor) == 8);
KS_STATIC_ASSERT(offsetof(KsRandomDescriptor, request_word) == 4);

/* ks_generate_random_number fills `output` with `count` (1 to 255) random bytes made by the keystore. `request_word` is
 * passed to the service, which gives it no meaning today.
 *
 * KS_INVALID_ARGS: `output` is NULL or `count` is 0. KS_FAILURE: the exchange failed.
 * NOTE: the reply's own count decides how much is written: the service is trusted to send what was asked for. Fewer
 * bytes are a success, and the rest of `output` stays as it was. */
KS_EXPORT KsResult ks_generate_random_number(uint8_t *output, uint8_t count, uint32_t request_word);

/* ks_generate_random_number_req writes the low 8 bits of `count` and `request_word` into `descriptor`, and nothing
 * else. It cannot fail. */
KS_EXPORT void ks_generate_random_number_req(uint32_t count, uint32_t request_word, KsRandomDescriptor *descriptor);

/* ks_generate_random_number_resp reads a reply: copies its bytes to `output` and returns its result. `payload_size` is
 * not read; the count is the low byte of the reply's length field. */
KS_EXPORT KsResult ks_generate_random_number_resp(uint16_t payload_size, const void *payload, uint8_t *output);

/* ks_return_fw_version_and_status asks for the firmware's version (major * 256 + minor with the keystore daemon) and
 * its status bits, a byte widened to 32 bits.
 *
 * KS_INVALID_ARGS: a pointer is NULL. KS_FAILURE: the exchange failed.
 * NOTE: every byte of the reply is printed to standard error, as ks_return_fw_version_and_status_resp tells. */
KS_EXPORT KsResult ks_return_fw_version_and_status(uint16_t *version, uint32_t *status);

/* ks_return_fw_version_and_status_resp reads a reply into `version` and `status` and returns its result.
 * NOTE: unless `payload_size` is 0, it first prints the payload to standard error, each byte as "%2x " and no newline,
 * whatever the result. */
KS_EXPORT KsResult ks_return_fw_version_and_status_resp(uint16_t payload_size, const void *payload, uint16_t *version,
                                                        uint32_t *status);

/* ks_compact_fw_memory has the keystore compact its memory and waits until that is done. The service's answer comes
 * back unchanged; KS_FW_COMPACT_CORRUPT means that compaction damaged entries.
 *
 * KS_FAILURE: the exchange failed. */
KS_EXPORT KsResult ks_compact_fw_memory(void);

/* ks_compact_fw_memory_resp returns the first word of `payload`. `payload_size` is not read. */
KS_EXPORT KsResult ks_compact_fw_memory_resp(uint16_t payload_size, const void *payload);

#endif
