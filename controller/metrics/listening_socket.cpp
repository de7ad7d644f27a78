#include "metrics/listening_socket.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <stdexcept>

#include "log/error_text.h"

namespace vesk::controller {

namespace {

struct FreeAddresses {
    void operator()(addrinfo* found) const { freeaddrinfo(found); }
};
using Addresses = std::unique_ptr<addrinfo, FreeAddresses>;

Addresses addressesOf(const std::string& address, std::uint16_t port) {
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) {
        return nullptr;
    }
    return Addresses(found);
}

bool setOption(int socket, int level, int option, int value) {
    return setsockopt(socket, level, option, &value, sizeof value) == 0;
}

bool listenWith(int socket, const addrinfo& place) {
    // Connections that ended recently still occupy the port.
    return setOption(socket, SOL_SOCKET, SO_REUSEADDR, 1) &&
           (place.ai_family != AF_INET6 || setOption(socket, IPPROTO_IPV6, IPV6_V6ONLY, 0)) &&
           bind(socket, place.ai_addr, place.ai_addrlen) == 0 && listen(socket, SOMAXCONN) == 0;
}

}  // namespace

UniqueFd listenOn(const std::string& address, std::uint16_t port) {
    const Addresses place = addressesOf(address, port);
    if (!place) {
        throw std::runtime_error("not a numeric address");
    }
    UniqueFd listening(socket(place->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listening || !listenWith(listening.get(), *place)) {
        throw std::runtime_error(errorText(errno));
    }
    return listening;
}

std::uint16_t portOf(const UniqueFd& listening) {
    sockaddr_storage place{};
    socklen_t size = sizeof place;
    getsockname(listening.get(), reinterpret_cast<sockaddr*>(&place), &size);
    return ntohs(place.ss_family == AF_INET6
                     ? reinterpret_cast<const sockaddr_in6&>(place).sin6_port
                     : reinterpret_cast<const sockaddr_in&>(place).sin_port);
}

}  // namespace vesk::controller
