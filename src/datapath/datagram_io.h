// Receives and sends datagrams with their addresses and control data. Called by the receive threads
// and the workers for each datagram.
#pragma once

#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

#include "base/socket_address.h"
#include "net/endpoint.h"
#include "net/local_address.h"

namespace vesk {

/// The arguments of a receive call: the message header, the sender and the control data. Each
/// receiving thread has one and reuses it for each datagram.
class IncomingMessage {
 public:
    IncomingMessage();
    IncomingMessage(const IncomingMessage&) = delete;
    IncomingMessage& operator=(const IncomingMessage&) = delete;

    /// Prepares the header for the next call: sets the endpoint's buffer, and resets the lengths
    /// that the kernel overwrites.
    void prepare(VeskEndpointDescriptor& endpoint);
    msghdr* header() { return &header_; }

    /// The sender of the datagram. Valid after a successful call.
    const SocketAddress& sender();
    /// The address to which the datagram was sent, with port 0; empty if the kernel did not report
    /// it.
    LocalAddress localDestination(int family) const;
    /// Whether the datagram was longer than the buffer.
    bool truncated() const { return (header_.msg_flags & MSG_TRUNC) != 0; }

 private:
    msghdr header_{};
    SocketAddress sender_;
    alignas(cmsghdr) std::array<std::uint8_t, CMSG_SPACE(20)> control_{};
};

struct ReceiveResult {
    /// Bytes received, or -1.
    ssize_t received;
    /// errno after the call. If the call received an empty datagram, the value that errno had
    /// before.
    int error;
};

/// Waits for the next datagram of a blocking endpoint, and counts it. Returns its length in bytes,
/// or 0 after an error, which is counted or logged; the log names the endpoint `name`. A
/// cancellation point.
std::size_t awaitDatagram(IncomingMessage& message, VeskEndpointDescriptor& endpoint,
                          std::string_view name);

/// Receives without waiting, even if the socket is blocking. An empty datagram is reported like a
/// drained socket (EAGAIN), since it is no reason to delete the endpoint.
ReceiveResult receiveNow(IncomingMessage& message, VeskEndpointDescriptor& endpoint);

/// Searches control data for the packet information of the family. Empty if there is none. An IPv6
/// address has the interface index as its scope.
LocalAddress findLocalDestination(int family, std::span<const std::uint8_t> control);

/// The arguments of a send call: the datagram, the destination and the control data.
class OutgoingMessage {
 public:
    explicit OutgoingMessage(Ipv4Source ipv4Source = Ipv4Source::kernel);
    OutgoingMessage(const OutgoingMessage&) = delete;
    OutgoingMessage& operator=(const OutgoingMessage&) = delete;

    /// Sets the datagram, which is not copied and must outlive the send call.
    void setDatagram(std::span<std::uint8_t> datagram);

    /// Sets the destination, which is copied, and removes all control data.
    void setDestination(const SocketAddress& destination);

    bool hasDestination() const { return header_.msg_namelen != 0; }

    /// Adds the traffic class for the destination set before: the IPv4 value for IPv4 and
    /// IPv4-mapped IPv6 destinations, else the IPv6 value. Adds nothing if that value is `noDscp`.
    void addTrafficClass(std::int32_t dscpV4, std::int32_t dscpV6);

    /// Adds the source address; nothing if it is empty. For IPv4 the kernel uses it only if the
    /// message was made for `Ipv4Source::arrival` and the address is a valid source.
    void addSource(const LocalAddress& local);

    const msghdr* header() const { return &header_; }

 private:
    void addIpv4Source(const LocalAddress& local);
    void addIpv6Source(const SocketAddress& local);
    std::span<std::uint8_t> appendControl(int level, int type, std::size_t dataLength);

    const Ipv4Source ipv4Source_;
    msghdr header_{};
    iovec element_{};
    SocketAddress destination_;
    // Not initialised, since one is made for each datagram. The header contains the length in use.
    alignas(cmsghdr) std::array<std::uint8_t, 80> control_;
};

}  // namespace vesk
