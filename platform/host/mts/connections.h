// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// connections.h: the process's connections to the service, pooled.
//
// A connection carries one exchange at a time. Whoever takes a slot owns its connection, socket, buffer and all, until
// the slot is given back, so nothing but the slot's word is shared and no lock is held while anybody waits. There are
// as many connections as there were ever exchanges at the same time.
#ifndef MTS_CONNECTIONS_H
#define MTS_CONNECTIONS_H

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "host_socket.h"
#include "host_wire.h"

namespace mts {

struct KnownPath;

// Identity is what tells an open file from all others: device and inode. That of no file is all zeros.
struct Identity {
  uint64_t device;
  uint64_t inode;

  friend bool operator==(const Identity &, const Identity &) = default;
};

// Slot is a place for one connection. `word` is the serial number of the slot's last exchange, shifted left by
// kStateBits, and its state. `index` and `generation` never change; the other members belong to the owner. Aligned, so
// that threads in two slots never write to one cache line.
struct alignas(64) Slot {
  std::atomic<uint32_t> word;
  uint32_t index;
  uint32_t generation;  // of host::fork_generation
  uint32_t receive_limit_ms;
  KnownPath *path;     // where it is connected
  int socket;          // -1: not open
  Identity identity;   // of the socket, which tells it from a stranger's under the same number
  uint8_t *buffer;     // HOST_WIRE_MAX_DATAGRAM bytes, mapped: touched as far as messages go
  size_t buffer_used;  // bytes of `buffer` that may hold something of an exchange

  HostChannel *channel;     // null: exchanges go by the socket
  uint32_t channel_serial;  // of the last exchange in it
  bool by_channel;          // the exchange in progress goes through it
  uint32_t until_channel;   // exchanges on the connection until a channel is asked for; 0: it isn't

  // Of the exchange in progress:
  uint64_t sent_at;             // in the processor's own ticks
  const HostReplyShape *shape;  // of its reply
  uint32_t opcode;
  uint32_t most;  // that its reply's length may say
};

// use_service_path reads from the environment where the service is; all connections go there from now on.
void use_service_path();

// service_path is where that is; empty where it is too long for a socket, or unknown without memory. path_of is where
// the slot is connected. Both stay for the life of the process.
const char *service_path();
const char *path_of(const Slot *slot);

// take gives the caller a slot of this process, if possible one with an open connection, the calling thread's last
// before others. Null with errno when there are too many exchanges at a time (EMFILE) or no memory.
Slot *take();

// open connects and greets, closing what the slot had open, within the limit that the service told last. Returns false
// with errno and what was in the way.
bool open(Slot *slot, host::Obstacle *obstacle);

// grow asks for a channel when the connection has had some exchanges in a row that fit into one, of which this one is
// to be the next: what a short-lived program connects for is over before it would pay. Returns 0 or an error number,
// with which the connection can't be used any more.
int grow(Slot *slot, bool fits);

// owns_socket tells whether the slot's descriptor is still its socket. A program that closes what it doesn't know, and
// then opens files of its own, gets its numbers: what was meant for the service would go there.
bool owns_socket(const Slot *slot);

// is_usable tells whether the slot has a connection to where the service is now. (It may have been closed there.) What
// goes through a channel goes nowhere else, whatever became of the socket's number.
bool is_usable(const Slot *slot, bool by_channel);

// next_token begins an exchange in the caller's slot and returns its token, never 0.
uint32_t next_token(Slot *slot);

// is_earlier tells whether the token is of an earlier exchange in the slot of `current`.
bool is_earlier(uint32_t token, uint32_t current);

// await_reply leaves the slot to whoever resumes it under the token.
void await_reply(Slot *slot);

// resume gives the slot back to the holder of the token, once. Null when nothing is awaited under it in this process.
Slot *resume(uint32_t token);

// give_back ends the caller's ownership; the connection, when it is open, is there for others at once.
void give_back(Slot *slot);

// close_and_give_back is for a connection that something may be on its way in.
void close_and_give_back(Slot *slot);

}  // namespace mts

#endif
