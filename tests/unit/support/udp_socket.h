// A UDP socket on loopback with a port chosen by the kernel. It acts as a peer, an upstream service
// or another instance.
#pragma once

#include <cstdint>
#include <optional>

#include "base/socket_address.h"
#include "base/unique_fd.h"
#include "support/bytes.h"

namespace vesk {

class UdpSocket {
 public:
    explicit UdpSocket(int family = AF_INET);

    int fd() const { return fd_.get(); }
    /// The address to which the socket is bound.
    const SocketAddress& address() const { return address_; }
    std::uint16_t port() const;

    void send(const Bytes& datagram, const SocketAddress& to);
    /// Waits for the next datagram; empty if none arrives in time.
    std::optional<Bytes> receive();
    /// The sender of the datagram received last.
    const SocketAddress& sender() const { return sender_; }
    /// Whether no datagram has arrived. On loopback a datagram has arrived when its send call
    /// returns.
    bool empty() const;

 private:
    UniqueFd fd_;
    SocketAddress address_;
    SocketAddress sender_;
};

/// The address that a socket is bound to.
SocketAddress boundAddress(int fd);
std::uint16_t portOf(const SocketAddress& address);

/// Makes the next call on a UDP socket fail once with ECONNREFUSED.
void provokeRefusal(int fd);
/// Whether the socket still has an error to report.
bool hasPendingError(int fd);

/// A port that is free at the moment.
std::uint16_t freePort(int family = AF_INET);

}  // namespace vesk
