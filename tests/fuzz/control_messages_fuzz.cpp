// The search through control messages for the address to which a datagram was sent. The input is
// the control data, which is searched for both families.
#include <netinet/in.h>

#include <cstring>

#include "datapath/datagram_io.h"
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

/// The same search by index: a message consists of its length (8 bytes), level and type (4 each)
/// and data, and the next message begins at a multiple of 8.
LocalAddress expectedDestination(int family, View control) {
    const bool ipv6 = family == AF_INET6;
    for (std::size_t offset = 0; offset + 16 <= control.size();) {
        const auto length = at<std::uint64_t>(control, offset);
        if (length < 16 || length > control.size() - offset) {
            break;
        }
        const bool wanted =
            at<std::int32_t>(control, offset + 8) == (ipv6 ? 41 : 0) &&
            at<std::int32_t>(control, offset + 12) == (ipv6 ? IPV6_PKTINFO : IP_PKTINFO);
        const View message = control.subspan(offset, length);
        if (wanted && length >= (ipv6 ? 36U : 28U)) {
            return ipv6 ? ipv6Address(message) : ipv4Address(message);
        }
        offset += (length + 7) / 8 * 8;
    }
    return {};
}

}  // namespace
}  // namespace vesk::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vesk;
    using namespace vesk::fuzz;
    const View control(data, size);
    for (const int family : {AF_INET, AF_INET6}) {
        require(findLocalDestination(family, control) == expectedDestination(family, control),
                "the address a datagram was sent to is found");
    }
    require(findLocalDestination(AF_UNSPEC, control).address.length == 0, "no family, no address");
    return 0;
}
