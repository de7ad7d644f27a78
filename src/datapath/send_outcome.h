// Sends a datagram and classifies the result. Called by the receive threads and the workers for
// each datagram that they send.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/counter.h"
#include "datapath/datagram_io.h"

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

/// Sends the message from the socket. The outcome is `sent` if at least `least` bytes were sent.
SendResult sendMessage(const OutgoingMessage& message, int socket, int flags, std::size_t least);

/// Counts a datagram as sent or dropped; one that is `refused` is not counted.
inline void countSend(SendOutcome outcome, SharedCounter& sent, SharedCounter& dropped) {
    if (outcome == SendOutcome::sent) {
        sent.increment();
    } else if (outcome != SendOutcome::refused) {
        dropped.increment();
    }
}

}  // namespace vesk
