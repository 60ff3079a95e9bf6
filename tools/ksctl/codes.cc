// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "codes.h"

#include <ks_api.h>
#include <sdb.h>

namespace ksctl {
namespace {

constexpr Code kResults[] = {
    {KS_NOT_REGISTERED, "KS_NOT_REGISTERED",
     "ks_clear_pac and ks_clear_all_pacs: the sup state holds every PAC, so none is removed.",
     "Remove it when the sup state is another: supstate in the service's configuration. Don't take 0 for success."},
    {KS_SUCCESS, "KS_SUCCESS", "It was done.",
     "Nothing. Compare results with KS_SUCCESS; a test for truth takes every failure but one for it."},
    {KS_FAILURE, "KS_FAILURE",
     "No service was reached at start-up; or the exchange failed, in the operations whose header says so; or a reply "
     "or a PAC's metadata isn't as it must be; or the cache isn't open or refused.",
     "See whether the service runs, and KS_SOCKET names its socket: `ksctl status`, or `ksctl secret list` for who is "
     "no administrator. Before a change is repeated, look whether it was made."},
    {KS_INVALID_ARGS, "KS_INVALID_ARGS",
     "A pointer is null; a name or A-ID isn't of 1 to 31 bytes; a length is outside what the header allows. From the "
     "service: the new name or alias is another entry's, or the name is in another VDC.",
     "Compare the call with its header. For a name that is taken, take another or remove that entry."},
    {KS_NO_MEMORY, "KS_NO_MEMORY",
     "The process or the service has no memory left. Also for a linked name of more than 31 bytes.",
     "Look at the memory and the limits of both processes, and repeat."},
    {KS_NOT_FOUND, "KS_NOT_FOUND",
     "There is no entry of that name in the caller's VDC; entries of other VDCs are answered alike. In a cache "
     "function: the cache has no entry.",
     "`ksctl secret list` and `ksctl pac list` show what there is, `ksctl context list` in which VDC."},
    {KS_NO_MORE_ENTRIES, "KS_NO_MORE_ENTRIES", "A walk by index has come to the end of the table.",
     "Nothing: it is how a walk ends."},
    {KS_STORE_FULL, "KS_STORE_FULL",
     "A limit on entries or bytes is reached, of the user or of all together; or the disk is full.",
     "Remove what isn't needed (`ksctl pac age-out`, `ksctl secret rm`), make room on the disk, or raise [limits] in "
     "the service's configuration. Entries can be removed all the time."},
    {KS_TIMEOUT, "KS_TIMEOUT",
     "A change was sent to the store that machines share, and its time was over before it was known whether it was "
     "made; or an administrator asked for more backups at a time than there may be; or a device's service waited in "
     "vain for its chip.",
     "Look whether the change was made before it is repeated, and at `ksctl status`."},
    {KS_BAD_KEY, "KS_BAD_KEY",
     "The secret named as the key isn't of a size or kind that the operation takes: 8 bytes for DES, 16 or 24 "
     "for 3DES, a password in UTF-8 for MS-CHAPv2.",
     "Store a secret of the right size under the name, or name another."},
    {KS_CRYPT_ERROR, "KS_CRYPT_ERROR", "The algorithm failed its self-test when the service started, and is refused.",
     "Restart the service and look at its log. If it says so again, don't use this build on this processor."},
    {KS_KEY_LEN_UNSUPPORTED, "KS_KEY_LEN_UNSUPPORTED", "The secret named as an AES key isn't of 16, 24 or 32 bytes.",
     "Store a key of one of these sizes under the name, or name another."},
    {KS_FW_COMM_ERROR, "KS_FW_COMM_ERROR",
     "The exchange failed, in the operations whose header says so: most of the secret store, the walk over secrets, "
     "and the sending of a PAC's read. Or the service can't reach the store that it shares with other machines: a "
     "change wasn't sent, or what it has in memory is too old to be read.",
     "See whether the service runs: `ksctl status`. Before a change is repeated, look whether it was made."},
    {KS_FW_COMPACT_CORRUPT, "KS_FW_COMPACT_CORRUPT",
     "Compaction of a device's memory damaged entries. ksd compacts by copying and doesn't make this code.",
     "Store the damaged entries again, after a look at which of them still work."},
    {KS_FW_BAD_CELL, "KS_FW_BAD_CELL",
     "A write or a sync of the vault failed, but not for want of room. No change is taken any more; reads go on.",
     "Look at the service's log and at the disk, then restart the service."},
    {KS_FW_PANIC, "KS_FW_PANIC", "A device's firmware stopped and was started again. ksd doesn't make this code.",
     "Repeat it. If it comes back, look at the device's log."},
    {KS_BAD_FRAGMENT_SIZE, "KS_BAD_FRAGMENT_SIZE",
     "A device's service cut a message wrongly. Neither the library nor ksd makes this code.",
     "Look at the log of the service that answered."},
    {KS_BAD_RESPONSE_FORMAT, "KS_BAD_RESPONSE_FORMAT",
     "A device's firmware answered in a form that its service doesn't know. ksd doesn't make this code.",
     "Look at the versions of service and firmware."},
    {KS_VERSION_MISMATCH, "KS_VERSION_MISMATCH",
     "The client's message library and the service speak different versions of the protocol.",
     "Install library and service of one version."},
    {KS_RPC_TOO_LARGE, "KS_RPC_TOO_LARGE",
     "Request or reply is longer than the service takes: a PAC's key or metadata above 65,535 bytes, a T-PRF's label "
     "or random above 1,024, a message above 192 KiB.",
     "Ask for less in one call."},
    {KS_RPC_ERROR, "KS_RPC_ERROR",
     "The service doesn't know the message, or answers it to administrators only, who are told apart by the kernel's "
     "word alone.",
     "Run the command as one of [administrators] in the service's configuration; else look at the versions of library "
     "and service."},
    {KS_FRAGMENT_UNSUPPORTED, "KS_FRAGMENT_UNSUPPORTED",
     "The message doesn't fit into one piece, and a device's firmware takes no more than one. ksd doesn't make this "
     "code.",
     "Ask for less in one call."},
};

constexpr Code kCache[] = {
    {0x411a0001, "unsafe", "The cache's folder or a file in it has the wrong owner or mode.",
     "Give the folder mode 0700 and to the user, as docs/operating.md says."},
    {0x411a0002, "damaged", "The structure of the database is damaged, or the file was cut.",
     "Delete its .mdb file while nobody uses it, and `ksctl cache warm` anew."},
    {0x411a0003, "value damaged", "One value isn't what was written. The entry reads as an error.",
     "`ksctl cache warm` writes it again."},
    {0x411a0004, "full", "The entries fill what the database may take. They stay readable.", "`ksctl cache purge`."},
    {0x411a0005, "busy", "Another process held a commit for more than 2 seconds. Nothing was changed.",
     "Repeat it. If it comes back, look for a stopped process that uses the cache."},
    {0x411a0006, "wrong argument", "A call of libsdb was given what it doesn't take, as a key that is too long.",
     "It is a mistake in the calling program."},
    {0x411a0007, "no memory", "The process has no memory left.", "Look at the memory and the limits of the process."},
    {KS_SDB_ERR_RETRY, "KS_SDB_ERR_RETRY", "The database can't be opened for now: it is busy, or has no reader slot.",
     "Nothing: the library tries again. If it lasts, end some of the processes that use the cache."},
    {0x411a0009, "system", "A system call failed; the report says which.", "Look at the disk and the system's log."},
    {0x411a000a, "no iteration", "A walk was continued that wasn't begun.", "It is a mistake in the calling program."},
    {0x411a000b, "wrong format", "The database was made by another version.",
     "Delete its .mdb file while nobody uses it, and `ksctl cache warm` anew."},
    {0x411a000c, "outgrown", "Another process lets the database be larger than this one maps.",
     "Restart the program, so that it maps all of it."},
    {KS_SDB_ERR_NO_URI, "KS_SDB_ERR_NO_URI", "No database is open at that URI.",
     "See why it can't be opened: `ksctl cache list`."},
    {KS_SDB_ERR_BAD_URI, "KS_SDB_ERR_BAD_URI", "The URI isn't of the form lmdb:///FOLDER/NAME.",
     "Mend cache_uri in the service's configuration."},
    {KS_SDB_ERR_NO_KEY, "KS_SDB_ERR_NO_KEY", "The cache has no such key.",
     "Nothing: a PAC that isn't cached is read from the keystore."},
    {0x40480004, "no more keys", "A walk has come to the end of the cache.", "Nothing: it is how a walk ends."},
};

bool is_of_cache(const Code &code) {
  return code.number > UINT16_MAX;
}

}  // namespace

std::span<const Code> result_codes() {
  return kResults;
}

std::span<const Code> cache_codes() {
  return kCache;
}

std::string text_of(const Code &code) {
  return is_of_cache(code) ? syserr2str(code.number) : kserr2str(code.number);
}

}  // namespace ksctl
