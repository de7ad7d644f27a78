// A socket address as a value, for bind, sendmsg and recvmsg. Any thread; values are not shared.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <span>

namespace vesk {

/// A socket address in the kernel's form, with address and port in network byte order; empty if its
/// length is 0. Trivially copyable, so that the datapath copies it without an allocation. Only
/// large enough for IPv4 and IPv6, since every flow stores a dozen.
struct SocketAddress {
    /// The larger of the two families. The family member is at the same place in an IPv4 address.
    sockaddr_in6 storage{};
    socklen_t length = 0;

    SocketAddress() = default;
    /// At most `capacity` bytes.
    SocketAddress(const sockaddr* address, socklen_t addressLength);

    static constexpr socklen_t capacity = sizeof(storage);

    int family() const { return storage.sin6_family; }
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
    sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
    std::span<const std::uint8_t> bytes() const;
};

/// Same length and same bytes.
bool operator==(const SocketAddress& left, const SocketAddress& right);

/// The same address with another port, in host byte order.
SocketAddress withPort(SocketAddress address, std::uint16_t port);

/// Whether `family` has socket addresses of exactly this length.
bool isAddressOfFamily(int family, std::size_t length);

}  // namespace vesk
