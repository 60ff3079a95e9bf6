// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

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
#define HOST_OP_COUNTERS UINT32_C(3)
#define HOST_OP_LATENCIES UINT32_C(4)
#define HOST_OP_USERS UINT32_C(5)
#define HOST_OP_OWNERS UINT32_C(6)
#define HOST_OP_LIMITS UINT32_C(7)
#define HOST_OP_RELOAD UINT32_C(8)
#define HOST_OP_CHECKPOINT UINT32_C(9)
#define HOST_OP_BEGIN_BACKUP UINT32_C(16)
#define HOST_OP_NEXT_BACKUP_PART UINT32_C(17)
#define HOST_OP_CHANGE_MASTER_KEY UINT32_C(18)
#define HOST_OP_MASTER_KEY_CHANGE UINT32_C(19)
#define HOST_OP_FLEET UINT32_C(20)
#define HOST_OP_FLEET_MACHINES UINT32_C(21)
#define HOST_OP_FLEET_LEAVE UINT32_C(22)
#define HOST_OP_FLEET_CHANGE_KEY UINT32_C(23)
#define HOST_OP_FLEET_KEYS UINT32_C(24)
#define HOST_OP_FLEET_OWNERS UINT32_C(29)
#define HOST_OP_FLEET_IMPORT UINT32_C(25)
#define HOST_OP_FLEET_RESTORE UINT32_C(26)
#define HOST_OP_FLEET_GO_ON UINT32_C(27)
#define HOST_OP_FLEET_ACCEPT UINT32_C(28)

/* For everybody whom the hello offers a channel. */
#define HOST_OP_CHANNEL UINT32_C(64)

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
  uint16_t service_version;  /* major * 256 + minor */
  uint16_t offers;           /* HOST_OFFERS_...; 0 of a service that knows none */
  char running_cfg_uri[224]; /* below which the caller's databases lie: "lmdb:///dir"; empty for none */
} HostHelloReply;

#define HOST_OFFERS_CHANNEL 1

#define HOST_NO_VDC UINT32_C(0xffff)
KS_STATIC_ASSERT(sizeof(HostHelloReply) == 240);

/* A channel is memory of one connection that both ends map, through which datagrams go instead of the socket. The
 * client asks for it with HOST_OP_CHANNEL, first with the step "make", whose reply brings the memory's file
 * (SCM_RIGHTS), and when it has mapped that with the step "use". From the reply to this on, each exchange goes through
 * the channel. The socket stays: its end is the end of the connection, and a datagram that is too large for its area
 * goes there. */
typedef struct {
  uint32_t step;
} HostChannelDescriptor;

#define HOST_CHANNEL_MAKE UINT32_C(1)
#define HOST_CHANNEL_USE UINT32_C(2)

typedef struct {
  uint32_t result; /* KS_SUCCESS; anything else: all goes on by the socket */
  uint32_t size;   /* of a HostChannel */
} HostChannelReply;

/* HostChannelEnd tells what lies in one of the two areas. The client writes the end of requests, the service that of
 * replies; the flags are set by both. A reply repeats its request's serial number. */
typedef struct {
  uint32_t word; /* a serial number below the flags; both ends wait for a change of it (futex) */
  uint32_t size; /* of the datagram, or HOST_CHANNEL_ON_SOCKET */
  uint8_t reserved[56];
} HostChannelEnd;

#define HOST_CHANNEL_WAITING (UINT32_C(1) << 31) /* whoever changes the word wakes who waits for it */
#define HOST_CHANNEL_OVER (UINT32_C(1) << 30)    /* nobody will look at what comes after this */
#define HOST_CHANNEL_TAKEN (UINT32_C(1) << 29)   /* of a request: the service has it */
#define HOST_CHANNEL_SERIAL (HOST_CHANNEL_TAKEN - 1)
#define HOST_CHANNEL_ON_SOCKET UINT32_MAX /* the datagram is sent on the socket, before the word is written */

typedef struct {
  HostChannelEnd request;
  HostChannelEnd reply;
  uint8_t request_area[8192 - 2 * sizeof(HostChannelEnd)];
  uint8_t reply_area[8192];
} HostChannel;

KS_STATIC_ASSERT(sizeof(HostChannelDescriptor) == 4);
KS_STATIC_ASSERT(sizeof(HostChannelReply) == 8);
KS_STATIC_ASSERT(sizeof(HostChannelEnd) == 64);
KS_STATIC_ASSERT(offsetof(HostChannel, reply_area) == 8192);
KS_STATIC_ASSERT(sizeof(HostChannel) == 16384);

/* The replies to administration messages. Texts are NUL-terminated; of one that doesn't fit the beginning stands there
 * and "..." behind it, of a path its end and "..." in front. Times are seconds since 1970; up_ms is how long the
 * service has run, by a clock that nobody sets. */

/* The number under which all users without a VDC are counted together. */
#define HOST_ALL_UNMAPPED UINT32_MAX

/* HostStatusReply answers HOST_OP_STATUS, whose request has no payload. */
typedef struct {
  uint32_t result; /* KS_SUCCESS */
  uint32_t pid;
  uint64_t started_at;
  uint32_t service_version;
  uint32_t connections;
  uint32_t connection_limit;
  uint32_t users; /* connected now or lately; all users without a VDC are one */
  uint64_t entries;
  uint64_t entry_limit;
  uint32_t flags; /* HOST_STATUS_... */
  uint32_t supstate;
  uint64_t up_ms;
  uint64_t bytes; /* of secrets and metadata */
  uint64_t byte_limit;
  uint64_t vault_size; /* of the vault's file, and of its log */
  uint64_t log_size;
  uint32_t receive_limit_ms;
  uint32_t problem_count;    /* that the last reload met with */
  uint64_t config_loaded_at; /* the configuration in force */
  uint64_t reload_failed_at; /* 0: the last reload was taken up */
  char vault[256];           /* of a fleet the mirror; empty: there is none */
  char config[256];          /* the configuration's file */
  char refusal[256];         /* why changes are refused; empty while they aren't */
  char problem[256];         /* the first one that the last reload met with; empty when it was taken up */
} HostStatusReply;

#define HOST_STATUS_MEMORY_UNLOCKED UINT32_C(1)   /* some keys lie in memory that could be swapped */
#define HOST_STATUS_STORE_NEARLY_FULL UINT32_C(2) /* over 90 % */
#define HOST_STATUS_COMPACTION_HELPS UINT32_C(4)
#define HOST_STATUS_CHANGES_REFUSED UINT32_C(8) /* since a write failed */
#define HOST_STATUS_UNTIL_RESTART UINT32_C(16)  /* and for as long as the service runs */
#define HOST_STATUS_RESERVE_GIVEN_UP UINT32_C(32)
#define HOST_STATUS_RESTART_NEEDED UINT32_C(64) /* for part of the configuration that was loaded last to count */
#define HOST_STATUS_SHARED UINT32_C(128)        /* the entries are those of a fleet: see HOST_OP_FLEET */

KS_STATIC_ASSERT(sizeof(HostStatusReply) == 1144);
KS_STATIC_ASSERT(offsetof(HostStatusReply, vault) == 120);

/* HostCountersReply answers HOST_OP_COUNTERS: `count` records of HostMessageCounters follow, in the order of opcodes. A
 * request without payload asks about all users; one whose descriptor is a user's number about that user, for whom the
 * events here are 0. All is counted from the start of the service. */
typedef struct {
  uint32_t result; /* KS_SUCCESS; KS_NOT_FOUND: nothing is counted for that user */
  uint32_t count;
  uint64_t up_ms;
  uint64_t connections;
  uint64_t refused_connections; /* over a limit */
  uint64_t malformed;
  uint64_t unknown_opcodes;
  uint64_t too_large;
  uint64_t foreign_datagrams; /* of another protocol */
  uint64_t unread_replies;
  uint64_t foreign_names; /* entries of a VDC that isn't the caller's */
  uint64_t administration;
} HostCountersReply;

typedef struct {
  uint32_t opcode;
  uint32_t reserved;
  uint64_t done;   /* answered with KS_SUCCESS */
  uint64_t failed; /* answered with anything else */
  char name[32];
} HostMessageCounters;

KS_STATIC_ASSERT(sizeof(HostCountersReply) == 88);
KS_STATIC_ASSERT(sizeof(HostMessageCounters) == 56);

/* HostLatenciesReply answers HOST_OP_LATENCIES, whose request has no payload: `count` records of HostMessageLatencies
 * follow, in the order of opcodes.
 *
 * A time is that from a request's arrival at its thread until its reply is ready: its wait for its turn is in it. Of
 * messages that only compute, the first of each user and then every 16th are timed, of those that change the vault all.
 * Bucket 0 counts those below 512 ns. Each doubling of the time from there on has four buckets of equal width: bucket
 * 1 + 4 * n + q counts those from (4 + q) * 2^(7 + n) ns on. The last one has no upper end. */
#define HOST_LATENCY_BUCKETS 96

typedef struct {
  uint32_t result; /* KS_SUCCESS */
  uint32_t count;
  uint32_t bucket_count; /* HOST_LATENCY_BUCKETS */
  uint32_t reserved;
  uint64_t up_ms;
} HostLatenciesReply;

typedef struct {
  uint32_t opcode;
  uint32_t reserved;
  uint64_t timed[HOST_LATENCY_BUCKETS];
} HostMessageLatencies;

KS_STATIC_ASSERT(sizeof(HostLatenciesReply) == 24);
KS_STATIC_ASSERT(sizeof(HostMessageLatencies) == 776);

/* HostPageReply answers what lists: `count` records of `record_size` bytes follow, ascending by user. The request's
 * descriptor is a user's number, 4 bytes, with which the page begins. The next page begins behind the last record. */
typedef struct {
  uint32_t result; /* KS_SUCCESS */
  uint32_t count;
  uint32_t more; /* 1: there is another page */
  uint32_t record_size;
} HostPageReply;

#define HOST_PAGE_RECORDS 256 /* on a page at most */

/* Of HOST_OP_USERS: who is connected now or has been lately, with what was asked for since. */
typedef struct {
  uint32_t uid; /* HOST_ALL_UNMAPPED comes last */
  uint32_t vdc_id;
  uint32_t connections;
  uint32_t flags; /* HOST_USER_... */
  uint64_t done;
  uint64_t failed;
} HostUserRecord;

#define HOST_USER_IS_ADMINISTRATOR UINT32_C(1)

/* Of HOST_OP_OWNERS: whose entries the vault holds. */
typedef struct {
  uint32_t uid;
  uint32_t vdc_id; /* of the entry that was stored last */
  uint64_t entries;
  uint64_t bytes;
} HostOwnerRecord;

KS_STATIC_ASSERT(sizeof(HostPageReply) == 16);
KS_STATIC_ASSERT(sizeof(HostUserRecord) == 32);
KS_STATIC_ASSERT(sizeof(HostOwnerRecord) == 24);

/* HostLimitsReply answers HOST_OP_LIMITS, whose request has no payload: `count` records follow, one for each key of the
 * configuration's [limits]. */
typedef struct {
  uint32_t result; /* KS_SUCCESS */
  uint32_t count;
} HostLimitsReply;

typedef struct {
  char key[32];
  uint64_t limit; /* in force: of requests_per_user = 0 what it stands for */
  uint64_t used;  /* of a limit for each user by the one who uses most */
  uint32_t uid;   /* who that is */
  uint32_t flags; /* HOST_LIMIT_... */
} HostLimitRecord;

#define HOST_LIMIT_HAS_USE UINT32_C(1)  /* `used` is told; rates have none */
#define HOST_LIMIT_HAS_USER UINT32_C(2) /* `uid` is */

KS_STATIC_ASSERT(sizeof(HostLimitsReply) == 8);
KS_STATIC_ASSERT(sizeof(HostLimitRecord) == 56);

/* HostReloadReply answers HOST_OP_RELOAD, whose request has no payload: the configuration has been read again, as on
 * SIGHUP. `count` records of HostConfigProblem follow, the first of those that were met with. */
typedef struct {
  uint32_t result;         /* KS_SUCCESS: it was read, whatever was found */
  uint32_t taken_up;       /* 0: the old one stays in force */
  uint32_t restart_needed; /* 1: for part of it to count */
  uint32_t problem_count;
  uint32_t count;
  uint32_t reserved;
} HostReloadReply;

typedef struct {
  uint32_t line; /* from 1; 0: of the file as a whole */
  uint32_t column;
  char text[248];
} HostConfigProblem;

#define HOST_RELOAD_PROBLEMS 64 /* in a reply at most */
KS_STATIC_ASSERT(sizeof(HostReloadReply) == 24);
KS_STATIC_ASSERT(sizeof(HostConfigProblem) == 256);

/* HostCheckpointReply answers HOST_OP_CHECKPOINT, whose request has no payload: the vault's log has been written back
 * into the vault. Another result than KS_SUCCESS, 4 bytes, says that it couldn't be. */
typedef struct {
  uint32_t result; /* KS_SUCCESS */
  uint32_t reserved;
  uint64_t pages; /* that the log held */
} HostCheckpointReply;

KS_STATIC_ASSERT(sizeof(HostCheckpointReply) == 16);

/* HostBackupRequest begins a backup on this connection, in the place of one that it had begun. The service seals all it
 * tells: nobody without the key reads it. The opening is that of the file, which the first part is bound to.
 *
 * HOST_OP_NEXT_BACKUP_PART, without a payload, is answered with the next sealed part as result, length and data; with
 * no data when the one before was the last. KS_NOT_FOUND: no backup was begun, or it wasn't read for too long. */
typedef struct {
  uint8_t key[32];
  uint8_t opening[36];
} HostBackupRequest;

typedef struct {
  uint32_t result; /* KS_SUCCESS; KS_TIMEOUT while too many are being read */
  uint32_t parts;
  uint64_t entries;
  uint64_t version; /* of the last change that is in it */
  uint8_t stream_header[24];
} HostBackupReply;

KS_STATIC_ASSERT(sizeof(HostBackupRequest) == 68);
KS_STATIC_ASSERT(sizeof(HostBackupReply) == 48);

/* HOST_OP_CHANGE_MASTER_KEY begins a change of the master key, or has one go on that was stopped. Its payload is empty,
 * or, where the service's key is a credential, the 32 bytes of the next one. HostKeyChangeReply answers
 * HOST_OP_MASTER_KEY_CHANGE, without a payload, which asks how far it has come. */
typedef struct {
  uint32_t result; /* KS_SUCCESS */
  uint32_t state;  /* HOST_KEY_... */
  uint64_t moved;
  uint64_t entries;
} HostKeyChangeReply;

enum {
  HOST_KEY_ONE = 0,     /* no change is under way */
  HOST_KEY_MOVING = 1,  /* entries move to the next key */
  HOST_KEY_STOPPED = 2, /* a failure stopped it: the log tells which */
  HOST_KEY_WAITING = 3  /* all have moved, and the next start is to bring the next key */
};

KS_STATIC_ASSERT(sizeof(HostKeyChangeReply) == 24);

/* HostFleetReply answers HOST_OP_FLEET, whose request has no payload. KS_NOT_FOUND, 4 bytes: the service keeps its
 * entries alone. The fleet's numbers are 0 until something has been loaded. */
typedef struct {
  uint32_t result;      /* KS_SUCCESS */
  uint32_t flags;       /* HOST_FLEET_... */
  uint64_t age_ms;      /* of what reads are answered from; UINT64_MAX: they aren't */
  uint64_t version;     /* of the last change */
  uint64_t incarnation; /* 1, and 1 more with every restore */
  uint64_t commits;     /* this machine's, since the service started */
  uint64_t lost;        /* of these, how often another machine came before */
  uint64_t unknown;     /* and how often the outcome had to be found out */
  uint64_t loads;       /* of all entries */
  uint8_t id[16];
  char machine[64];
  char standing[256]; /* in words */
} HostFleetReply;

#define HOST_FLEET_IS_WELL UINT32_C(1)
#define HOST_FLEET_LEFT_ALONE UINT32_C(2) /* nothing is read from the store or written to it until a restart */

#define HOST_FLEET_NO_ENGINE UINT32_C(4) /* there is no process that could talk to the store */

KS_STATIC_ASSERT(sizeof(HostFleetReply) == 400);

/* HostMachinesReply answers HOST_OP_FLEET_MACHINES, whose request has no payload: `count` records of HostMachineRecord
 * follow, ascending by name. For this message and the next three, KS_NOT_FOUND, 4 bytes, says that the service keeps
 * its entries alone. */
typedef struct {
  uint32_t result; /* KS_SUCCESS */
  uint32_t count;
} HostMachinesReply;

typedef struct {
  char name[64];
  uint32_t flags; /* HOST_MACHINE_... */
  uint32_t key_count;
  uint64_t silent_ms;      /* since its last heartbeat; of the service's own machine 0 */
  uint64_t version;        /* of the last change that it has reached */
  uint8_t keys[2][16];     /* the ids of the master keys that it holds */
  uint8_t fingerprint[16]; /* of its name and its own key */
} HostMachineRecord;

#define HOST_MACHINE_IS_THIS UINT32_C(1)
#define HOST_MACHINE_IS_MEMBER UINT32_C(2)       /* else there is a heartbeat alone */
#define HOST_MACHINE_HAS_BEAT UINT32_C(4)        /* version and keys are known */
#define HOST_MACHINE_SILENT_AT_LEAST UINT32_C(8) /* it wasn't heard for as long as the service listens */
#define HOST_MACHINE_HAS_KEY UINT32_C(16)        /* of its own */

#define HOST_MACHINES 256 /* in a reply at most */

KS_STATIC_ASSERT(sizeof(HostMachinesReply) == 8);
KS_STATIC_ASSERT(sizeof(HostMachineRecord) == 136);

/* HostLeaveRequest takes a machine out of the fleet. HostToldReply answers it. */
typedef struct {
  char machine[64]; /* empty: the service's own */
  uint32_t flags;   /* HOST_LEAVE_... */
  uint32_t reserved;
} HostLeaveRequest;

#define HOST_LEAVE_EVEN_IF_ALIVE UINT32_C(1) /* also one that was heard lately */

typedef struct {
  uint32_t result; /* KS_SUCCESS; KS_NOT_FOUND: no such machine; KS_INVALID_ARGS: something stands in the way;
                      KS_BAD_KEY: another fingerprint; others as of a change */
  char words[252]; /* what stands in the way; may be empty */
} HostToldReply;

KS_STATIC_ASSERT(sizeof(HostLeaveRequest) == 72);
KS_STATIC_ASSERT(sizeof(HostToldReply) == 256);

/* HOST_OP_FLEET_CHANGE_KEY begins a change of the fleet's master key, or gives the next key to machines that haven't
 * got it. Its payload is the fingerprint of the fleet's machines, 16 bytes; HostToldReply answers it.
 * HostFleetKeysReply answers HOST_OP_FLEET_KEYS, whose request has no payload. */
typedef struct {
  uint32_t result; /* KS_SUCCESS */
  uint32_t flags;  /* HOST_FLEET_KEYS_... */
  uint64_t moved;  /* entries that are sealed under the next key */
  uint64_t entries;
  uint8_t key[16];      /* the id of the master key */
  uint8_t next_key[16]; /* and of the next one, while it is changed */
  uint8_t machines[16]; /* the fingerprint of the fleet's machines and their own keys */
  char begun_by[64];    /* the machine that the change was asked of */
} HostFleetKeysReply;

#define HOST_FLEET_KEYS_LOADED UINT32_C(1) /* the machines are known */
#define HOST_FLEET_KEYS_CHANGE UINT32_C(2) /* the key is being changed */

KS_STATIC_ASSERT(sizeof(HostFleetKeysReply) == 136);
/* HOST_OP_FLEET_OWNERS is answered with a page of these, as HOST_OP_OWNERS of the same users: by which names of the
 * fleet they own entries. KS_NOT_FOUND, 4 bytes: the service keeps its entries alone. */
typedef struct {
  uint32_t uid;   /* as HOST_OP_OWNERS and HOST_OP_LIMITS tell it */
  uint32_t flags; /* HOST_OWNER_... */
  char name[64];
} HostFleetOwner;

#define HOST_OWNER_IS_NO_USER UINT32_C(1) /* the number stands for the name alone: no user of this machine has it */

KS_STATIC_ASSERT(sizeof(HostFleetOwner) == 72);
/* HostFleetImportRequest prepares to take the entries of a vault into the fleet: the service reads the vault, looks
 * what that would come to, and changes nothing. Behind the request there may be the passphrase that the vault's master
 * key is sealed under. HOST_OP_FLEET_GO_ON then does it.
 *
 * HostFleetImportReply answers it; `count` records of HostFleetName follow, the first of the names that are there
 * already with other content. KS_FAILURE: the vault can't be read, as `refusal` says. For this message and the next
 * two, KS_NOT_FOUND, 4 bytes, says that the service keeps its entries alone, and KS_TIMEOUT that another connection
 * imports or restores. */
typedef struct {
  uint32_t taken; /* HOST_TAKEN_...: what becomes of entries whose names are there already with other content */
  uint32_t reserved;
  char vault[256];    /* empty: that of the service's configuration */
  char key_file[256]; /* of the vault's master key */
  char witness[256];  /* empty: beside the vault */
} HostFleetImportRequest;

#define HOST_TAKEN_REFUSE UINT32_C(0) /* then nothing is changed at all */
#define HOST_TAKEN_SKIP UINT32_C(1)
#define HOST_TAKEN_REPLACE UINT32_C(2)

typedef struct {
  uint32_t result; /* KS_SUCCESS: it has been read */
  uint32_t count;
  uint64_t entries;
  uint64_t added; /* of these, what would become of them */
  uint64_t same;
  uint64_t replaced;
  uint64_t skipped;
  uint64_t refused;
  uint64_t unnamed; /* owners that have no name in the fleet, and would count as one */
  uint64_t limit;   /* that would be exceeded, and what it allows; no name when none would be */
  char limit_name[32];
  char vault[256]; /* that was read */
  char refusal[512];
} HostFleetImportReply;

#define HOST_IMPORT_NAMES 100

typedef struct {
  uint16_t vdc_id;
  uint8_t tag;
  uint8_t size; /* of the name */
  char name[32];
} HostFleetName;

KS_STATIC_ASSERT(sizeof(HostFleetImportRequest) == 776);
KS_STATIC_ASSERT(sizeof(HostFleetImportReply) == 872);
KS_STATIC_ASSERT(sizeof(HostFleetName) == 36);

/* HostFleetRestoreRequest brings the file of a backup to the service, in steps on one connection: first its size and
 * the key that was made of its passphrase, then the file in parts of HOST_RESTORE_PART bytes at most, each behind a
 * request of its own. HostFleetRestoreReply answers each; with the last part the service has read the backup, whose
 * entries HOST_OP_FLEET_GO_ON then puts in the place of all that the fleet has. KS_FAILURE: `refusal` says why. */
typedef struct {
  uint32_t step; /* HOST_RESTORE_... */
  uint32_t reserved;
  uint64_t size;
  uint64_t incarnation; /* that the fleet is raised to at least; 0: one more than is known */
  uint8_t key[32];
} HostFleetRestoreRequest;

#define HOST_RESTORE_BEGIN UINT32_C(1)
#define HOST_RESTORE_CONTINUE UINT32_C(2)
#define HOST_RESTORE_PART (UINT32_C(64) * 1024)

typedef struct {
  uint32_t result; /* KS_SUCCESS */
  uint32_t whole;  /* 1: all of it has come, and it is as it was written */
  uint64_t received;
  uint64_t entries; /* in the backup, and of what change and time it is */
  uint64_t version;
  uint64_t made_at;
  uint64_t present_entries; /* that this machine knows of, and of what change */
  uint64_t present_version;
  uint64_t incarnation;
  char refusal[512];
} HostFleetRestoreReply;

KS_STATIC_ASSERT(sizeof(HostFleetRestoreRequest) == 56);
KS_STATIC_ASSERT(sizeof(HostFleetRestoreReply) == 576);

/* HostFleetAcceptReply answers HOST_OP_FLEET_ACCEPT, whose descriptor is the number of an incarnation, 8 bytes: a
 * machine that has left the store alone follows a fleet that was restored to just that one. KS_NOT_FOUND: it hasn't;
 * KS_INVALID_ARGS: the store isn't at that one; KS_TIMEOUT: nothing came of it yet. */
typedef struct {
  uint32_t result; /* KS_SUCCESS */
  uint32_t reserved;
  uint64_t incarnation; /* that the machine has now */
  uint64_t restored_to; /* the later one that the store is at; 0: none */
} HostFleetAcceptReply;

KS_STATIC_ASSERT(sizeof(HostFleetAcceptReply) == 24);

/* HOST_OP_FLEET_GO_ON, without a payload, goes on with what was prepared on this connection: with an import by 100
 * entries, with a restore by waiting for it a little. It ends with the connection; a restore only as long as the fleet
 * isn't the backup's yet. KS_NOT_FOUND, 4 bytes: nothing was prepared. */
typedef struct {
  uint32_t result; /* KS_SUCCESS, or what stopped it, which `refusal` tells in words */
  uint32_t state;  /* HOST_FLEET_WORK_... */
  uint64_t done;
  uint64_t all;
  uint64_t added; /* by an import */
  uint64_t same;
  uint64_t replaced;
  uint64_t skipped;
  uint64_t incarnation; /* that a restore has raised the fleet to */
  char refusal[512];
} HostFleetGoOnReply;

#define HOST_FLEET_WORK_GOES_ON UINT32_C(0)
#define HOST_FLEET_WORK_DONE UINT32_C(1)

KS_STATIC_ASSERT(sizeof(HostFleetGoOnReply) == 576);

/* HostReplyShape is what a reply to one of the keystore's messages has to hold, so that whoever reads it without
 * looking finds it there. Every reply begins with its result; what follows counts with KS_SUCCESS alone.
 *
 * A caller's buffer is as large as what was asked for, which the reply must not exceed. Where the reader compares the
 * two itself, as those of ciphers and digests do, `most` says nothing. */
typedef struct {
  uint8_t least;        /* bytes that are read whatever stands in them, the result included */
  uint8_t length_bytes; /* of the 16-bit length behind the result, which tells how much follows: 0 when nobody reads it,
                           1 when only its low byte is read */
  uint16_t most;        /* the largest length that may stand there */
  uint8_t asked_bytes;  /* 0, or the size of the number at the descriptor's start, which the length must not exceed */
} HostReplyShape;

typedef enum {
  HOST_REPLY_RESULT,   /* alone */
  HOST_REPLY_FLAG,     /* a byte, behind a length that nobody reads */
  HOST_REPLY_FIRMWARE, /* version and status, behind such a length */
  HOST_REPLY_DATA,
  HOST_REPLY_RANDOM,
  HOST_REPLY_T_PRF,
  HOST_REPLY_PASSWORD /* RFC 2759's block; the reader takes any length */
} HostReplyKind;

/* By kind. */
static const HostReplyShape host_reply_shapes[] = {
    {sizeof(KsResult), 0, 0, 0}, {7, 0, 0, 0},          {9, 0, 0, 0},   {6, 2, UINT16_MAX, 0},
    {6, 1, UINT8_MAX, 1},        {6, 2, UINT16_MAX, 2}, {6, 2, 516, 0},
};

static inline HostReplyKind host_reply_kind(uint32_t opcode) {
  switch (opcode) {
    case KS_OP_GENERATE_RANDOM:
      return HOST_REPLY_RANDOM;
    case KS_OP_SECRET_EXISTS:
    case KS_OP_PAC_EXISTS:
      return HOST_REPLY_FLAG;
    case KS_OP_FW_VERSION_STATUS:
      return HOST_REPLY_FIRMWARE;
    case KS_OP_PAC_KEY_T_PRF:
      return HOST_REPLY_T_PRF;
    case KS_OP_NEW_PASSWORD_ENCRYPTED:
      return HOST_REPLY_PASSWORD;
    case KS_OP_HANDLE_BY_INDEX:
    case KS_OP_RETURN_METADATA:
    case KS_OP_GENERATE_NT_RESPONSE:
    case KS_OP_GENERATE_AUTH_RESPONSE:
    case KS_OP_OLD_HASH_ENCRYPTED:
    case KS_OP_GET_MASTER_KEY:
    case KS_OP_AES_ENCRYPT:
    case KS_OP_AES_DECRYPT:
    case KS_OP_AES_CBC_ENCRYPT:
    case KS_OP_AES_CBC_DECRYPT:
    case KS_OP_HMAC_MD5:
    case KS_OP_HMAC_SHA1:
    case KS_OP_MD5:
    case KS_OP_SHA1:
    case KS_OP_DES_ENCRYPT:
    case KS_OP_DES_DECRYPT:
    case KS_OP_3DES_ENCRYPT:
    case KS_OP_3DES_DECRYPT:
      return HOST_REPLY_DATA;
    default: /* nobody reads more of a message that isn't known */
      return HOST_REPLY_RESULT;
  }
}

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
