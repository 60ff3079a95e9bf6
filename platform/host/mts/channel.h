// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// channel.h: the client's end of a channel: exchanges through memory that is shared with the service.
//
// The memory is the service's, and stays whole for as long as it is mapped: it can't be cut (the file is sealed). What
// the service writes there is copied before it is looked at.
#ifndef MTS_CHANNEL_H
#define MTS_CHANNEL_H

#include <cstddef>
#include <cstdint>

#include "host_socket.h"
#include "host_wire.h"

namespace mts {

struct Slot;

// agree_on_channel asks the service on the other end of the socket for a channel, and maps it. Returns 0 or an error
// number, with which the connection can't be used any more. `out_channel` is null when there can be no channel: all
// goes on by the socket then.
int agree_on_channel(int socket, const host::Deadline &deadline, HostChannel **out_channel);

void unmap_channel(HostChannel *channel);

// Whether a request of so many bytes, header included, may lie in the area. Another one goes by the socket.
bool fits_into_channel(uint32_t size);

// post_request begins an exchange: the slot's service is to look at the request of `size` bytes in the area, or, for
// HOST_CHANNEL_ON_SOCKET, at what was sent on the socket. Returns 0, or EPIPE when the service has left without having
// taken it.
int post_request(Slot *slot, uint32_t size);

// await_answer waits for the reply to it. Returns 0 or an error number: ECONNRESET when the service has left,
// ETIMEDOUT.
int await_answer(Slot *slot);

// Then it lies in the area, or was sent on the socket.
bool answer_is_on_socket(const Slot *slot);

// copy_answer moves the reply out of the area into the slot's buffer and returns its size; 0 for one that the area has
// no room for.
size_t copy_answer(Slot *slot);

}  // namespace mts

#endif
