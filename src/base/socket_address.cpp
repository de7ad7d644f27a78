#include "base/socket_address.h"

#include <cstring>

namespace vesk {

SocketAddress::SocketAddress(const sockaddr* address, socklen_t addressLength)
    : length(addressLength) {
    std::memcpy(&storage, address, addressLength);
}

std::span<const std::uint8_t> SocketAddress::bytes() const {
    return {reinterpret_cast<const std::uint8_t*>(&storage), length};
}

bool operator==(const SocketAddress& left, const SocketAddress& right) {
    return left.length == right.length &&
           std::memcmp(&left.storage, &right.storage, left.length) == 0;
}

SocketAddress withPort(SocketAddress address, std::uint16_t port) {
    const in_port_t networkPort = htons(port);
    const std::size_t offset = address.family() == AF_INET6 ? offsetof(sockaddr_in6, sin6_port)
                                                            : offsetof(sockaddr_in, sin_port);
    std::memcpy(reinterpret_cast<std::uint8_t*>(&address.storage) + offset, &networkPort,
                sizeof(networkPort));
    return address;
}

bool isAddressOfFamily(int family, std::size_t length) {
    return (family == AF_INET && length == sizeof(sockaddr_in)) ||
           (family == AF_INET6 && length == sizeof(sockaddr_in6));
}

}  // namespace vesk
