// The lateral header: prepended, parsed, stored, returned and removed. The input is a lateral
// datagram, or other bytes that are made into one.
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "datapath/wire/lateral_header.h"
#include "flow/hmac_info.h"
#include "support/byte_reader.h"
#include "support/keys.h"
#include "support/require.h"

namespace vesk::fuzz {
namespace {

struct Buffer {
    explicit Buffer(View datagram) : length(std::min(datagram.size(), maxDatagramSize)) {
        bytes.fill(0xA5);
        std::copy_n(datagram.begin(), length, bytes.begin());
    }
    View datagram() const { return View(bytes).first(length); }

    std::array<std::uint8_t, maxDatagramSize> bytes;
    std::size_t length;
};

bool isLateral(View datagram) {
    return datagram.size() >= 34 && datagram[1] >= 32 && datagram[1] <= 44 &&
           datagram.size() >= std::size_t{2} + datagram[1];
}

/// Whether a datagram could be sent to the header's address.
bool hasWholeAddress(View datagram) {
    sa_family_t family = 0;
    std::memcpy(&family, datagram.data() + 2, sizeof(family));
    return (family == AF_INET && datagram[1] == 32) || (family == AF_INET6 && datagram[1] == 44);
}

HmacInfo recordOf(const TestKey& key) {
    HmacInfo record;
    record.setKey(key.bytes);
    record.setAlgorithm(hmacSha256);
    return record;
}

/// Another instance handles a datagram that was forwarded to it, and this one handles the reply.
void keepAndReturn(const Buffer& received, const LateralHeader& header) {
    Buffer buffer = received;
    const ReturnPath kept = keepReturnPath(buffer.bytes, header);
    require(std::ranges::equal(kept.bytes(), received.datagram().subspan(1, header.size() - 1)),
            "what is kept is the header but for its type");
    buffer.length = stripLateralHeader(buffer.bytes, buffer.length, header);
    require(std::ranges::equal(buffer.datagram(), received.datagram().subspan(header.size())),
            "the datagram comes out of its header as it went in");

    const auto returned = addReturnHeader(buffer.bytes, buffer.length, kept);
    require(returned == received.length, "a header put back makes up what was taken off");
    buffer.length = *returned;
    Bytes expected = toBytes(received.datagram());
    expected.front() = 2;
    require(std::ranges::equal(buffer.datagram(), expected),
            "a datagram is returned as it came, but for the type");
}

void checkHmac(const Buffer& received, const LateralHeader& header) {
    const View datagram = received.datagram();
    const std::size_t addressLength = header.length - 16;
    const TestKey& key = someKeys().at(2);
    HmacInfo record = recordOf(key);
    const Bytes tag = hmacOf(key, datagram.subspan(1, 1 + addressLength), 16);
    require(checkLateralHmac(received.bytes, header, record) ==
                std::ranges::equal(datagram.subspan(2 + addressLength, 16), tag),
            "a header passes if its tag is the right one");
    const SocketAddress address = lateralAddress(received.bytes, header);
    require((address.length != 0) == hasWholeAddress(datagram), "whole addresses are read");
    require(std::ranges::equal(address.bytes(), datagram.subspan(2, address.length)),
            "an address is read whole");
}

void forward(View payload, const SocketAddress& sender) {
    Buffer buffer(payload);
    const Bytes before = toBytes(buffer.datagram());
    HmacInfo record = recordOf(someKeys().at(2));
    const auto wrapped = addLateralHeader(buffer.bytes, buffer.length, sender, record);
    const bool fits = before.size() + 18 + sender.length <= maxDatagramSize && sender.length <= 28;
    require(wrapped.has_value() == fits, "a header is added where it fits");
    if (!wrapped) {
        return;
    }
    buffer.length = *wrapped;
    const auto header = parseLateralHeader(buffer.bytes, buffer.length);
    require(header && header->type == 1, "a header that was added can be read");
    require(checkLateralHmac(buffer.bytes, *header, record), "a header that was added passes");
    require(lateralAddress(buffer.bytes, *header) == sender, "the sender's address comes back");
    for (const std::size_t place : {std::size_t{2}, header->size() - 17, header->size() - 1}) {
        buffer.bytes.at(place) ^= 1U;
        require(!checkLateralHmac(buffer.bytes, *header, record), "a changed bit shows");
        buffer.bytes.at(place) ^= 1U;
    }
    buffer.length = stripLateralHeader(buffer.bytes, buffer.length, *header);
    require(std::ranges::equal(buffer.datagram(), before),
            "a header added and taken off leaves no trace");
}

/// A return path that does not fit leaves the datagram unchanged, so that it is counted and
/// dropped.
void returnWhatIsTooLong(const Buffer& received) {
    Buffer buffer = received;
    const ReturnPath path(View(received.bytes).first(ReturnPath::capacity));
    const bool fits = received.length + 1 + ReturnPath::capacity <= maxDatagramSize;
    require(addReturnHeader(buffer.bytes, buffer.length, path).has_value() == fits,
            "a header is put back where it fits");
    require(fits || buffer.bytes == received.bytes, "a refusal changes nothing");
}

SocketAddress senderFrom(View bytes, sa_family_t family, socklen_t length) {
    SocketAddress address;
    std::memcpy(&address.storage, bytes.data(), std::min<std::size_t>(bytes.size(), length));
    address.storage.sin6_family = family;
    address.length = length;
    return address;
}

}  // namespace
}  // namespace vesk::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vesk;
    using namespace vesk::fuzz;
    const View input(data, size);
    const Buffer received(input);
    const auto header = parseLateralHeader(received.bytes, received.length);
    require(header.has_value() == isLateral(received.datagram()),
            "just the right datagrams are accepted");
    if (header) {
        require(header->type == input[0] && header->length == input[1], "the header is read");
        keepAndReturn(received, *header);
        checkHmac(received, *header);
    }
    if (!input.empty()) {
        forward(input, senderFrom(input, AF_INET, 16));
        forward(input, senderFrom(input, AF_INET6, 28));
        forward(input, senderFrom(input, AF_UNIX, 29));
    }
    returnWhatIsTooLong(received);
    return 0;
}
