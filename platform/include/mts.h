// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

/* mts.h: what the library needs of the message service (libmts).
 *
 * The message service carries one request to an addressed service and brings back its reply. Requests are tied to
 * replies by tokens, so any number of threads may share one queue. Nothing here retries on the library's behalf: a
 * failure reaches the caller of the operation as that operation's failure code.
 *
 * All ones (MTS_FAILED) is the failure value of mts_bind, mts_send and mts_recv; mts_errno_get then tells why. */
#ifndef PLATFORM_MTS_H
#define PLATFORM_MTS_H

#include "ks_types.h"

#define MTS_FAILED UINT32_C(0xffffffff)

/* KsBindTemplate says who binds. The constants are the library's and mean what the platform takes them to mean. */
typedef struct {
  uint32_t word0; /* 1 */
  uint32_t word1; /* 0 */
  uint32_t word2; /* 1024 */
  uint32_t app_uuid;
  uint32_t word4; /* 0 */
  uint32_t word5; /* 15 */
} KsBindTemplate;

/* KsSendOptions names the sections that follow the descriptor, without gaps, in the order of the array. An entry may
 * have a null pointer with a length of 0. */
typedef struct {
  uint32_t select; /* 1 */
  uint32_t reserved_4[4];
  const KsSection *sections;
  uint32_t section_count;
  uint32_t reserved_28[10];
} KsSendOptions;

/* KsRecvOptions names the reply that is waited for. */
typedef struct {
  uint32_t select; /* 1 */
  uint32_t reserved_4[2];
  uint32_t token; /* of mts_rr_token_get */
  uint32_t reserved_16[6];
} KsRecvOptions;

/* KsMtsMessage is the message service's own record of one message, in the caller's memory. Its bytes belong to
 * libmts: they need no clearing before a send or receive, have no alignment, and may be moved. */
typedef struct {
  uint8_t bytes[25];
} KsMtsMessage;

KS_STATIC_ASSERT(sizeof(KsBindTemplate) == 24);
KS_STATIC_ASSERT(sizeof(KsRecvOptions) == 40);
KS_STATIC_ASSERT(offsetof(KsRecvOptions, token) == 12);
KS_STATIC_ASSERT(sizeof(KsMtsMessage) == 25);
#if defined(__i386__)
KS_STATIC_ASSERT(sizeof(KsSendOptions) == 68);
KS_STATIC_ASSERT(offsetof(KsSendOptions, sections) == 20);
KS_STATIC_ASSERT(offsetof(KsSendOptions, section_count) == 24);
#endif

/* mts_bind binds the process to the message service and returns the handle of its queue, or MTS_FAILED. `mode` is 1;
 * `first` and `third` are the first and third argument of ks_init, passed through. A second call is allowed. */
KS_EXTERN_C uint32_t mts_bind(uint32_t mode, uint32_t first, const KsBindTemplate *bind, uint32_t third);

/* mts_send sends `descriptor` (NULL with size 0 for none) and the sections of `options` (NULL for none) as one message
 * and fills `sent`. Everything is read during the call. Returns MTS_FAILED when nothing was sent; `sent` then needs no
 * drop. A queue of all ones, that of a process that never bound, is a failed send. */
KS_EXTERN_C uint32_t mts_send(uint32_t queue, uint32_t node, uint32_t sap, uint32_t opcode, const void *descriptor,
                              uint32_t descriptor_size, KsMtsMessage *sent, uint32_t flags,
                              const KsSendOptions *options);

/* mts_rr_token_get returns the token by which the reply to `sent` is known. */
KS_EXTERN_C uint32_t mts_rr_token_get(const KsMtsMessage *sent);

/* mts_recv waits for the reply that `options` names and fills `received`. Returns MTS_FAILED when there will be none;
 * `received` then needs no drop. Whether and when it gives up waiting is the platform's to say. */
KS_EXTERN_C uint32_t mts_recv(uint32_t queue, KsMtsMessage *received, const KsRecvOptions *options);

/* mts_payload_get returns the reply's bytes, with no alignment, valid until `received` is dropped. The first four are
 * always readable: a shorter reply is the platform's to refuse. */
KS_EXTERN_C const void *mts_payload_get(const KsMtsMessage *received);

/* mts_payload_size returns the number of the reply's bytes. The library uses its low 16 bits. */
KS_EXTERN_C uint32_t mts_payload_size(const KsMtsMessage *received);

/* mts_drop releases a sent or received message. A message that is never dropped may cost memory, and nothing else. */
KS_EXTERN_C void mts_drop(uint32_t queue, KsMtsMessage *message);

/* mts_errno_get returns the error number of the calling thread's last failure. It is used in reports only. */
KS_EXTERN_C uint32_t mts_errno_get(uint32_t queue);

#endif
