#include "datapath/wire/lateral_header.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "datapath/wire/authentication.h"

namespace vesk {

namespace {

using Region = std::span<const std::uint8_t>;

/// The length byte and the address.
Region coveredByHmac(ConstDatagramBuffer buffer, std::size_t addressLength) {
    return buffer.subspan(lateralLayout.lengthOffset, lateralLayout.lengthSize + addressLength);
}

/// Makes `by` bytes of room in front of a datagram. False, and no change, if both together do not
/// fit into the buffer.
bool moveUp(DatagramBuffer buffer, std::size_t length, std::size_t by) {
    if (by + length > buffer.size()) {
        return false;
    }
    std::memmove(buffer.data() + by, buffer.data(), length);
    return true;
}

}  // namespace

std::optional<LateralHeader> parseLateralHeader(ConstDatagramBuffer buffer, std::size_t length) {
    constexpr std::size_t shortest = lateralLayout.minAddressLength + lateralLayout.hmacLength;
    constexpr std::size_t longest = lateralLayout.maxAddressLength + lateralLayout.hmacLength;
    if (length < lateralLayout.minLateralSize) {
        return std::nullopt;
    }
    const LateralHeader header{buffer[lateralLayout.typeOffset],
                               buffer[lateralLayout.lengthOffset]};
    if (header.length < shortest || header.length > longest || length < header.size()) {
        return std::nullopt;
    }
    return header;
}

std::optional<std::size_t> addLateralHeader(DatagramBuffer buffer, std::size_t length,
                                            const SocketAddress& sender, HmacKey& signingKey) {
    const std::size_t headerLength =
        lateralLayout.addressOffset + sender.length + lateralLayout.hmacLength;
    if (sender.length > lateralLayout.maxAddressLength || !moveUp(buffer, length, headerLength)) {
        return std::nullopt;
    }
    buffer[lateralLayout.typeOffset] = lateralForward;
    buffer[lateralLayout.lengthOffset] =
        static_cast<std::uint8_t>(sender.length + lateralLayout.hmacLength);
    const auto address = sender.bytes();
    std::ranges::copy(address, buffer.begin() + lateralLayout.addressOffset);
    const std::array<Region, 1> covered{coveredByHmac(buffer, address.size())};
    const auto tag =
        buffer.subspan(lateralLayout.addressOffset + address.size(), lateralLayout.hmacLength);
    if (!computeTag(signingKey, covered, tag)) {
        return std::nullopt;
    }
    return headerLength + length;
}

std::optional<std::size_t> addReturnHeader(DatagramBuffer buffer, std::size_t length,
                                           const ReturnPath& returnPath) {
    const auto kept = returnPath.bytes();
    const std::size_t headerLength = lateralLayout.returnInfoOffset + kept.size();
    if (!moveUp(buffer, length, headerLength)) {
        return std::nullopt;
    }
    buffer[lateralLayout.typeOffset] = lateralReturn;
    std::ranges::copy(kept, buffer.begin() + lateralLayout.returnInfoOffset);
    return headerLength + length;
}

ReturnPath keepReturnPath(ConstDatagramBuffer buffer, const LateralHeader& header) {
    return ReturnPath(
        buffer.subspan(lateralLayout.returnInfoOffset, lateralLayout.lengthSize + header.length));
}

bool checkLateralHmac(ConstDatagramBuffer buffer, const LateralHeader& header,
                      HmacKey& checkingKey) {
    const std::size_t addressLength = header.length - lateralLayout.hmacLength;
    const std::array<Region, 1> covered{coveredByHmac(buffer, addressLength)};
    return checkTag(
        checkingKey, covered,
        buffer.subspan(lateralLayout.addressOffset + addressLength, lateralLayout.hmacLength));
}

SocketAddress lateralAddress(ConstDatagramBuffer buffer, const LateralHeader& header) {
    const auto bytes =
        buffer.subspan(lateralLayout.addressOffset, header.length - lateralLayout.hmacLength);
    SocketAddress address;
    std::memcpy(&address.storage, bytes.data(), bytes.size());
    if (isAddressOfFamily(address.family(), bytes.size())) {
        address.length = static_cast<socklen_t>(bytes.size());
    }
    return address;
}

std::size_t stripLateralHeader(DatagramBuffer buffer, std::size_t length,
                               const LateralHeader& header) {
    const std::size_t rest = length - header.size();
    std::memmove(buffer.data(), buffer.data() + header.size(), rest);
    return rest;
}

}  // namespace vesk
