// UDP sockets on the loopback address. All bench traffic stays on this host.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>

#include "base/unique_fd.h"

namespace vesk::bench {

sockaddr_in loopbackAddress(std::uint16_t port);

/// Throws std::invalid_argument if `host` is not a numeric IPv4 address.
sockaddr_in ipv4Address(const std::string& host, std::uint16_t port);

bool sameAddress(const sockaddr_in& left, const sockaddr_in& right);

/// A UDP socket bound to a loopback port. Failed system calls throw std::system_error.
class UdpSocket {
 public:
    /// Port 0 lets the kernel choose.
    explicit UdpSocket(std::uint16_t port = 0);

    void connectTo(const sockaddr_in& address);

    /// Lets the kernel return several datagrams of one sender as one message. A kernel that cannot
    /// returns each by itself, as before.
    void mergeReceives();

    /// Makes every receive call on this socket return at once, including one that is blocked now.
    void wakeReceivers();

    int fd() const { return fd_.get(); }
    std::uint16_t port() const;

 private:
    UniqueFd fd_;
};

/// A port that was free a moment ago. It is below the usual ephemeral ports, so the kernel does not
/// assign it to another socket before the intended program binds it.
std::uint16_t freeUdpPort();

}  // namespace vesk::bench
