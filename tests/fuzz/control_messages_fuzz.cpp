// The search through control messages for the address to which a datagram was sent and for the
// segment size of merged datagrams. The input is the control data, which is searched for both
// families.
#include <netinet/in.h>
#include <netinet/udp.h>

#include <cstring>
#include <functional>

#include "datapath/received_control.h"
#include "support/byte_reader.h"
#include "support/require.h"

namespace vesk::fuzz {
namespace {

template <typename Value>
Value at(View bytes, std::size_t offset) {
    Value value;
    std::memcpy(&value, bytes.data() + offset, sizeof(value));
    return value;
}

LocalAddress ipv4Address(View message) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    // Interface, the address to reply from, the destination address of the datagram.
    std::memcpy(&address.sin_addr, message.data() + 24, 4);
    return {{reinterpret_cast<const sockaddr*>(&address), sizeof(address)},
            std::memcmp(message.data() + 20, message.data() + 24, 4) == 0};
}

LocalAddress ipv6Address(View message) {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    std::memcpy(&address.sin6_addr, message.data() + 16, 16);
    address.sin6_scope_id = at<std::uint32_t>(message, 32);
    return {{reinterpret_cast<const sockaddr*>(&address), sizeof(address)}, false};
}

/// The first message of this kind with at least this much data; empty if there is none. By index: a
/// message consists of its length (8 bytes), level and type (4 each) and data, and the next message
/// begins at a multiple of 8.
View firstMessage(
    View control, int level, int type, std::size_t dataLength,
    const std::function<bool(View)>& isWanted = [](View) { return true; }) {
    for (std::size_t offset = 0; offset + 16 <= control.size();) {
        const auto length = at<std::uint64_t>(control, offset);
        if (length < 16 || length > control.size() - offset) {
            break;
        }
        const View message = control.subspan(offset, length);
        if (at<std::int32_t>(message, 8) == level && at<std::int32_t>(message, 12) == type &&
            length >= 16 + dataLength && isWanted(message)) {
            return message;
        }
        offset += (length + 7) / 8 * 8;
    }
    return {};
}

LocalAddress expectedDestination(int family, View control) {
    const bool ipv6 = family == AF_INET6;
    const View message = ipv6 ? firstMessage(control, 41, IPV6_PKTINFO, 20)
                              : firstMessage(control, 0, IP_PKTINFO, 12);
    if (message.empty()) {
        return {};
    }
    return ipv6 ? ipv6Address(message) : ipv4Address(message);
}

std::size_t expectedSegmentSize(View control) {
    const auto isPositive = [](View message) { return at<std::int32_t>(message, 16) > 0; };
    const View message = firstMessage(control, 17, UDP_GRO, 4, isPositive);
    return message.empty() ? 0 : at<std::uint32_t>(message, 16);
}

}  // namespace
}  // namespace vesk::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vesk;
    using namespace vesk::fuzz;
    const View control(data, size);
    for (const int family : {AF_INET, AF_INET6}) {
        const ReceivedControl found = readControl(family, control);
        require(found.localDestination == expectedDestination(family, control),
                "the address a datagram was sent to is found");
        require(found.segmentSize == expectedSegmentSize(control), "the segment size is found");
    }
    require(readControl(AF_UNSPEC, control).localDestination.address.length == 0,
            "no family, no address");
    return 0;
}
