// The exclusive right of one receive worker to serve an upstream endpoint's read socket. It keeps
// the replies of a flow in order: from the first receive call until the replies have been sent and
// the socket is to be armed, no other worker receives from the socket.
//
// A worker that is refused the right forgets the socket. It may have the descriptor number of a
// removed endpoint, which now belongs to a new one. Its wake-up is not lost even if it was meant
// for the new socket: the worker that serves the socket arms it at the end, and the poll loop then
// reports it again if it has datagrams.
#pragma once

#include <atomic>

#include "net/endpoint.h"

namespace vesk {

/// Takes the right for `worker`. True if it has the right, now or already.
inline bool claimServing(VeskEndpointDescriptor& endpoint, const void* worker) {
    const void* holder = nullptr;
    return endpoint.server.compare_exchange_strong(holder, worker, std::memory_order_acq_rel,
                                                   std::memory_order_acquire) ||
           holder == worker;
}

/// Gives the right back. Called by the worker that has it, after it took the right to arm the
/// socket and before the socket is armed, since another worker may then be woken for it at once.
inline void endServing(VeskEndpointDescriptor& endpoint) {
    endpoint.server.store(nullptr, std::memory_order_release);
}

}  // namespace vesk
