#include "net/local_address.h"

#include <netinet/in.h>

#include <cstring>

namespace vesk {

namespace {

bool isIpv4Unicast(const SocketAddress& address) {
    if (address.length == 0 || address.family() != AF_INET) {
        return false;
    }
    sockaddr_in ipv4;
    std::memcpy(&ipv4, address.get(), sizeof(ipv4));
    const in_addr_t value = ntohl(ipv4.sin_addr.s_addr);
    return !IN_MULTICAST(value) && value != INADDR_BROADCAST;
}

}  // namespace

LocalAddress configuredLocalAddress(const SocketAddress& address) {
    return {address, isIpv4Unicast(address)};
}

}  // namespace vesk
