// Which of the datagrams that wait to be sent can leave as one message, which the kernel cuts into
// datagrams (UDP_SEGMENT, udp(7)). A pure function, used by SendBatch.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <span>

#include "net/endpoint.h"

namespace vesk {

/// A datagram that waits to be sent.
struct HeldDatagram {
    /// The endpoint on which its result is counted.
    VeskEndpointDescriptor* account;
    iovec bytes;
    /// The number of its destination, marking and source within the batch.
    std::uint8_t route;
    /// The number of its destination within the batch.
    std::uint8_t group;
};

/// Datagrams that are passed to the kernel as one message.
struct SendRun {
    std::size_t first;
    std::size_t count;
    /// Their lengths together.
    std::size_t bytes;
};

/// The longest run that begins with the datagram `first`: datagrams of one route and one length, of
/// which the last may be shorter. Longer datagrams than `segmentLimit` bytes leave alone.
SendRun longestRun(std::span<const HeldDatagram> datagrams, std::size_t first,
                   std::size_t segmentLimit);

}  // namespace vesk
