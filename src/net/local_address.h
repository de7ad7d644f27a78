// The address of this host on which a datagram arrived, or from which one is sent. A value, stored
// with a flow's route and compared as a whole. Any thread.
#pragma once

#include <cstdint>

#include "base/socket_address.h"

namespace vesk {

/// How the source address of IPv4 datagrams is chosen: by the kernel, from its routes, or as the
/// address on which the other side's datagrams arrive.
enum class Ipv4Source : std::uint8_t { kernel, arrival };

struct LocalAddress {
    /// Empty if it is not known. If it comes from a datagram, the port is 0, and an IPv6 address
    /// has the interface index as its scope.
    SocketAddress address;
    /// Whether the kernel accepts it as an IPv4 source, which excludes broadcast and multicast
    /// addresses. Not used for IPv6, and false there.
    bool validIpv4Source = false;

    friend bool operator==(const LocalAddress&, const LocalAddress&) = default;
};

/// An address from a flow's declaration. Multicast addresses and the limited broadcast address are
/// recognised as invalid sources; the broadcast address of a subnet is not.
LocalAddress configuredLocalAddress(const SocketAddress& address);

}  // namespace vesk
