/* host_wire.h: what the host platform libraries and the keystore daemon say to each other on one socket, and the two
 * files they share. All of it has fixed widths, so that clients of either word size talk to one daemon; everything is
 * in the byte order of the machine, which both ends share. */
#ifndef HOST_WIRE_H
#define HOST_WIRE_H

#include "ks_types.h"

#define HOST_WIRE_MAGIC UINT32_C(0x3173776b) /* "kws1" */
#define HOST_WIRE_VERSION 1

/* Opcodes of the host platform itself; the keystore's own begin at 66561. Those above the hello are for administrators,
 * by the kernel's word; to everybody else they are unknown, and answered like any other unknown opcode. */
#define HOST_OP_HELLO UINT32_C(1)
#define HOST_OP_STATUS UINT32_C(2)

/* The largest datagram either end sends: header, and a payload whose lengths are 16 bits wide with room to spare for
 * names and descriptors (a store has two 16-bit lengths). Both ends size their socket buffers for it. */
#define HOST_WIRE_MAX_PAYLOAD (UINT32_C(192) * 1024)

/* HostWireHeader stands in front of every datagram, requests and replies alike. A reply repeats the request's opcode
 * and token; its descriptor_size is 0. */
typedef struct {
  uint32_t magic;
  uint16_t version;
  uint16_t descriptor_size;
  uint32_t opcode;
  uint32_t token; /* chosen by the client; never 0 */
  uint32_t node;
  uint32_t sap;
  uint32_t app_uuid;
  uint32_t payload_size; /* of descriptor and sections, or of the reply; the datagram's size less the header's */
} HostWireHeader;

KS_STATIC_ASSERT(sizeof(HostWireHeader) == 32);
#define HOST_WIRE_MAX_DATAGRAM (sizeof(HostWireHeader) + HOST_WIRE_MAX_PAYLOAD)

/* HostHelloReply answers HOST_OP_HELLO, whose request has no payload. Texts are NUL-terminated. A service that turns
 * the caller away may send the result alone, or close the connection. */
typedef struct {
  uint32_t result;           /* KS_SUCCESS */
  uint32_t vdc_id;           /* the caller's, or HOST_NO_VDC */
  uint32_t receive_limit_ms; /* 0: the client's default, 30 s */
  uint32_t service_version;  /* major * 256 + minor */
  char running_cfg_uri[224]; /* below which the caller's databases lie: "lmdb:///dir"; empty for none */
} HostHelloReply;

#define HOST_NO_VDC UINT32_C(0xffff)
KS_STATIC_ASSERT(sizeof(HostHelloReply) == 240);

/* HostStatusReply answers HOST_OP_STATUS, whose request has no payload. */
typedef struct {
  uint32_t result; /* KS_SUCCESS */
  uint32_t pid;
  uint64_t started_at; /* seconds since 1970 */
  uint32_t service_version;
  uint32_t connections;
  uint32_t connection_limit;
  uint32_t users; /* connected now or lately; all users without a VDC are one */
  uint64_t entries;
  uint64_t entry_limit;
  uint32_t flags; /* HOST_STATUS_... */
  uint32_t reserved;
} HostStatusReply;

#define HOST_STATUS_MEMORY_UNLOCKED UINT32_C(1)   /* some keys lie in memory that could be swapped */
#define HOST_STATUS_STORE_NEARLY_FULL UINT32_C(2) /* over 90 % */
#define HOST_STATUS_COMPACTION_HELPS UINT32_C(4)

KS_STATIC_ASSERT(sizeof(HostStatusReply) == 56);

/* HostReplyShape is what a reply to the keystore's message `opcode` has to hold, so that whoever reads it without
 * looking finds it there. Every reply begins with its result. What follows counts with KS_SUCCESS alone; the shape of
 * most is a 16-bit length and as many bytes.
 *
 * A caller's buffer is as large as what was asked for, which the reply must not exceed. Where the reader compares the
 * two itself, as those of ciphers and digests do, `most` says nothing. */
typedef struct {
  uint32_t opcode;
  uint16_t least;       /* bytes that are read whatever stands in them, result and length included */
  uint16_t most;        /* the largest length that may stand there */
  uint8_t length_bytes; /* 0: no length is read; 1: its low byte; 2: all of it */
  uint8_t asked_bytes;  /* 0, or the size of the number at the descriptor's start, which the length must not exceed */
} HostReplyShape;

/* In the order of opcodes, from KS_OP_GENERATE_RANDOM on. */
static const HostReplyShape host_reply_shapes[] = {
    {KS_OP_GENERATE_RANDOM, 6, UINT8_MAX, 1, 1},
    {KS_OP_STORE_SECRET, 4, 0, 0, 0},
    {KS_OP_ADD_METADATA, 4, 0, 0, 0},
    {KS_OP_CLEAR, 4, 0, 0, 0},
    {KS_OP_SECRET_EXISTS, 7, 0, 0, 0}, /* the flag, behind a length that nobody reads */
    {KS_OP_HANDLE_BY_INDEX, 6, UINT16_MAX, 2, 0},
    {KS_OP_RETURN_METADATA, 6, UINT16_MAX, 2, 0},
    {KS_OP_RENAME, 4, 0, 0, 0},
    {KS_OP_STORE_PAC, 4, 0, 0, 0},
    {KS_OP_PAC_EXISTS, 7, 0, 0, 0},
    {KS_OP_PAC_KEY_T_PRF, 6, UINT16_MAX, 2, 2},
    {KS_OP_GENERATE_NT_RESPONSE, 6, UINT16_MAX, 2, 0},
    {KS_OP_GENERATE_AUTH_RESPONSE, 6, UINT16_MAX, 2, 0},
    {KS_OP_NEW_PASSWORD_ENCRYPTED, 6, 516, 2, 0}, /* RFC 2759's block; the reader takes any length */
    {KS_OP_OLD_HASH_ENCRYPTED, 6, UINT16_MAX, 2, 0},
    {KS_OP_GET_MASTER_KEY, 6, UINT16_MAX, 2, 0},
    {KS_OP_AES_ENCRYPT, 6, UINT16_MAX, 2, 0},
    {KS_OP_AES_DECRYPT, 6, UINT16_MAX, 2, 0},
    {KS_OP_AES_CBC_ENCRYPT, 6, UINT16_MAX, 2, 0},
    {KS_OP_AES_CBC_DECRYPT, 6, UINT16_MAX, 2, 0},
    {KS_OP_HMAC_MD5, 6, UINT16_MAX, 2, 0},
    {KS_OP_HMAC_SHA1, 6, UINT16_MAX, 2, 0},
    {KS_OP_MD5, 6, UINT16_MAX, 2, 0},
    {KS_OP_SHA1, 6, UINT16_MAX, 2, 0},
    {KS_OP_DES_ENCRYPT, 6, UINT16_MAX, 2, 0},
    {KS_OP_DES_DECRYPT, 6, UINT16_MAX, 2, 0},
    {KS_OP_3DES_ENCRYPT, 6, UINT16_MAX, 2, 0},
    {KS_OP_3DES_DECRYPT, 6, UINT16_MAX, 2, 0},
    {66589, 4, 0, 0, 0}, /* four that are no messages */
    {66590, 4, 0, 0, 0},
    {66591, 4, 0, 0, 0},
    {66592, 4, 0, 0, 0},
    {KS_OP_FW_VERSION_STATUS, 9, 0, 0, 0}, /* version and status, behind a length that nobody reads */
    {KS_OP_COMPACT_FW_MEMORY, 4, 0, 0, 0},
};

/* Where the service listens unless KS_SOCKET says otherwise. */
#define HOST_DEFAULT_SOCKET "/run/ks/ksd.sock"

/* The state page stands beside the socket, in the file "<socket>.state". The service maps it for writing, clients map
 * it read-only. The file is never truncated or replaced while its folder lives, so that a mapping outlasts a restart of
 * the service. Words are read and written atomically, each for itself. */
#define HOST_STATE_SUFFIX ".state"
#define HOST_STATE_MAGIC UINT32_C(0x3173736b) /* "kss1" */

typedef struct {
  uint32_t magic;
  uint32_t version; /* 1 */
  uint32_t supstate;
  uint32_t reserved;
  uint32_t history_open[8]; /* bit n of the whole: subtype n is recorded */
  uint32_t debug_open[8];   /* bit n of the whole: flag n has debug output */
} HostStatePage;

KS_STATIC_ASSERT(sizeof(HostStatePage) == 80);

/* The gates of a process that has no state page: subtype 100 recorded, debug off. */
#define HOST_DEFAULT_RECORDED_SUBTYPE 100

/* Whoever records this one records what each operation does. */
#define HOST_DETAILED_SUBTYPE 103

/* Each process keeps its newest reports in a ring, a file of its user's own: "history/NN.ring" in the socket's folder
 * where that is the user's too, else "ks/NN.ring" in $XDG_RUNTIME_DIR or /run/user/UID. NN is 00 to 63. A process takes
 * the number after the one that the file "next" names, and passes over those whose processes live: they hold a lock
 * (flock) on theirs for as long as they map it. So a user has 64 rings at most, and the oldest dead ones go first.
 *
 * A record takes one or more slots. A writer reserves slots by adding to `next`, marks each as being written, fills
 * them and publishes the sequence numbers, that of the first slot last. A reader takes only slots whose sequence is the
 * one it expects, before and after its copy. A writer that finds a slot in use by another leaves its record out. */
#define HOST_RING_MAGIC UINT32_C(0x3172736b) /* "ksr1" */
#define HOST_RING_COUNT 64                   /* of a user */
#define HOST_RING_SLOTS 1024
#define HOST_RING_SLOT_DATA 104

enum { HOST_RING_REPORT = 1, HOST_RING_MTS_EVENT = 2, HOST_RING_CONTINUED = 3 };

typedef struct {
  uint64_t sequence; /* position + 1 when complete; with the top bit set while being written; 0: never used */
  uint64_t time_ns;  /* CLOCK_REALTIME; of a message event that isn't exact, the last tick of it */
  uint16_t kind;     /* HOST_RING_... */
  uint16_t length;   /* bytes of the whole record in its first slot, of the rest in the slots that continue it */
  uint32_t thread;   /* of the first slot; 0 in the others */
  uint8_t data[HOST_RING_SLOT_DATA];
} HostRingSlot;

typedef struct {
  uint32_t magic;
  uint32_t version; /* 1 */
  uint32_t slot_count;
  uint32_t pid;
  uint64_t next;  /* position of the next slot to be written, ever growing */
  uint64_t start; /* when the process started, in clock ticks since boot: field 22 of /proc/PID/stat */
  uint8_t reserved[32];
  char program[64]; /* the process's name, NUL-terminated */
  HostRingSlot slots[HOST_RING_SLOTS];
} HostRing;

/* What a HOST_RING_MTS_EVENT holds. */
typedef struct {
  uint32_t direction; /* SDWRAP_MTS_SENT or SDWRAP_MTS_RECEIVED */
  uint32_t result;
  uint32_t opcode; /* 0: of a message that wasn't sent, or isn't of this system's message service */
  uint32_t exact;  /* 1: its time isn't that of the last tick, because all reports are recorded */
} HostRingMtsEvent;

KS_STATIC_ASSERT(sizeof(HostRingSlot) == 128);
KS_STATIC_ASSERT(offsetof(HostRing, slots) == 128);

#endif
