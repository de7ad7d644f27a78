// Sending a datagram, and what came of it. Called by the receive threads for every datagram that
// they send.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/counter.h"
#include "datapath/datagram_io.h"

namespace vesk {

enum class SendOutcome : std::uint8_t {
    sent,
    /// The socket reports that an earlier datagram was refused (ECONNREFUSED). Counted nowhere.
    refused,
    /// There is no room in the socket's send buffer (EAGAIN).
    noRoom,
    failed,
};

struct SendResult {
    SendOutcome outcome;
    /// errno after the call.
    int error;
};

/// Sends the message from the socket. It is sent where at least `least` of its bytes went out.
SendResult sendMessage(const OutgoingMessage& message, int socket, int flags, std::size_t least);

/// Counts what was sent and what was dropped.
inline void countSend(SendOutcome outcome, SharedCounter& sent, SharedCounter& dropped) {
    if (outcome == SendOutcome::sent) {
        sent.increment();
    } else if (outcome != SendOutcome::refused) {
        dropped.increment();
    }
}

}  // namespace vesk
