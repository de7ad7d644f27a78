// Socket addresses of both families from their texts, without the resolver.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdint>

#include "base/socket_address.h"

namespace vesk {

inline SocketAddress ipv4(const char* host, std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    EXPECT_EQ(inet_pton(AF_INET, host, &address.sin_addr), 1);
    return {reinterpret_cast<const sockaddr*>(&address), sizeof(address)};
}

inline SocketAddress ipv6(const char* host, std::uint16_t port) {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    EXPECT_EQ(inet_pton(AF_INET6, host, &address.sin6_addr), 1);
    return {reinterpret_cast<const sockaddr*>(&address), sizeof(address)};
}

}  // namespace vesk
