#include "lib/framing.h"

#include <stdexcept>
#include <string>

namespace vesk::bench {

const FramingLayout& framingByName(std::string_view name) {
    if (name == udpV1.name) {
        return udpV1;
    }
    if (name == udpV2.name) {
        return udpV2;
    }
    throw std::invalid_argument("unknown framing: " + std::string(name));
}

std::uint32_t readNumber(std::span<const std::byte> fourBytes) {
    std::uint32_t value = 0;
    for (const std::byte byte : fourBytes.first(4)) {
        value = value << 8 | std::to_integer<std::uint32_t>(byte);
    }
    return value;
}

void writeNumber(std::span<std::byte> fourBytes, std::uint32_t value) {
    for (std::size_t i = 0; i < 4; ++i) {
        fourBytes[i] = static_cast<std::byte>(value >> (24 - 8 * i));
    }
}

void writeHeaderLength(const FramingLayout& layout, std::span<std::byte> datagram) {
    if (layout.headerLengthSize == 0) {
        return;
    }
    datagram[layout.hmacLength] = static_cast<std::byte>(layout.headerSize >> 8);
    datagram[layout.hmacLength + 1] = static_cast<std::byte>(layout.headerSize);
}

std::optional<std::size_t> findPayload(const FramingLayout& layout,
                                       std::span<const std::byte> datagram) {
    if (datagram.size() < layout.headerSize) {
        return std::nullopt;
    }
    if (layout.headerLengthSize == 0) {
        return layout.headerSize;
    }
    const std::size_t offset = std::to_integer<std::size_t>(datagram[layout.hmacLength]) << 8 |
                               std::to_integer<std::size_t>(datagram[layout.hmacLength + 1]);
    if (offset < layout.headerSize || offset >= datagram.size()) {
        return std::nullopt;
    }
    return offset;
}

std::array<std::span<const std::byte>, 2> authenticatedRanges(const FramingLayout& layout,
                                                              std::span<const std::byte> datagram,
                                                              std::size_t payloadOffset) {
    if (layout.headerLengthSize == 0) {
        return {datagram.subspan(layout.hmacLength), {}};
    }
    return {datagram.subspan(payloadOffset),
            datagram.subspan(layout.hmacLength, payloadOffset - layout.hmacLength)};
}

}  // namespace vesk::bench
