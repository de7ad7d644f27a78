// Sends one HTTP request to a server on this host, for the tests of the pages.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace vesk::controller {

inline UniqueFd connectTo(const std::string& host, std::uint16_t port) {
    const bool isIpv6 = host.find(':') != std::string::npos;
    UniqueFd connection(socket(isIpv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    // A test fails if an answer takes longer.
    const timeval limit{20, 0};
    setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    sockaddr_storage storage{};
    socklen_t size = sizeof(sockaddr_in);
    if (isIpv6) {
        auto* const address = reinterpret_cast<sockaddr_in6*>(&storage);
        address->sin6_family = AF_INET6;
        address->sin6_port = htons(port);
        inet_pton(AF_INET6, host.c_str(), &address->sin6_addr);
        size = sizeof(sockaddr_in6);
    } else {
        auto* const address = reinterpret_cast<sockaddr_in*>(&storage);
        address->sin_family = AF_INET;
        address->sin_port = htons(port);
        inet_pton(AF_INET, host.c_str(), &address->sin_addr);
    }
    if (connect(connection.get(), reinterpret_cast<const sockaddr*>(&storage), size) != 0) {
        return UniqueFd();
    }
    return connection;
}

/// Whether this host has the loopback address of IPv6.
inline bool hasIpv6() {
    const UniqueFd trial(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in6 loopback{};
    loopback.sin6_family = AF_INET6;
    loopback.sin6_addr = in6addr_loopback;
    return trial &&
           bind(trial.get(), reinterpret_cast<const sockaddr*>(&loopback), sizeof loopback) == 0;
}

inline bool say(const UniqueFd& connection, std::string_view text) {
    return send(connection.get(), text.data(), text.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(text.size());
}

/// Everything that is received until the connection ends.
inline std::string answerOn(const UniqueFd& connection) {
    std::string answer;
    std::array<char, 4096> piece{};
    for (ssize_t size = 0; (size = recv(connection.get(), piece.data(), piece.size(), 0)) > 0;) {
        answer.append(piece.data(), static_cast<std::size_t>(size));
    }
    return answer;
}

/// The whole answer with its headers; empty if there is none.
inline std::string ask(const std::string& method, const std::string& path, std::uint16_t port,
                       const std::string& host = "127.0.0.1") {
    const UniqueFd connection = connectTo(host, port);
    const bool said =
        say(connection,
            method + " " + path + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n");
    return said ? answerOn(connection) : std::string();
}

}  // namespace vesk::controller
