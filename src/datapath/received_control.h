// What the kernel reports beside a datagram: the address to which it was sent, and whether several
// datagrams were merged into one. Called by the receive threads and the workers for each message.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <span>

#include "net/local_address.h"

namespace vesk {

struct ReceivedControl {
    /// The address to which the datagram was sent, with port 0; empty if the kernel did not report
    /// it. An IPv6 address has the interface index as its scope.
    LocalAddress localDestination;
    /// The length in bytes of each of the datagrams that were merged; only the last one may be
    /// shorter. 0 if the message is one datagram.
    std::size_t segmentSize = 0;
};

/// Room for all that readControl reads, in bytes.
inline constexpr std::size_t receivedControlSpace =
    CMSG_SPACE(sizeof(in6_pktinfo)) + CMSG_SPACE(sizeof(int));

/// Searches control data for the packet information of the family (ip(7), ipv6(7)) and for the
/// segment size (udp(7)). Stops at a header with an invalid length.
ReceivedControl readControl(int family, std::span<const std::uint8_t> control);

}  // namespace vesk
