#include "net/released_ports.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstddef>

#include "base/socket_address.h"

namespace vesk {

namespace {

static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));

bool isBoundTo(int fd, std::uint16_t port) {
    SocketAddress local;
    local.length = SocketAddress::capacity;
    return getsockname(fd, local.get(), &local.length) == 0 &&
           ntohs(local.storage.sin6_port) == port;
}

}  // namespace

void ReleasedPorts::add(std::uint16_t port, int rdsockfd, int wrsockfd) {
    const Clock::time_point now = Clock::now();
    std::erase_if(released_, [now](const Released& released) { return !mayBeOpen(released, now); });
    released_.push_back({port, rdsockfd, wrsockfd, now});
}

bool ReleasedPorts::contains(std::uint16_t port) const {
    const Clock::time_point now = Clock::now();
    return std::ranges::any_of(released_, [port, now](const Released& released) {
        return released.port == port && mayBeOpen(released, now);
    });
}

/// close(2) frees the number of the descriptor before it releases the port, and the closing thread
/// may be preempted in between, so closed descriptors prove nothing for a while. The number of a
/// descriptor may belong to another socket by now, even to one that got the same port; the time
/// limit ends such a mistake.
bool ReleasedPorts::mayBeOpen(const Released& released, Clock::time_point now) {
    constexpr std::chrono::milliseconds closing{50};
    constexpr std::chrono::seconds longest{1};
    const Clock::duration age = now - released.when;
    return age < closing || (age < longest && (isBoundTo(released.rdsockfd, released.port) ||
                                               isBoundTo(released.wrsockfd, released.port)));
}

}  // namespace vesk
