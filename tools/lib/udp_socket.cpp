#include "lib/udp_socket.h"

#include <arpa/inet.h>
#include <netinet/udp.h>
#include <sys/socket.h>

#include <cerrno>
#include <random>
#include <stdexcept>
#include <system_error>

namespace vesk::bench {
namespace {

// Room for a few thousand datagrams: datagrams lost to a full buffer at either end would be counted
// as lost by the forwarder. The kernel reduces the request to its limit.
constexpr int socketBufferSize = 4 << 20;

// Below the usual ip_local_port_range.
constexpr std::uint16_t firstFixedPort = 10240;
constexpr std::uint16_t lastFixedPort = 32767;

void throwOnFailure(int result, const char* what) {
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

const sockaddr* generic(const sockaddr_in& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

}  // namespace

sockaddr_in loopbackAddress(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

sockaddr_in ipv4Address(const std::string& host, std::uint16_t port) {
    sockaddr_in address = loopbackAddress(port);
    if (::inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1) {
        throw std::invalid_argument("not an IPv4 address: " + host);
    }
    return address;
}

bool sameAddress(const sockaddr_in& left, const sockaddr_in& right) {
    return left.sin_addr.s_addr == right.sin_addr.s_addr && left.sin_port == right.sin_port;
}

UdpSocket::UdpSocket(std::uint16_t port) : fd_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    throwOnFailure(fd(), "socket");
    ::setsockopt(fd(), SOL_SOCKET, SO_RCVBUF, &socketBufferSize, sizeof socketBufferSize);
    ::setsockopt(fd(), SOL_SOCKET, SO_SNDBUF, &socketBufferSize, sizeof socketBufferSize);
    const sockaddr_in address = loopbackAddress(port);
    throwOnFailure(::bind(fd(), generic(address), sizeof address), "bind");
}

void UdpSocket::connectTo(const sockaddr_in& address) {
    throwOnFailure(::connect(fd(), generic(address), sizeof address), "connect");
}

void UdpSocket::mergeReceives() {
    const int on = 1;
    ::setsockopt(fd(), SOL_UDP, UDP_GRO, &on, sizeof on);
}

void UdpSocket::wakeReceivers() {
    // Fails with ENOTCONN on an unconnected socket, but wakes its receivers nevertheless.
    ::shutdown(fd(), SHUT_RDWR);
}

std::uint16_t UdpSocket::port() const {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    throwOnFailure(::getsockname(fd(), reinterpret_cast<sockaddr*>(&address), &length),
                   "getsockname");
    return ntohs(address.sin_port);
}

std::uint16_t freeUdpPort() {
    std::random_device random;
    std::uniform_int_distribution<std::uint16_t> ports(firstFixedPort, lastFixedPort);
    while (true) {
        try {
            return UdpSocket(ports(random)).port();
        } catch (const std::system_error& error) {
            if (error.code() != std::errc::address_in_use) {
                throw;
            }
        }
    }
}

}  // namespace vesk::bench
