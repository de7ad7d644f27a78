// A datagram to be sent, with its destination and its control data. Used by the receive threads and
// the workers.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "base/socket_address.h"
#include "net/local_address.h"

namespace vesk {

/// The arguments of a send call: the datagram, the destination and the control data.
class OutgoingMessage {
 public:
    OutgoingMessage();
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

    /// Adds the source address; nothing if it is empty. For IPv4 the kernel uses it only with
    /// `Ipv4Source::arrival` and if the address is a valid source.
    void addSource(const LocalAddress& local, Ipv4Source ipv4Source);

    const msghdr* header() const { return &header_; }

    /// The same for messages with the same destination.
    std::size_t destinationHash() const;
    bool hasDestinationOf(const OutgoingMessage& other) const {
        return destination_ == other.destination_;
    }
    /// Whether the destination and the control data are the same.
    bool hasRouteOf(const OutgoingMessage& other) const;

    /// A header with the same destination and control data that has the kernel cut what it sends
    /// into datagrams of `size` bytes (UDP_SEGMENT, udp(7)). Only one such header of a message may
    /// be in use at a time, since all of them share the room for the size.
    msghdr segmentedHeader(std::uint16_t size);

 private:
    /// Room for the traffic class, the source and the segment size, in bytes.
    static constexpr std::size_t controlSpace = CMSG_SPACE(sizeof(int)) +
                                                CMSG_SPACE(sizeof(in6_pktinfo)) +
                                                CMSG_SPACE(sizeof(std::uint16_t));

    void addIpv4Source(const LocalAddress& local, Ipv4Source ipv4Source);
    void addIpv6Source(const SocketAddress& local);
    std::span<std::uint8_t> appendControl(int level, int type, std::size_t dataLength);

    msghdr header_{};
    iovec element_{};
    SocketAddress destination_;
    // Not initialised. The header contains the length in use.
    alignas(cmsghdr) std::array<std::uint8_t, controlSpace> control_;
};

}  // namespace vesk
