#include "datapath/datagram_io.h"

#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/thread_control.h"
#include "flow/flow_desc.h"
#include "log/error_text.h"
#include "log/log.h"

namespace vesk {

namespace {

/// Control data for one packet-information message of either family, in bytes.
constexpr std::size_t receivedControlLength = CMSG_LEN(sizeof(in6_pktinfo));

static_assert(sizeof(in6_pktinfo) == 20, "the room in IncomingMessage is made for it");

template <typename Value>
Value readAt(std::span<const std::uint8_t> bytes) {
    Value value;
    std::memcpy(&value, bytes.data(), sizeof(value));
    return value;
}

LocalAddress ipv4Destination(const in_pktinfo& information) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr = information.ipi_addr;
    // For a broadcast or multicast destination the kernel names one of the host's own addresses in
    // ipi_spec_dst, for any other the destination itself.
    const bool validSource = information.ipi_spec_dst.s_addr == information.ipi_addr.s_addr;
    return {{reinterpret_cast<const sockaddr*>(&address), sizeof(address)}, validSource};
}

LocalAddress ipv6Destination(const in6_pktinfo& information) {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = information.ipi6_addr;
    address.sin6_scope_id = information.ipi6_ifindex;
    return {{reinterpret_cast<const sockaddr*>(&address), sizeof(address)}, false};
}

ReceiveResult receiveCancellably(IncomingMessage& message, VeskEndpointDescriptor& endpoint) {
    message.prepare(endpoint);
    const CancellationScope cancellable;
    const ssize_t received = recvmsg(endpoint.rdsockfd, message.header(), 0);
    return {received, errno};
}

bool usesIpv4TrafficClass(const SocketAddress& destination) {
    if (destination.family() != AF_INET6) {
        return destination.family() == AF_INET;
    }
    return IN6_IS_ADDR_V4MAPPED(&destination.storage.sin6_addr);
}

}  // namespace

IncomingMessage::IncomingMessage() {
    header_.msg_name = &sender_.storage;
    header_.msg_iovlen = 1;
    header_.msg_control = control_.data();
}

void IncomingMessage::prepare(VeskEndpointDescriptor& endpoint) {
    header_.msg_namelen = sizeof(sender_.storage);
    header_.msg_iov = &endpoint.scatter;
    header_.msg_controllen = receivedControlLength;
    header_.msg_flags = 0;
}

const SocketAddress& IncomingMessage::sender() {
    sender_.length = header_.msg_namelen;
    return sender_;
}

LocalAddress IncomingMessage::localDestination(int family) const {
    return findLocalDestination(family, std::span(control_).first(header_.msg_controllen));
}

std::size_t awaitDatagram(IncomingMessage& message, VeskEndpointDescriptor& endpoint,
                          std::string_view name) {
    const ReceiveResult result = receiveCancellably(message, endpoint);
    if (result.received >= 1) {
        endpoint.counters.rxDg.increment();
        return static_cast<std::size_t>(result.received);
    }
    if (message.truncated()) {
        endpoint.counters.rxDgError.increment();
    } else if (result.error != ECONNREFUSED) {
        logError("Forwarder ", name, " endpoint got error while receiving: errno = ", result.error,
                 " (", errorText(result.error), ").");
    }
    return 0;
}

ReceiveResult receiveNow(IncomingMessage& message, VeskEndpointDescriptor& endpoint) {
    message.prepare(endpoint);
    errno = EAGAIN;
    const ssize_t received = recvmsg(endpoint.rdsockfd, message.header(), MSG_DONTWAIT);
    return {received, errno};
}

LocalAddress findLocalDestination(int family, std::span<const std::uint8_t> control) {
    const int level =
        family == AF_INET6 ? static_cast<int>(IPPROTO_IPV6) : static_cast<int>(IPPROTO_IP);
    const int type = family == AF_INET6 ? IPV6_PKTINFO : IP_PKTINFO;
    while (control.size() >= sizeof(cmsghdr)) {
        const auto header = readAt<cmsghdr>(control);
        if (header.cmsg_len < sizeof(cmsghdr) || header.cmsg_len > control.size()) {
            break;
        }
        const auto data = control.subspan(CMSG_LEN(0), header.cmsg_len - CMSG_LEN(0));
        if (header.cmsg_level == level && header.cmsg_type == type) {
            if (family == AF_INET && data.size() >= sizeof(in_pktinfo)) {
                return ipv4Destination(readAt<in_pktinfo>(data));
            }
            if (family == AF_INET6 && data.size() >= sizeof(in6_pktinfo)) {
                return ipv6Destination(readAt<in6_pktinfo>(data));
            }
        }
        control = control.subspan(std::min(CMSG_ALIGN(header.cmsg_len), control.size()));
    }
    return {};
}

OutgoingMessage::OutgoingMessage(Ipv4Source ipv4Source) : ipv4Source_(ipv4Source) {
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

void OutgoingMessage::addSource(const LocalAddress& local) {
    if (local.address.length == 0) {
        return;
    }
    if (local.address.family() == AF_INET6) {
        addIpv6Source(local.address);
    } else if (local.address.family() == AF_INET) {
        addIpv4Source(local);
    }
}

void OutgoingMessage::addIpv6Source(const SocketAddress& local) {
    const auto address = readAt<sockaddr_in6>(local.bytes());
    in6_pktinfo information{};
    information.ipi6_addr = address.sin6_addr;
    information.ipi6_ifindex = address.sin6_scope_id;
    const auto data = appendControl(IPPROTO_IPV6, IPV6_PKTINFO, sizeof(information));
    std::memcpy(data.data(), &information, sizeof(information));
}

void OutgoingMessage::addIpv4Source(const LocalAddress& local) {
    in_pktinfo information{};
    // Kept: without `arrival` only ipi_addr is set, which the kernel does not use as a source
    // (ip(7)). It then chooses the source itself, even on a bound socket.
    information.ipi_addr = readAt<sockaddr_in>(local.address.bytes()).sin_addr;
    if (ipv4Source_ == Ipv4Source::arrival && local.validIpv4Source) {
        information.ipi_spec_dst = information.ipi_addr;
    }
    const auto data = appendControl(IPPROTO_IP, IP_PKTINFO, sizeof(information));
    std::memcpy(data.data(), &information, sizeof(information));
}

std::span<std::uint8_t> OutgoingMessage::appendControl(int level, int type,
                                                       std::size_t dataLength) {
    const std::size_t offset = header_.msg_controllen;
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
