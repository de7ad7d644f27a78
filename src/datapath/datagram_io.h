// Control data in and out: what the kernel tells of a datagram received, and what it is told of one
// to be sent. Called by the receive threads for every datagram.
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

/// One receive call: the message header with its sender and control data. Kept by a receiving
/// thread and used again for each datagram.
class IncomingMessage {
 public:
    IncomingMessage();
    IncomingMessage(const IncomingMessage&) = delete;
    IncomingMessage& operator=(const IncomingMessage&) = delete;

    /// Points the header at the endpoint's buffer and makes room for all that the kernel writes.
    void prepare(VeskEndpointDescriptor& endpoint);
    msghdr* header() { return &header_; }

    /// What the kernel wrote, after a successful call.
    const SocketAddress& sender();
    /// Where the datagram was sent to, port 0; empty where the kernel did not say.
    LocalAddress localDestination(int family) const;
    bool truncated() const { return (header_.msg_flags & MSG_TRUNC) != 0; }

 private:
    msghdr header_{};
    SocketAddress sender_;
    alignas(cmsghdr) std::array<std::uint8_t, CMSG_SPACE(20)> control_{};
};

struct ReceiveResult {
    /// Bytes received, or -1.
    ssize_t received;
    /// errno after the call; where it brought nothing, whatever errno held before.
    int error;
};

/// Waits for the next datagram of a blocking endpoint, known as `name` in the log, and counts it.
/// Its length; 0 where something else came of the wait, which is counted or logged. The calling
/// thread may be cancelled meanwhile.
std::size_t awaitDatagram(IncomingMessage& message, VeskEndpointDescriptor& endpoint,
                          std::string_view name);

/// Receives without waiting, should the socket have stayed a blocking one too. An empty datagram is
/// reported like a drained socket (EAGAIN): it is no reason to give a flow up.
ReceiveResult receiveNow(IncomingMessage& message, VeskEndpointDescriptor& endpoint);

/// Walks control data for the packet information of the family. Empty where there is none.
/// An IPv6 address carries the interface index in its scope.
LocalAddress findLocalDestination(int family, std::span<const std::uint8_t> control);

/// One send call, with the address and control data that it carries.
class OutgoingMessage {
 public:
    explicit OutgoingMessage(Ipv4Source ipv4Source = Ipv4Source::kernel);
    OutgoingMessage(const OutgoingMessage&) = delete;
    OutgoingMessage& operator=(const OutgoingMessage&) = delete;

    /// What to send; referred to, not copied.
    void setDatagram(std::span<std::uint8_t> datagram);

    /// Where to, copied, with no control data.
    void setDestination(const SocketAddress& destination);

    bool hasDestination() const { return header_.msg_namelen != 0; }

    /// The traffic class for the destination set: the IPv4 value for IPv4 and for IPv4-mapped IPv6
    /// destinations, else the IPv6 one; no mark where the value is `noDscp`.
    void addTrafficClass(std::int32_t dscpV4, std::int32_t dscpV6);

    /// The address to send from; nothing for an empty one. On IPv4 the kernel follows it only
    /// where the message was made for `Ipv4Source::arrival` and the address may be a source.
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
    // Made for every datagram, so left as it comes; the header says how much of it counts.
    alignas(cmsghdr) std::array<std::uint8_t, 80> control_;
};

}  // namespace vesk
