// Control data in the form in which the kernel delivers and accepts it.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "flow/ip_addr_info.h"
#include "net/local_address.h"
#include "support/bytes.h"

namespace vesk {

/// One control message with its padding, as the kernel writes it.
inline Bytes control(int level, int type, const Bytes& data) {
    cmsghdr header{};
    header.cmsg_len = CMSG_LEN(data.size());
    header.cmsg_level = level;
    header.cmsg_type = type;
    Bytes bytes(CMSG_SPACE(data.size()));
    std::memcpy(bytes.data(), &header, sizeof(header));
    std::ranges::copy(data, bytes.begin() + sizeof(header));
    return bytes;
}

inline Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

/// Interface 3, destination 192.0.2.1, which is the host's own.
inline const Bytes ipv4Information = fromHex("03000000 c0000201 c0000201");
/// Interface 3, destination 192.0.2.255, a broadcast address; the host's own is 192.0.2.1.
inline const Bytes ipv4BroadcastInformation = fromHex("03000000 c0000201 c00002ff");
/// Destination 2001:db8::1, interface 3.
inline const Bytes ipv6Information = fromHex("20010db8 00000000 00000000 00000001 03000000");

inline LocalAddress ipv4Destination() {
    return {withPort(IPAddrInfo("192.0.2.1", 1).socketAddress(), 0), true};
}

inline LocalAddress ipv4BroadcastDestination() {
    return {withPort(IPAddrInfo("192.0.2.255", 1).socketAddress(), 0), false};
}

inline LocalAddress ipv6Destination() {
    SocketAddress address = withPort(IPAddrInfo("2001:db8::1", 1).socketAddress(), 0);
    reinterpret_cast<sockaddr_in6*>(address.get())->sin6_scope_id = 3;
    return {address, false};
}

}  // namespace vesk
