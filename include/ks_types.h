/* SPDX-FileCopyrightText: 2026 The ks developers
 * SPDX-License-Identifier: Apache-2.0 */

/* ks_types.h: result codes, message opcodes and the records that requests are made of.
 *
 * Everything here crosses a boundary: codes and opcodes are shared with the keystore service, and the records are
 * handed to the message service and the shared database as they stand. On i386, the target, sizes and offsets are
 * exact. On x86-64 the same records hold natural pointers. */
#ifndef KS_TYPES_H
#define KS_TYPES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define KS_EXTERN_C extern "C"
#define KS_STATIC_ASSERT(condition) static_assert(condition, #condition)
#else
#define KS_EXTERN_C extern
#if defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define KS_STATIC_ASSERT(condition) _Static_assert(condition, #condition)
#else
/* C99 has no word for it. GCC and Clang take that of C11 as their own, and say nothing of it behind __extension__. */
#define KS_STATIC_ASSERT(condition) __extension__ _Static_assert(condition, #condition)
#endif
#endif

#define KS_EXPORT KS_EXTERN_C __attribute__((visibility("default")))

/* KsResult is the answer of nearly every operation. Compare it with KS_SUCCESS, which is 1: 0 is a code too. */
typedef uint32_t KsResult;

#define KS_NOT_REGISTERED UINT32_C(0)
#define KS_SUCCESS UINT32_C(1)
#define KS_FAILURE UINT32_C(2)
#define KS_INVALID_ARGS UINT32_C(3)
#define KS_NO_MEMORY UINT32_C(4)
#define KS_NOT_FOUND UINT32_C(5)
#define KS_NO_MORE_ENTRIES UINT32_C(6)
#define KS_STORE_FULL UINT32_C(7)
#define KS_TIMEOUT UINT32_C(8)
#define KS_BAD_KEY UINT32_C(9)
#define KS_CRYPT_ERROR UINT32_C(10)
#define KS_KEY_LEN_UNSUPPORTED UINT32_C(11)
#define KS_FW_COMM_ERROR UINT32_C(12)
#define KS_FW_COMPACT_CORRUPT UINT32_C(13)
#define KS_FW_BAD_CELL UINT32_C(14)
/* 15 to 20 are unassigned. */
#define KS_FW_PANIC UINT32_C(21)
#define KS_BAD_FRAGMENT_SIZE UINT32_C(22)
#define KS_BAD_RESPONSE_FORMAT UINT32_C(23)
#define KS_VERSION_MISMATCH UINT32_C(24)
#define KS_RPC_TOO_LARGE UINT32_C(25)
#define KS_RPC_ERROR UINT32_C(26)
#define KS_FRAGMENT_UNSUPPORTED UINT32_C(27)

/* The two words that address the keystore service on the message service. */
#define KS_SERVICE_NODE UINT32_C(0xfe000000)
#define KS_SERVICE_SAP UINT32_C(11)

/* Opcodes of the messages to the keystore service; the four values after KS_OP_3DES_DECRYPT are unassigned. */
#define KS_OP_GENERATE_RANDOM UINT32_C(66561)
#define KS_OP_STORE_SECRET UINT32_C(66562)
#define KS_OP_ADD_METADATA UINT32_C(66563)
#define KS_OP_CLEAR UINT32_C(66564)
#define KS_OP_SECRET_EXISTS UINT32_C(66565)
#define KS_OP_HANDLE_BY_INDEX UINT32_C(66566)
#define KS_OP_RETURN_METADATA UINT32_C(66567)
#define KS_OP_RENAME UINT32_C(66568)
#define KS_OP_STORE_PAC UINT32_C(66569)
#define KS_OP_PAC_EXISTS UINT32_C(66570)
#define KS_OP_PAC_KEY_T_PRF UINT32_C(66571)
#define KS_OP_GENERATE_NT_RESPONSE UINT32_C(66572)
#define KS_OP_GENERATE_AUTH_RESPONSE UINT32_C(66573)
#define KS_OP_NEW_PASSWORD_ENCRYPTED UINT32_C(66574)
#define KS_OP_OLD_HASH_ENCRYPTED UINT32_C(66575)
#define KS_OP_GET_MASTER_KEY UINT32_C(66576)
#define KS_OP_AES_ENCRYPT UINT32_C(66577)
#define KS_OP_AES_DECRYPT UINT32_C(66578)
#define KS_OP_AES_CBC_ENCRYPT UINT32_C(66579)
#define KS_OP_AES_CBC_DECRYPT UINT32_C(66580)
#define KS_OP_HMAC_MD5 UINT32_C(66581)
#define KS_OP_HMAC_SHA1 UINT32_C(66582)
#define KS_OP_MD5 UINT32_C(66583)
#define KS_OP_SHA1 UINT32_C(66584)
#define KS_OP_DES_ENCRYPT UINT32_C(66585)
#define KS_OP_DES_DECRYPT UINT32_C(66586)
#define KS_OP_3DES_ENCRYPT UINT32_C(66587)
#define KS_OP_3DES_DECRYPT UINT32_C(66588)
#define KS_OP_FW_VERSION_STATUS UINT32_C(66593)
#define KS_OP_COMPACT_FW_MEMORY UINT32_C(66594)

/* KsSection is one entry of a request's section list. A name's section points to a heap buffer that the builder
 * allocated; a data section points straight at the caller's bytes, which are read during the call only. */
typedef struct {
  const void *data;
  uint32_t length; /* in bytes */
} KsSection;

/* The kind of entry that a name stands for, first byte of a KsWireName. */
#define KS_NAME_TAG_SECRET 0x30 /* '0' */
#define KS_NAME_TAG_PAC 0x31    /* '1' */

#define KS_NAME_MAX 31        /* bytes of a secret's name */
#define KS_PAC_NAME_MAX 31    /* bytes of an A-ID */
#define KS_NAME_HEADER_SIZE 4 /* bytes in front of the name on the wire */

/* KsWireName is a name as it travels. Only the header and the name's own bytes are sent: no terminator, no padding. */
typedef struct {
  uint8_t tag;
  uint8_t zero;
  uint8_t vdc_id[2]; /* big-endian */
  uint8_t name[KS_NAME_MAX];
} KsWireName;

KS_STATIC_ASSERT(sizeof(KsWireName) == 35);
KS_STATIC_ASSERT(offsetof(KsWireName, vdc_id) == 2);
KS_STATIC_ASSERT(offsetof(KsWireName, name) == KS_NAME_HEADER_SIZE);

/* KsNameDescriptor describes a request whose only section is the name. Offsets in descriptors count from the
 * descriptor's first byte; fields are in the processor's own byte order. */
typedef struct {
  uint8_t name_len;    /* length of the wire name: the name's length plus 4 */
  uint8_t name_offset; /* 2, the descriptor's size */
} KsNameDescriptor;

KS_STATIC_ASSERT(sizeof(KsNameDescriptor) == 2);

/* KsNameDataDescriptor describes a request of a name and one data section. */
typedef struct {
  uint8_t name_len;
  uint8_t name_offset; /* 6 */
  uint16_t data_len;
  uint16_t data_offset; /* name_len + 6 */
} KsNameDataDescriptor;

KS_STATIC_ASSERT(sizeof(KsNameDataDescriptor) == 6);
KS_STATIC_ASSERT(offsetof(KsNameDataDescriptor, data_len) == 2);
KS_STATIC_ASSERT(offsetof(KsNameDataDescriptor, data_offset) == 4);

/* KsSdbDatum is a key or a value of the shared database. */
typedef struct {
  const void *data;
  uint32_t size; /* in bytes */
} KsSdbDatum;

#if defined(__i386__)
KS_STATIC_ASSERT(sizeof(KsSection) == 8);
KS_STATIC_ASSERT(offsetof(KsSection, length) == 4);
KS_STATIC_ASSERT(sizeof(KsSdbDatum) == 8);
KS_STATIC_ASSERT(offsetof(KsSdbDatum, size) == 4);
#endif

#endif
