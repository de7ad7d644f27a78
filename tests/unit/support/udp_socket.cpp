#include "support/udp_socket.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include "flow/ip_addr_info.h"

namespace vesk {

namespace {

constexpr int patienceMilliseconds = 30000;

/// The loopback address with port 0.
SocketAddress loopback(int family) {
    return withPort(IPAddrInfo(family == AF_INET6 ? "::1" : "127.0.0.1", 1).socketAddress(), 0);
}

bool becomesReadable(int fd, int milliseconds) {
    pollfd watched{fd, POLLIN, 0};
    return poll(&watched, 1, milliseconds) == 1;
}

}  // namespace

UdpSocket::UdpSocket(int family) : fd_(socket(family, SOCK_DGRAM, 0)) {
    const SocketAddress any = loopback(family);
    EXPECT_EQ(bind(fd_.get(), any.get(), any.length), 0);
    address_ = boundAddress(fd_.get());
}

std::uint16_t UdpSocket::port() const {
    return portOf(address_);
}

void UdpSocket::send(const Bytes& datagram, const SocketAddress& to) {
    EXPECT_EQ(sendto(fd_.get(), datagram.data(), datagram.size(), 0, to.get(), to.length),
              static_cast<ssize_t>(datagram.size()));
}

std::optional<Bytes> UdpSocket::receive() {
    if (!becomesReadable(fd_.get(), patienceMilliseconds)) {
        return std::nullopt;
    }
    Bytes datagram(65536);
    sender_.length = sizeof(sender_.storage);
    const ssize_t count =
        recvfrom(fd_.get(), datagram.data(), datagram.size(), 0, sender_.get(), &sender_.length);
    if (count < 0) {
        return std::nullopt;
    }
    datagram.resize(static_cast<std::size_t>(count));
    return datagram;
}

bool UdpSocket::empty() const {
    return !becomesReadable(fd_.get(), 0);
}

SocketAddress boundAddress(int fd) {
    SocketAddress address;
    address.length = sizeof(address.storage);
    EXPECT_EQ(getsockname(fd, address.get(), &address.length), 0);
    return address;
}

std::uint16_t portOf(const SocketAddress& address) {
    return IPAddrInfo(address.get(), address.length).port();
}

void provokeRefusal(int fd) {
    SocketAddress nobody;
    {
        const UdpSocket gone;
        nobody = gone.address();
    }
    ASSERT_EQ(connect(fd, nobody.get(), nobody.length), 0);
    ASSERT_EQ(send(fd, "x", 1, 0), 1);
    pollfd watched{fd, 0, 0};
    ASSERT_EQ(poll(&watched, 1, patienceMilliseconds), 1);
    ASSERT_NE(watched.revents & POLLERR, 0);
}

bool hasPendingError(int fd) {
    pollfd watched{fd, 0, 0};
    return poll(&watched, 1, 0) == 1 && (watched.revents & POLLERR) != 0;
}

std::uint16_t freePort(int family) {
    return UdpSocket(family).port();
}

}  // namespace vesk
