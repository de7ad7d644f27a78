#include "datapath/outgoing_message.h"

#include <netinet/udp.h>

#include <algorithm>
#include <cstring>

#include "base/read_value.h"
#include "flow/flow_desc.h"

namespace vesk {

namespace {

bool usesIpv4TrafficClass(const SocketAddress& destination) {
    if (destination.family() != AF_INET6) {
        return destination.family() == AF_INET;
    }
    return IN6_IS_ADDR_V4MAPPED(&destination.storage.sin6_addr);
}

}  // namespace

OutgoingMessage::OutgoingMessage() {
    header_.msg_name = &destination_.storage;
    header_.msg_iov = &element_;
    header_.msg_iovlen = 1;
}

void OutgoingMessage::setDatagram(std::span<std::uint8_t> datagram) {
    element_ = {datagram.data(), datagram.size()};
}

void OutgoingMessage::setDestination(const SocketAddress& destination) {
    destination_ = destination;
    header_.msg_namelen = destination.length;
    header_.msg_control = nullptr;
    header_.msg_controllen = 0;
}

void OutgoingMessage::addTrafficClass(std::int32_t dscpV4, std::int32_t dscpV6) {
    const bool ipv4 = usesIpv4TrafficClass(destination_);
    const std::int32_t dscp = ipv4 ? dscpV4 : dscpV6;
    if (dscp == noDscp) {
        return;
    }
    // The DSCP value is in the upper six bits of the octet; the lower two are for ECN.
    const int trafficClass = (dscp << 2) & 255;
    const auto data = ipv4 ? appendControl(IPPROTO_IP, IP_TOS, sizeof(trafficClass))
                           : appendControl(IPPROTO_IPV6, IPV6_TCLASS, sizeof(trafficClass));
    std::memcpy(data.data(), &trafficClass, sizeof(trafficClass));
}

void OutgoingMessage::addSource(const LocalAddress& local, Ipv4Source ipv4Source) {
    if (local.address.length == 0) {
        return;
    }
    if (local.address.family() == AF_INET6) {
        addIpv6Source(local.address);
    } else if (local.address.family() == AF_INET) {
        addIpv4Source(local, ipv4Source);
    }
}

std::size_t OutgoingMessage::destinationHash() const {
    // Family, port and IPv4 address, or family, port and flow information.
    const auto start = readAt<std::uint64_t>(destination_.bytes().first(sizeof(std::uint64_t)));
    const std::uint64_t ipv6 =
        destination_.family() == AF_INET6
            ? readAt<std::uint64_t>(
                  std::span(destination_.storage.sin6_addr.s6_addr).last(sizeof(std::uint64_t)))
            : 0;
    // Multiplied by a large odd number, so that the upper bits depend on all others.
    constexpr std::uint64_t multiplier = 0x9e3779b97f4a7c15;
    return static_cast<std::size_t>(((start ^ ipv6) * multiplier) >> 32);
}

bool OutgoingMessage::hasRouteOf(const OutgoingMessage& other) const {
    const auto controlOf = [](const OutgoingMessage& message) {
        return std::span(message.control_).first(message.header_.msg_controllen);
    };
    return hasDestinationOf(other) && std::ranges::equal(controlOf(*this), controlOf(other));
}

msghdr OutgoingMessage::segmentedHeader(std::uint16_t size) {
    const msghdr unsegmented = header_;
    const auto data = appendControl(IPPROTO_UDP, UDP_SEGMENT, sizeof(size));
    std::memcpy(data.data(), &size, sizeof(size));
    const msghdr segmented = header_;
    header_ = unsegmented;
    return segmented;
}

void OutgoingMessage::addIpv6Source(const SocketAddress& local) {
    const auto address = readAt<sockaddr_in6>(local.bytes());
    in6_pktinfo information{};
    information.ipi6_addr = address.sin6_addr;
    information.ipi6_ifindex = address.sin6_scope_id;
    const auto data = appendControl(IPPROTO_IPV6, IPV6_PKTINFO, sizeof(information));
    std::memcpy(data.data(), &information, sizeof(information));
}

void OutgoingMessage::addIpv4Source(const LocalAddress& local, Ipv4Source ipv4Source) {
    in_pktinfo information{};
    // Kept: without `arrival` only ipi_addr is set, which the kernel does not use as a source
    // (ip(7)). It then chooses the source itself, even on a bound socket.
    information.ipi_addr = readAt<sockaddr_in>(local.address.bytes()).sin_addr;
    if (ipv4Source == Ipv4Source::arrival && local.validIpv4Source) {
        information.ipi_spec_dst = information.ipi_addr;
    }
    const auto data = appendControl(IPPROTO_IP, IP_PKTINFO, sizeof(information));
    std::memcpy(data.data(), &information, sizeof(information));
}

std::span<std::uint8_t> OutgoingMessage::appendControl(int level, int type,
                                                       std::size_t dataLength) {
    const std::size_t offset = header_.msg_controllen;
    // The padding is cleared too, so that equal messages have equal bytes.
    std::ranges::fill(std::span(control_).subspan(offset, CMSG_SPACE(dataLength)), std::uint8_t{0});
    cmsghdr header{};
    header.cmsg_len = CMSG_LEN(dataLength);
    header.cmsg_level = level;
    header.cmsg_type = type;
    std::memcpy(control_.data() + offset, &header, sizeof(header));
    header_.msg_control = control_.data();
    header_.msg_controllen = offset + CMSG_SPACE(dataLength);
    return std::span(control_).subspan(offset + CMSG_LEN(0), dataLength);
}

}  // namespace vesk
