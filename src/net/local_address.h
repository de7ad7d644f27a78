// The address of this host that a datagram arrived on, or that one is to be sent from. A value,
// remembered with a flow's route and compared as a whole. Any thread.
#pragma once

#include <cstdint>

#include "base/socket_address.h"

namespace vesk {

/// Who chooses the source address of IPv4 datagrams: the kernel, by its routes, or the address that
/// the other side's datagrams arrive on.
enum class Ipv4Source : std::uint8_t { kernel, arrival };

struct LocalAddress {
    /// Port 0 where it comes from a datagram, the interface in the scope of IPv6; empty where it is
    /// not known.
    SocketAddress address;
    /// Whether the kernel accepts it as an IPv4 source: not so for broadcast and multicast
    /// addresses. False for IPv6, where nothing depends on it.
    bool validIpv4Source = false;

    friend bool operator==(const LocalAddress&, const LocalAddress&) = default;
};

/// An address that a flow was declared with. Its value shows that it is multicast or the limited
/// broadcast address; the broadcast address of a subnet is not recognised.
LocalAddress configuredLocalAddress(const SocketAddress& address);

}  // namespace vesk
