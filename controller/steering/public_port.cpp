#include "steering/public_port.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <string>
#include <utility>

#include "steering/bound_socket.h"

namespace vesk::controller {

/// Binds a socket to an abstract name, which the kernel releases with the process. Each network
/// namespace has its own names, as it has its own tables. 0 and the socket, or the negative error
/// number.
int claimTable(std::uint16_t port, UniqueFd& claim) {
    UniqueFd opened(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!opened) {
        return -errno;
    }
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    // The first byte of an abstract name is 0.
    const std::string text = "vesk-steering-" + std::to_string(port);
    std::ranges::copy(text, name.sun_path + 1);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + text.size());
    if (bind(opened.get(), reinterpret_cast<const sockaddr*>(&name), size) != 0) {
        return errno == EADDRINUSE ? -EBUSY : -errno;
    }
    claim = std::move(opened);
    return 0;
}

int PublicPort::take(const HostPort& address) {
    const bool samePort = held() && address.port == port_;
    UniqueFd claim;
    if (const int error = samePort ? 0 : claimTable(address.port, claim)) {
        return error;
    }
    UniqueFd opened;
    if (const int error = bindSocket(address, opened)) {
        return error;
    }
    // Multicast and broadcast are not steered and would fill the buffer.
    const int smallest = 0;
    static_cast<void>(setsockopt(opened.get(), SOL_SOCKET, SO_RCVBUF, &smallest, sizeof smallest));
    socket_ = std::move(opened);
    if (!samePort) {
        claim_ = std::move(claim);
    }
    port_ = address.port;
    return 0;
}

void PublicPort::release() {
    socket_.reset();
    claim_.reset();
}

}  // namespace vesk::controller
