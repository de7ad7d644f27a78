#include "datapath/received_control.h"

#include <netinet/udp.h>

#include <algorithm>

#include "base/read_value.h"

namespace vesk {

namespace {

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

/// Reads one control message. Any other kind, one that is too short, and a second one of a kind are
/// ignored.
void readMessage(const cmsghdr& header, std::span<const std::uint8_t> data, int family,
                 ReceivedControl& result) {
    const auto isKind = [&header](int level, int type) {
        return header.cmsg_level == level && header.cmsg_type == type;
    };
    const bool destinationIsKnown = result.localDestination.address.length != 0;
    if (family == AF_INET && isKind(IPPROTO_IP, IP_PKTINFO) && data.size() >= sizeof(in_pktinfo) &&
        !destinationIsKnown) {
        result.localDestination = ipv4Destination(readAt<in_pktinfo>(data));
    } else if (family == AF_INET6 && isKind(IPPROTO_IPV6, IPV6_PKTINFO) &&
               data.size() >= sizeof(in6_pktinfo) && !destinationIsKnown) {
        result.localDestination = ipv6Destination(readAt<in6_pktinfo>(data));
    } else if (isKind(IPPROTO_UDP, UDP_GRO) && data.size() >= sizeof(int) &&
               result.segmentSize == 0) {
        result.segmentSize = static_cast<std::size_t>(std::max(readAt<int>(data), 0));
    }
}

}  // namespace

ReceivedControl readControl(int family, std::span<const std::uint8_t> control) {
    ReceivedControl result;
    while (control.size() >= sizeof(cmsghdr)) {
        const auto header = readAt<cmsghdr>(control);
        if (header.cmsg_len < sizeof(cmsghdr) || header.cmsg_len > control.size()) {
            break;
        }
        readMessage(header, control.subspan(CMSG_LEN(0), header.cmsg_len - CMSG_LEN(0)), family,
                    result);
        control = control.subspan(std::min(CMSG_ALIGN(header.cmsg_len), control.size()));
    }
    return result;
}

}  // namespace vesk
