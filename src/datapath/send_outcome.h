// The result of sending datagrams, and how it is counted. Used by the receive threads and the
// workers.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

#include "base/counter.h"

namespace vesk {

enum class SendOutcome : std::uint8_t {
    sent,
    /// The socket reports that an earlier datagram was refused (ECONNREFUSED). Not counted.
    refused,
    /// The socket's send buffer is full (EAGAIN).
    noRoom,
    failed,
};

struct SendResult {
    SendOutcome outcome;
    /// errno after the call.
    int error;
};

/// The outcome of a send call that failed with this errno.
SendOutcome outcomeOfError(int error);

/// Sends the message from the socket. The outcome is `sent` if at least `least` bytes were sent.
SendResult sendMessage(const msghdr& message, int socket, int flags, std::size_t least);

/// Counts datagrams as sent or dropped; those that are `refused` are not counted.
inline void countSend(SendOutcome outcome, SharedCounter& sent, SharedCounter& dropped,
                      std::uint64_t datagrams = 1) {
    if (outcome == SendOutcome::sent) {
        sent.add(datagrams);
    } else if (outcome != SendOutcome::refused) {
        dropped.add(datagrams);
    }
}

}  // namespace vesk
