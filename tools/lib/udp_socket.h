// UDP sockets on the loopback address. All bench traffic stays on this host.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>

#include "base/unique_fd.h"

namespace vesk::bench {

sockaddr_in loopbackAddress(std::uint16_t port);

/// Of a numeric host; any other is a std::invalid_argument.
sockaddr_in ipv4Address(const std::string& host, std::uint16_t port);

bool sameAddress(const sockaddr_in& left, const sockaddr_in& right);

/// A UDP socket bound to a loopback port. Failures of the calls behind it are std::system_error.
class UdpSocket {
 public:
    /// Port 0 lets the kernel choose.
    explicit UdpSocket(std::uint16_t port = 0);

    void connectTo(const sockaddr_in& address);

    /// Makes every receive on this socket return at once, now and later, also one that is blocked.
    void wakeReceivers();

    int fd() const { return fd_.get(); }
    std::uint16_t port() const;

 private:
    UniqueFd fd_;
};

/// A port that was free a moment ago, out of a range that the kernel chooses none from by itself:
/// it stays free until the program that it is meant for binds it.
std::uint16_t freeUdpPort();

}  // namespace vesk::bench
