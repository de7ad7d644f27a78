// A UDP socket on loopback, with a port of the kernel's choice: a peer, an upstream service or
// another instance.
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
    /// Where it can be reached.
    const SocketAddress& address() const { return address_; }
    std::uint16_t port() const;

    void send(const Bytes& datagram, const SocketAddress& to);
    /// The next datagram, waited for; nothing where none comes.
    std::optional<Bytes> receive();
    /// Who sent the datagram received last.
    const SocketAddress& sender() const { return sender_; }
    /// Whether nothing has arrived. On loopback a datagram is there when its sending returns.
    bool empty() const;

 private:
    UniqueFd fd_;
    SocketAddress address_;
    SocketAddress sender_;
};

/// The address that a socket is bound to.
SocketAddress boundAddress(int fd);
std::uint16_t portOf(const SocketAddress& address);

/// Makes the next use of a UDP socket fail with ECONNREFUSED, once.
void provokeRefusal(int fd);
/// Whether the socket has an error to report yet.
bool hasPendingError(int fd);

/// A port that nobody has at the moment.
std::uint16_t freePort(int family = AF_INET);

}  // namespace vesk
